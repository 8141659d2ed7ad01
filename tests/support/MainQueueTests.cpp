#include "core/support/EventLoop.h"
#include "core/support/ManualClockQueue.h"
#include "core/support/NotificationCenter.h"
#include "core/support/StopToken.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace veltra {
namespace {

using namespace std::chrono_literals;

TEST(EventLoop, RunsWorkFromOtherThreadsOnItsOwnThreadInDueOrder) {
    EventLoop loop;
    std::vector<std::string> order;
    std::atomic<bool> allOnMain = true;
    JThread poster([&] {
        EXPECT_FALSE(loop.isMainThread());
        loop.postAfter(500ms, [&] {
            allOnMain = allOnMain && loop.isMainThread();
            order.push_back("late");
            loop.quit();
        });
        loop.postAfter(5ms, [&] { order.push_back("soon"); });
        loop.post([&] {
            allOnMain = allOnMain && loop.isMainThread();
            order.push_back("now");
        });
    });
    poster.join();
    loop.run();
    EXPECT_TRUE(allOnMain);
    EXPECT_EQ(order, (std::vector<std::string>{"now", "soon", "late"}));

    bool done = false;
    loop.postAfter(1ms, [&] { done = true; });
    EXPECT_TRUE(loop.runUntil([&] { return done; }, 60s));
    EXPECT_FALSE(loop.runUntil([] { return false; }, 20ms));
}

TEST(ManualClockQueue, RunsTimedWorkOnlyWhenTheClockReachesIt) {
    ManualClockQueue queue;
    const auto start = queue.now();
    std::vector<std::string> order;
    queue.postAfter(100ms, [&] {
        order.push_back("100");
        EXPECT_EQ(queue.now() - start, 100ms);
        // Work posted by work runs when its own time comes, within the same advance.
        queue.postAfter(50ms, [&] { order.push_back("150"); });
    });
    queue.postAfter(100ms, [&] { order.push_back("100b"); });
    queue.post([&] { order.push_back("0"); });

    EXPECT_EQ(queue.runPending(), 1);
    EXPECT_EQ(queue.advance(99ms), 0);
    EXPECT_EQ(queue.advance(60ms), 3);
    EXPECT_EQ(order, (std::vector<std::string>{"0", "100", "100b", "150"}));
    EXPECT_EQ(queue.now() - start, 159ms);
}

TEST(NotificationCenter, DeliversOnTheMainQueueToCurrentObserversOfThatName) {
    ManualClockQueue queue;
    NotificationCenter center(queue);
    std::vector<std::string> seen;
    auto completed = center.addObserver("VeltraReleaseCompleted", [&](const Notification& n) {
        EXPECT_TRUE(queue.isMainThread());
        seen.push_back("completed:" + std::any_cast<std::string>(n.payload));
    });
    auto other = center.addObserver("VeltraReleaseNotificationEvent",
                                    [&](const Notification&) { seen.push_back("event"); });

    JThread([&] { center.post("VeltraReleaseCompleted", std::string("1.2")); }).join();
    EXPECT_TRUE(seen.empty()) << "delivered off the main queue";
    queue.runPending();
    EXPECT_EQ(seen, std::vector<std::string>{"completed:1.2"});

    // Removed before the queued delivery runs: not called.
    center.post("VeltraReleaseNotificationEvent");
    other.reset();
    queue.runPending();
    EXPECT_EQ(seen.size(), 1u);

    // An observer that removes another during delivery stops that one's call.
    NotificationCenter::Registration second;
    auto first = center.addObserver("X", [&](const Notification&) {
        seen.push_back("first");
        second.reset();
    });
    second = center.addObserver("X", [&](const Notification&) { seen.push_back("second"); });
    center.post("X");
    queue.runPending();
    EXPECT_EQ(seen.back(), "first");
}

} // namespace
} // namespace veltra
