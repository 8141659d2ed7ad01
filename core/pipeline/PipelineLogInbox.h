#pragma once

#include "PipelineLogArchive.h"
#include "core/records/ReleaseLogEntry.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace veltra {

// Where lines from any thread (tool output) wait for the main queue. Holds at most the newest
// 500; every line still reaches the archive, at the moment it arrives.
class PipelineLogInbox {
public:
    static constexpr std::size_t capacity = 500;

    explicit PipelineLogInbox(PipelineLogArchive& archive) : archive_(archive) {}

    void append(std::string text, bool isError);
    std::vector<ReleaseLogEntry> drain();
    // How many lines were ever appended; with drain(upTo), takes only the lines appended before
    // that count was read.
    std::uint64_t appended();
    std::vector<ReleaseLogEntry> drain(std::uint64_t upTo);

private:
    PipelineLogArchive& archive_;
    std::mutex lock_;
    std::deque<ReleaseLogEntry> pending_;
    std::uint64_t appended_ = 0;
};

} // namespace veltra
