// The Qt main queue keeps the core's promises: tasks from any thread run on the GUI thread, in
// the order posted, and delayed ones in the order they become due.

#include "QtMainQueue.h"
#include "StudioTestSupport.h"

#include <thread>

#include <gtest/gtest.h>

namespace veltra::studio {
namespace {

using namespace std::chrono_literals;
using testing::waitFor;

TEST(QtMainQueue, RunsTasksFromOtherThreadsOnTheGuiThreadInOrder) {
    QtMainQueue queue;
    std::vector<int> order;
    bool allOnMain = true;
    std::jthread poster([&] {
        EXPECT_FALSE(queue.isMainThread());
        for (int i = 0; i < 200; ++i) {
            queue.post([&, i] {
                allOnMain = allOnMain && queue.isMainThread();
                order.push_back(i);
            });
        }
    });
    poster.join();
    ASSERT_TRUE(waitFor([&] { return order.size() == 200; }));
    EXPECT_TRUE(allOnMain);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_TRUE(queue.isMainThread());
}

TEST(QtMainQueue, DelayedTasksRunInTheOrderTheyBecomeDueAndNotBefore) {
    QtMainQueue queue;
    std::vector<std::string> order;
    const auto start = queue.now();
    std::optional<MainQueue::Clock::duration> lateRanAfter;
    queue.postAfter(60ms, [&] {
        order.emplace_back("late");
        lateRanAfter = queue.now() - start;
    });
    queue.postAfter(0ms, [&] { order.emplace_back("soon"); });
    queue.post([&] { order.emplace_back("now"); });
    ASSERT_TRUE(waitFor([&] { return order.size() == 3; }));
    EXPECT_EQ(order, (std::vector<std::string>{"soon", "now", "late"}));
    EXPECT_GE(*lateRanAfter, 60ms);
}

} // namespace
} // namespace veltra::studio
