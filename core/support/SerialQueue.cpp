#include "SerialQueue.h"

#include <future>

namespace veltra {

SerialQueue::SerialQueue(std::string label)
    : label_(std::move(label)), worker_([this] { loop(); }) {}

SerialQueue::~SerialQueue() {
    {
        const std::lock_guard guard(lock_);
        stopping_ = true;
    }
    changed_.notify_all();
    worker_.join();
}

void SerialQueue::post(std::function<void()> task) {
    {
        const std::lock_guard guard(lock_);
        tasks_.push_back(std::move(task));
    }
    changed_.notify_all();
}

void SerialQueue::sync(const std::function<void()>& task) {
    std::promise<void> done;
    post([&] {
        try {
            task();
            done.set_value();
        } catch (...) {
            done.set_exception(std::current_exception());
        }
    });
    done.get_future().get();
}

void SerialQueue::waitUntilIdle() {
    std::unique_lock lock(lock_);
    changed_.wait(lock, [this] { return tasks_.empty() && !busy_; });
}

void SerialQueue::loop() {
    std::unique_lock lock(lock_);
    while (true) {
        changed_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
        if (tasks_.empty()) {
            return; // stopping, and nothing left to do
        }
        auto task = std::move(tasks_.front());
        tasks_.pop_front();
        busy_ = true;
        lock.unlock();
        task();
        lock.lock();
        busy_ = false;
        changed_.notify_all();
    }
}

} // namespace veltra
