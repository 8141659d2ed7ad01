// The Qt main queue keeps the core's promises: tasks from any thread run on the GUI thread, in
// the order posted, and delayed ones in the order they become due.

#include "Background.h"
#include "QtMainQueue.h"
#include "StudioTestSupport.h"
#include "core/support/StopToken.h"

#include <QThread>
#include <atomic>
#include <optional>
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
    JThread poster([&] {
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

namespace veltra::studio {
namespace {

// A job's result reaches its page on the GUI thread only while the page lives; a page closed
// while the job runs is never touched.
TEST(Background, ResultsReachOnlyPagesThatStillExist) {
    Background background;
    std::atomic<bool> finish = false;
    bool delivered = false;
    auto* closed = new QObject;
    background.run<int>(
        closed,
        [&](StopToken) {
            while (!finish) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            return 1;
        },
        [&](int) { delivered = true; });
    delete closed;
    finish = true;

    QObject open;
    std::optional<int> received;
    bool onGuiThread = false;
    background.run<int>(
        &open, [](StopToken) { return 7; },
        [&](int value) {
            onGuiThread = QThread::currentThread() == open.thread();
            received = value;
        });
    ASSERT_TRUE(testing::waitFor([&] { return received.has_value() && background.idle(); }));
    QCoreApplication::processEvents();
    EXPECT_EQ(received, 7);
    EXPECT_TRUE(onGuiThread);
    EXPECT_FALSE(delivered);
}

} // namespace
} // namespace veltra::studio
