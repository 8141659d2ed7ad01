#pragma once

#include <chrono>
#include <functional>

namespace veltra {

// Where state that a user interface observes lives. Closures posted from any thread run one at a
// time on the queue's own thread, "the main thread", in the order they become due.
class MainQueue {
public:
    using Clock = std::chrono::steady_clock;

    virtual ~MainQueue() = default;

    virtual void post(std::function<void()> task) = 0;
    virtual void postAfter(Clock::duration delay, std::function<void()> task) = 0;
    virtual bool isMainThread() const = 0;
    // The queue's notion of now: real time, or the fake clock of a test queue.
    virtual Clock::time_point now() const = 0;
};

} // namespace veltra
