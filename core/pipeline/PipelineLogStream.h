#pragma once

#include "PipelineLogArchive.h"
#include "PipelineLogInbox.h"
#include "core/records/ReleaseLogEntry.h"
#include "core/support/MainQueue.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace veltra {

// The visible log of a run. Lines are published in batches (at 200 waiting lines or 100 ms
// after the first, whichever comes first) so a view redraws per batch, not per line; at most
// the newest 2000 are kept. Lives on the main queue; only inbox() may be used from elsewhere.
class PipelineLogStream {
public:
    static constexpr std::size_t batchSize = 200;
    static constexpr std::size_t maximumLines = 2000;
    static constexpr MainQueue::Clock::duration flushDelay = std::chrono::milliseconds(100);
    static constexpr MainQueue::Clock::duration inboxPollInterval = std::chrono::milliseconds(100);

    explicit PipelineLogStream(MainQueue& queue);
    PipelineLogStream(MainQueue& queue, std::filesystem::path archivePath);

    void log(std::string text, bool isError = false);
    const std::vector<ReleaseLogEntry>& logs() const { return logs_; }
    PipelineLogInbox& inbox() { return inbox_; }
    PipelineLogArchive& archive() { return archive_; }

    // Moves inbox lines into the log every 100 ms until stopped.
    void startStreaming();
    // Stops polling, takes what is left in the inbox and publishes everything pending.
    void stopStreaming();
    void flush();
    // Publishes what was logged before the inbox had `upTo` lines (PipelineLogInbox::appended),
    // so that a step change shows after the lines that led to it and before the ones after it.
    void catchUp(std::uint64_t upTo);
    // A new run: empties the visible log and the archive.
    void clear();

    // Called with each published batch.
    void setPublishObserver(std::function<void(const std::vector<ReleaseLogEntry>&)> observer) {
        observer_ = std::move(observer);
    }

private:
    void enqueue(ReleaseLogEntry entry);
    void drainInbox();
    void scheduleInboxPoll(std::uint64_t generation);

    MainQueue& queue_;
    PipelineLogArchive archive_;
    PipelineLogInbox inbox_{archive_};
    std::vector<ReleaseLogEntry> logs_;
    std::vector<ReleaseLogEntry> pendingLogs_;
    bool flushScheduled_ = false;
    std::uint64_t flushGeneration_ = 0;
    std::uint64_t streamGeneration_ = 0;
    bool streaming_ = false;
    // Scheduled work holds this weakly, so it does nothing once the stream is gone.
    std::shared_ptr<PipelineLogStream*> self_ = std::make_shared<PipelineLogStream*>(this);
    std::function<void(const std::vector<ReleaseLogEntry>&)> observer_;
};

} // namespace veltra
