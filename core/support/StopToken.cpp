#include "StopToken.h"

#include <atomic>
#include <list>
#include <mutex>

namespace veltra {

namespace detail {

struct StopCallbackNode {
    std::function<void()> callback;
};

struct StopState {
    std::mutex lock;
    std::atomic<bool> requested{false};
    std::list<StopCallbackNode*> callbacks;
    // The callback request_stop is running, and on which thread.
    StopCallbackNode* running = nullptr;
    std::thread::id runningOn;
    std::condition_variable finished;
};

} // namespace detail

bool StopToken::stop_requested() const noexcept {
    return state_ != nullptr && state_->requested.load(std::memory_order_acquire);
}

StopSource::StopSource() : state_(std::make_shared<detail::StopState>()) {}

bool StopSource::stop_requested() const noexcept {
    return state_->requested.load(std::memory_order_acquire);
}

bool StopSource::request_stop() noexcept {
    std::unique_lock guard(state_->lock);
    if (state_->requested.exchange(true, std::memory_order_acq_rel)) {
        return false;
    }
    while (!state_->callbacks.empty()) {
        auto* node = state_->callbacks.front();
        state_->callbacks.pop_front();
        state_->running = node;
        state_->runningOn = std::this_thread::get_id();
        guard.unlock();
        node->callback();
        guard.lock();
        state_->running = nullptr;
        state_->finished.notify_all();
    }
    return true;
}

StopCallback::StopCallback(const StopToken& token, std::function<void()> callback)
    : state_(token.state_), node_(std::make_unique<detail::StopCallbackNode>()) {
    node_->callback = std::move(callback);
    if (!state_) {
        return;
    }
    std::unique_lock guard(state_->lock);
    if (state_->requested.load(std::memory_order_acquire)) {
        guard.unlock();
        state_.reset();
        node_->callback();
        return;
    }
    state_->callbacks.push_back(node_.get());
}

StopCallback::~StopCallback() {
    if (!state_) {
        return;
    }
    std::unique_lock guard(state_->lock);
    auto& callbacks = state_->callbacks;
    for (auto it = callbacks.begin(); it != callbacks.end(); ++it) {
        if (*it == node_.get()) {
            callbacks.erase(it);
            return;
        }
    }
    // Running now: on another thread, wait for it; on this one (the callback ends its own
    // registration), it is done with the node as soon as it returns.
    if (state_->running == node_.get() && state_->runningOn != std::this_thread::get_id()) {
        state_->finished.wait(guard, [this] { return state_->running != node_.get(); });
    }
}

} // namespace veltra
