// Catches cancellation that is lost or comes twice: callbacks that miss a stop or run after
// they were removed, a destroyed callback still running elsewhere, threads not stopped and
// joined, and waits that sleep through a stop.
#include "core/support/StopToken.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include <gtest/gtest.h>

namespace veltra {
namespace {

using namespace std::chrono_literals;

TEST(StopToken, CallbacksRunOnceWhenAndOnlyWhileRegistered) {
    StopSource source;
    const auto token = source.get_token();
    EXPECT_TRUE(token.stop_possible());
    EXPECT_FALSE(StopToken().stop_possible());
    EXPECT_FALSE(StopToken().stop_requested());
    int ran = 0;
    int removedRan = 0;
    StopCallback kept(token, [&ran] { ++ran; });
    {
        StopCallback removed(token, [&removedRan] { ++removedRan; });
    }
    EXPECT_TRUE(source.request_stop());
    EXPECT_FALSE(source.request_stop()) << "only the first request counts";
    EXPECT_TRUE(token.stop_requested());
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(removedRan, 0);
    // Registered after the stop: runs at once, on the registering thread.
    int late = 0;
    StopCallback after(token, [&late] { ++late; });
    EXPECT_EQ(late, 1);
}

TEST(StopToken, DestroyingACallbackWaitsForItToFinishOnAnotherThread) {
    StopSource source;
    std::atomic<bool> entered{false};
    std::atomic<bool> finished{false};
    auto callback = std::make_unique<StopCallback>(source.get_token(), [&] {
        entered = true;
        std::this_thread::sleep_for(200ms);
        finished = true;
    });
    std::thread stopper([&source] { source.request_stop(); });
    while (!entered) {
        std::this_thread::yield();
    }
    callback.reset();
    EXPECT_TRUE(finished) << "destroyed while it was still running";
    stopper.join();
}

TEST(StopToken, ThreadsGetTheirTokenAndAreStoppedAndJoinedWhenTheyGo) {
    std::atomic<bool> sawStop{false};
    {
        JThread worker([&sawStop](StopToken stop) {
            while (!stop.stop_requested()) {
                std::this_thread::sleep_for(1ms);
            }
            sawStop = true;
        });
        EXPECT_TRUE(worker.joinable());
    }
    EXPECT_TRUE(sawStop);
    int plain = 0;
    {
        JThread worker([&plain](int add) { plain += add; }, 3);
    }
    EXPECT_EQ(plain, 3);
}

TEST(StopToken, WaitsEndAtTheStopTheConditionOrTheDeadline) {
    std::mutex lock;
    std::condition_variable_any condition;
    StopSource source;
    bool ready = false;
    std::unique_lock guard(lock);
    // The deadline: the predicate's value.
    EXPECT_FALSE(waitFor(condition, guard, source.get_token(), 20ms, [&] { return ready; }));
    // The condition, from another thread.
    std::thread setter([&] {
        const std::lock_guard held(lock);
        ready = true;
        condition.notify_all();
    });
    EXPECT_TRUE(waitFor(condition, guard, source.get_token(), 1h, [&] { return ready; }));
    guard.unlock();
    setter.join();
    // The stop, long before the deadline.
    guard.lock();
    ready = false;
    std::thread stopper([&source] {
        std::this_thread::sleep_for(50ms);
        source.request_stop();
    });
    EXPECT_FALSE(waitFor(condition, guard, source.get_token(), [&] { return ready; }));
    EXPECT_TRUE(source.stop_requested());
    stopper.join();
}

} // namespace
} // namespace veltra
