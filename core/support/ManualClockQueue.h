#pragma once

#include "MainQueue.h"
#include "ScheduledTasks.h"

#include <mutex>
#include <thread>

namespace veltra {

// A main queue whose clock moves only when told, for deterministic tests of timed behaviour.
// Tasks may be posted from any thread; they run only inside runPending() and advance(), on the
// thread that constructed the queue.
class ManualClockQueue final : public MainQueue {
public:
    ManualClockQueue();

    void post(std::function<void()> task) override;
    void postAfter(Clock::duration delay, std::function<void()> task) override;
    bool isMainThread() const override { return std::this_thread::get_id() == owner_; }
    Clock::time_point now() const override;

    // Runs every task due at the current fake time, including ones those tasks post.
    // Returns how many ran.
    int runPending();
    // Moves the clock forward, running each task at its due time on the way.
    int advance(Clock::duration duration);

private:
    mutable std::mutex lock_;
    ScheduledTasks tasks_;
    Clock::time_point now_;
    std::thread::id owner_;
};

} // namespace veltra
