#pragma once

#include "MainQueue.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <queue>
#include <vector>

namespace veltra {

// Tasks ordered by due time, then by posting order. Not locked: its owner locks.
class ScheduledTasks {
public:
    using TimePoint = MainQueue::Clock::time_point;

    void push(TimePoint due, std::function<void()> task) {
        heap_.push(Entry{due, nextSequence_++, std::move(task)});
    }
    std::optional<TimePoint> nextDue() const {
        return heap_.empty() ? std::nullopt : std::optional(heap_.top().due);
    }
    // The earliest task due at or before `now`, taken out of the queue.
    std::function<void()> popDue(TimePoint now) {
        if (heap_.empty() || heap_.top().due > now) {
            return {};
        }
        auto task = std::move(const_cast<Entry&>(heap_.top()).task);
        heap_.pop();
        return task;
    }
    bool empty() const { return heap_.empty(); }

private:
    struct Entry {
        TimePoint due;
        std::uint64_t sequence;
        std::function<void()> task;
        bool operator>(const Entry& other) const {
            return due != other.due ? due > other.due : sequence > other.sequence;
        }
    };
    std::priority_queue<Entry, std::vector<Entry>, std::greater<>> heap_;
    std::uint64_t nextSequence_ = 0;
};

} // namespace veltra
