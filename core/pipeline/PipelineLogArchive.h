#pragma once

#include "core/support/SerialQueue.h"

#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

// The full text of one run, appended line by line to a file, so the whole log survives however
// much the visible list drops. File work runs on its own queue in the order it was asked for;
// errors are ignored.
class PipelineLogArchive {
public:
    // How many archives the default folder keeps, this run's included.
    static constexpr std::size_t keptArchives = 20;
    // ~/.veltra/logs, made 0700.
    static std::filesystem::path defaultFolder();

    // A new 0600 file in the default folder ("veltra-log-" + UTC time + ".txt"); the oldest
    // archives beyond keptArchives go.
    PipelineLogArchive();
    explicit PipelineLogArchive(std::filesystem::path url);

    const std::filesystem::path& url() const { return url_; }
    void append(std::vector<std::string> lines);
    // Empties the file.
    void reset();
    // The whole file, after everything asked for before has been written.
    std::string read();

private:
    void writePending();
    void appendToFile(std::string_view text, bool truncate) const;

    std::filesystem::path url_;
    std::mutex lock_;
    std::vector<std::string> pending_;
    bool scheduled_ = false;
    SerialQueue queue_{"com.veltra.log-archive"};
};

} // namespace veltra
