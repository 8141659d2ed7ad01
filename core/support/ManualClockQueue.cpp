#include "ManualClockQueue.h"

namespace veltra {

ManualClockQueue::ManualClockQueue()
    : now_(Clock::time_point{} + std::chrono::hours(1)), owner_(std::this_thread::get_id()) {}

void ManualClockQueue::post(std::function<void()> task) {
    postAfter(Clock::duration::zero(), std::move(task));
}

void ManualClockQueue::postAfter(Clock::duration delay, std::function<void()> task) {
    const std::lock_guard guard(lock_);
    tasks_.push(now_ + delay, std::move(task));
}

MainQueue::Clock::time_point ManualClockQueue::now() const {
    const std::lock_guard guard(lock_);
    return now_;
}

int ManualClockQueue::runPending() {
    return advance(Clock::duration::zero());
}

int ManualClockQueue::advance(Clock::duration duration) {
    std::unique_lock lock(lock_);
    const auto target = now_ + duration;
    int ran = 0;
    while (true) {
        const auto due = tasks_.nextDue();
        if (!due || *due > target) {
            break;
        }
        now_ = std::max(now_, *due);
        auto task = tasks_.popDue(now_);
        lock.unlock();
        task();
        ++ran;
        lock.lock();
    }
    now_ = target;
    return ran;
}

} // namespace veltra
