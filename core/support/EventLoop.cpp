#include "EventLoop.h"

namespace veltra {

EventLoop::EventLoop() : owner_(std::this_thread::get_id()) {}

void EventLoop::post(std::function<void()> task) {
    postAfter(Clock::duration::zero(), std::move(task));
}

void EventLoop::postAfter(Clock::duration delay, std::function<void()> task) {
    {
        const std::lock_guard guard(lock_);
        tasks_.push(Clock::now() + delay, std::move(task));
    }
    wake_.notify_one();
}

bool EventLoop::isMainThread() const {
    const std::lock_guard guard(lock_);
    return std::this_thread::get_id() == owner_;
}

void EventLoop::run() {
    runUntil([] { return false; }, Clock::duration::max());
}

bool EventLoop::runUntil(const std::function<bool()>& done, Clock::duration duration) {
    const auto start = Clock::now();
    const auto deadline =
        duration >= Clock::time_point::max() - start ? Clock::time_point::max() : start + duration;
    std::unique_lock lock(lock_);
    owner_ = std::this_thread::get_id();
    quit_ = false;
    while (true) {
        if (done()) {
            return true;
        }
        if (quit_) {
            quit_ = false;
            return false;
        }
        const auto current = Clock::now();
        if (auto task = tasks_.popDue(current)) {
            lock.unlock();
            task();
            lock.lock();
            continue;
        }
        if (current >= deadline) {
            return false;
        }
        const auto wakeAt = std::min(tasks_.nextDue().value_or(deadline), deadline);
        wake_.wait_until(lock, wakeAt);
    }
}

void EventLoop::runPending() {
    std::unique_lock lock(lock_);
    const auto current = Clock::now();
    while (auto task = tasks_.popDue(current)) {
        lock.unlock();
        task();
        lock.lock();
    }
}

void EventLoop::quit() {
    {
        const std::lock_guard guard(lock_);
        quit_ = true;
    }
    wake_.notify_all();
}

} // namespace veltra
