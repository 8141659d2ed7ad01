#pragma once

// Cancellation shaped as StopToken, StopSource, StopCallback and JThread.
// Apple's libc++ keeps those behind -fexperimental-library, so Veltra has its own, with the
// standard's member names (stop_requested, request_stop, get_token) and its rules: a callback
// registered after the stop runs at once, and one destroyed while it runs on another thread
// waits for it to finish.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <thread>
#include <type_traits>
#include <utility>

namespace veltra {

namespace detail {
struct StopState;
struct StopCallbackNode;
} // namespace detail

// Whether a stop was asked for. A default-made token never stops.
class StopToken {
public:
    StopToken() noexcept = default;

    bool stop_requested() const noexcept;
    bool stop_possible() const noexcept { return state_ != nullptr; }

private:
    friend class StopSource;
    friend class StopCallback;
    explicit StopToken(std::shared_ptr<detail::StopState> state) : state_(std::move(state)) {}

    std::shared_ptr<detail::StopState> state_;
};

// Asks its tokens to stop, once.
class StopSource {
public:
    StopSource();

    // True only for the call that asked first; runs the registered callbacks on this thread.
    bool request_stop() noexcept;
    bool stop_requested() const noexcept;
    StopToken get_token() const noexcept { return StopToken(state_); }

private:
    std::shared_ptr<detail::StopState> state_;
};

// Runs `callback` when the token's stop is asked for (at once when it was already).
class StopCallback {
public:
    template <typename Callback>
    StopCallback(const StopToken& token, Callback&& callback)
        : StopCallback(token, std::function<void()>(std::forward<Callback>(callback))) {}
    StopCallback(const StopToken& token, std::function<void()> callback);
    ~StopCallback();
    StopCallback(const StopCallback&) = delete;
    StopCallback& operator=(const StopCallback&) = delete;

private:
    std::shared_ptr<detail::StopState> state_;
    std::unique_ptr<detail::StopCallbackNode> node_;
};

// A thread that is asked to stop and joined when it goes; a function that takes a StopToken
// first gets the thread's own.
class JThread {
public:
    JThread() noexcept = default;

    template <typename Function, typename... Arguments>
    requires(!std::is_same_v<std::remove_cvref_t<Function>, JThread>) explicit JThread(
        Function&& function, Arguments&&... arguments) {
        if constexpr (std::is_invocable_v<std::decay_t<Function>, StopToken,
                                          std::decay_t<Arguments>...>) {
            thread_ = std::thread(std::forward<Function>(function), source_.get_token(),
                                  std::forward<Arguments>(arguments)...);
        } else {
            thread_ = std::thread(std::forward<Function>(function),
                                  std::forward<Arguments>(arguments)...);
        }
    }

    JThread(JThread&& other) noexcept = default;
    JThread& operator=(JThread&& other) noexcept {
        if (this != &other) {
            finish();
            source_ = std::move(other.source_);
            thread_ = std::move(other.thread_);
        }
        return *this;
    }
    JThread(const JThread&) = delete;
    JThread& operator=(const JThread&) = delete;
    ~JThread() { finish(); }

    bool joinable() const noexcept { return thread_.joinable(); }
    std::thread::native_handle_type native_handle() { return thread_.native_handle(); }
    void join() { thread_.join(); }
    void detach() { thread_.detach(); }
    bool request_stop() noexcept { return source_.request_stop(); }
    StopSource get_stop_source() const noexcept { return source_; }
    StopToken get_stop_token() const noexcept { return source_.get_token(); }

private:
    void finish() {
        if (thread_.joinable()) {
            source_.request_stop();
            thread_.join();
        }
    }

    StopSource source_;
    std::thread thread_;
};

// condition_variable_any::wait_for(lock, stop, duration, predicate) as the standard has it:
// waits until `predicate` holds, the stop is asked for or the time is up; returns predicate().
template <typename Lock, typename Rep, typename Period, typename Predicate>
bool waitFor(std::condition_variable_any& condition, Lock& lock, const StopToken& stop,
             std::chrono::duration<Rep, Period> duration, Predicate predicate) {
    const auto deadline = std::chrono::steady_clock::now() + duration;
    // Notified without the caller's lock, a wake-up can slip between the check and the wait;
    // the short slices bound how late a stop is seen then.
    const StopCallback wake(stop, [&condition] { condition.notify_all(); });
    constexpr auto slice = std::chrono::milliseconds(50);
    while (!predicate()) {
        if (stop.stop_requested()) {
            return predicate();
        }
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) {
            return predicate();
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::steady_clock::duration>(deadline - now);
        condition.wait_for(lock, std::min<std::chrono::steady_clock::duration>(left, slice));
    }
    return true;
}

// condition_variable_any::wait(lock, stop, predicate): until `predicate` holds or the stop is
// asked for; returns predicate().
template <typename Lock, typename Predicate>
bool waitFor(std::condition_variable_any& condition, Lock& lock, const StopToken& stop,
             Predicate predicate) {
    return waitFor(condition, lock, stop, std::chrono::hours(24 * 365), std::move(predicate));
}

} // namespace veltra
