#pragma once

#include "MainQueue.h"
#include "ScheduledTasks.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace veltra {

// A plain event loop on real time, the main queue of the command line tool and of tests.
// The thread that constructs it, or that last called run(), is its main thread.
class EventLoop final : public MainQueue {
public:
    EventLoop();

    void post(std::function<void()> task) override;
    void postAfter(Clock::duration delay, std::function<void()> task) override;
    bool isMainThread() const override;
    Clock::time_point now() const override { return Clock::now(); }

    // Runs tasks until quit() is called.
    void run();
    // Runs tasks for at most `duration`, returning early once quit() is called or `done` holds
    // after a task. Returns whether `done` held.
    bool runUntil(const std::function<bool()>& done, Clock::duration duration);
    // Runs every task that is due now, without waiting.
    void runPending();
    // Thread-safe; makes run() return after the task it is running.
    void quit();

private:
    mutable std::mutex lock_;
    std::condition_variable wake_;
    ScheduledTasks tasks_;
    std::thread::id owner_;
    bool quit_ = false;
};

} // namespace veltra
