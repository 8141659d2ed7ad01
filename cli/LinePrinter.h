#pragma once

#include <mutex>
#include <ostream>
#include <string>

namespace veltra::cli {

// Writes whole lines from any thread: engines log from the process runner's reader threads.
class LinePrinter {
public:
    explicit LinePrinter(std::ostream& out) : out_(out) {}
    void operator()(const std::string& line) {
        const std::lock_guard guard(lock_);
        out_ << line << '\n' << std::flush;
    }

private:
    std::ostream& out_;
    std::mutex lock_{};
};

} // namespace veltra::cli
