#pragma once

// The process's resident high-water mark, which every benchmark here reports as peak_MiB.

#include <fstream>
#include <sys/resource.h>

namespace veltra::bench {

// Resets the high-water mark to the current size where the platform allows it.
inline bool resetPeakMemory() {
#if defined(__linux__)
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    return bool(clear);
#else
    return false;
#endif
}

inline double peakMemoryMiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
#if defined(__APPLE__)
    return static_cast<double>(usage.ru_maxrss) / (1024.0 * 1024.0);
#else
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
#endif
}

} // namespace veltra::bench
