#include "PipelineLogStream.h"

#include "core/support/Secrets.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace veltra {

void PipelineLogInbox::append(std::string text, bool isError) {
    // Tools print remote addresses as they were given, tokens included.
    text = redactURLCredentials(text);
    archive_.append({text});
    const std::lock_guard guard(lock_);
    pending_.push_back(ReleaseLogEntry::make(std::move(text), isError));
    ++appended_;
    while (pending_.size() > capacity) {
        pending_.pop_front();
    }
}

std::vector<ReleaseLogEntry> PipelineLogInbox::drain() {
    return drain(UINT64_MAX);
}

std::uint64_t PipelineLogInbox::appended() {
    const std::lock_guard guard(lock_);
    return appended_;
}

std::vector<ReleaseLogEntry> PipelineLogInbox::drain(std::uint64_t upTo) {
    const std::lock_guard guard(lock_);
    const auto first = appended_ - pending_.size();
    const auto count =
        upTo <= first
            ? std::size_t{0}
            : static_cast<std::size_t>(std::min<std::uint64_t>(upTo - first, pending_.size()));
    const auto end = pending_.begin() + static_cast<std::ptrdiff_t>(count);
    std::vector<ReleaseLogEntry> entries(std::make_move_iterator(pending_.begin()),
                                         std::make_move_iterator(end));
    pending_.erase(pending_.begin(), end);
    return entries;
}

PipelineLogStream::PipelineLogStream(MainQueue& queue) : queue_(queue) {}

PipelineLogStream::PipelineLogStream(MainQueue& queue, std::filesystem::path archivePath)
    : queue_(queue), archive_(std::move(archivePath)) {}

void PipelineLogStream::log(std::string text, bool isError) {
    text = redactURLCredentials(text);
    archive_.append({text});
    enqueue(ReleaseLogEntry::make(std::move(text), isError));
}

void PipelineLogStream::enqueue(ReleaseLogEntry entry) {
    pendingLogs_.push_back(std::move(entry));
    if (pendingLogs_.size() >= batchSize) {
        flush();
        return;
    }
    if (!flushScheduled_) {
        flushScheduled_ = true;
        const auto generation = flushGeneration_;
        queue_.postAfter(flushDelay, [weak = std::weak_ptr(self_), generation] {
            if (const auto self = weak.lock(); self && (*self)->flushGeneration_ == generation) {
                (*self)->flush();
            }
        });
    }
}

void PipelineLogStream::flush() {
    ++flushGeneration_; // a scheduled flush that has not run yet is now void
    flushScheduled_ = false;
    if (pendingLogs_.empty()) {
        return;
    }
    std::vector<ReleaseLogEntry> batch;
    batch.swap(pendingLogs_);
    pendingLogs_.reserve(batch.capacity());
    logs_.insert(logs_.end(), batch.begin(), batch.end());
    if (logs_.size() > maximumLines) {
        logs_.erase(logs_.begin(),
                    logs_.begin() + static_cast<std::ptrdiff_t>(logs_.size() - maximumLines));
    }
    if (observer_) {
        observer_(batch);
    }
}

void PipelineLogStream::drainInbox() {
    for (auto& entry : inbox_.drain()) {
        enqueue(std::move(entry)); // archived already, when it arrived
    }
}

void PipelineLogStream::catchUp(std::uint64_t upTo) {
    for (auto& entry : inbox_.drain(upTo)) {
        enqueue(std::move(entry));
    }
    flush();
}

void PipelineLogStream::startStreaming() {
    streaming_ = true;
    scheduleInboxPoll(++streamGeneration_);
}

void PipelineLogStream::scheduleInboxPoll(std::uint64_t generation) {
    queue_.postAfter(inboxPollInterval, [weak = std::weak_ptr(self_), generation] {
        const auto self = weak.lock();
        if (!self || !(*self)->streaming_ || (*self)->streamGeneration_ != generation) {
            return;
        }
        (*self)->drainInbox();
        (*self)->scheduleInboxPoll(generation);
    });
}

void PipelineLogStream::stopStreaming() {
    streaming_ = false;
    ++streamGeneration_;
    drainInbox();
    flush();
}

void PipelineLogStream::clear() {
    ++flushGeneration_;
    flushScheduled_ = false;
    pendingLogs_.clear();
    logs_.clear();
    inbox_.drain();
    archive_.reset();
}

} // namespace veltra
