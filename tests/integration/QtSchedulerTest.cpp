// The Scheduler port over the Qt event loop: what the virtual-time tests assume of it.

#include <gtest/gtest.h>

#include <QThread>

#include <atomic>
#include <thread>

#include "LoopbackServers.h"
#include "platform/qt/QtScheduler.h"

namespace osv {
namespace {

using testing::settle;
using testing::waitFor;

TEST(QtScheduler, PostsInOrderOnTheMainThreadFromAnyThread) {
    QtScheduler scheduler;
    std::vector<int> order;
    const auto main = QThread::currentThread();
    bool allOnMain = true;
    scheduler.post([&] { order.push_back(1); });
    std::thread other([&] {
        scheduler.post([&] {
            allOnMain = allOnMain && QThread::currentThread() == main;
            order.push_back(2);
        });
    });
    other.join();
    scheduler.post([&] { order.push_back(3); });
    ASSERT_TRUE(waitFor([&] { return order.size() == 3; }));
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(allOnMain);

    std::optional<int> result;
    std::atomic<bool> offMain{false};
    scheduler.background(
        [&] {
            offMain = QThread::currentThread() != main;
            return 42;
        },
        [&](int r) { result = r; });
    ASSERT_TRUE(waitFor([&] { return result.has_value(); }));
    EXPECT_EQ(*result, 42);
    EXPECT_TRUE(offMain);
}

TEST(QtScheduler, TimersFireInDueOrderAndCancelledOnesNever) {
    QtScheduler scheduler;
    std::vector<std::string> fired;
    TimerHandle late = scheduler.after(0.12, [&] { fired.push_back("late"); });
    TimerHandle early = scheduler.after(0.02, [&] { fired.push_back("early"); });
    TimerHandle cancelled = scheduler.after(0.05, [&] { fired.push_back("cancelled"); });
    { TimerHandle dropped = scheduler.after(0.05, [&] { fired.push_back("dropped"); }); }
    cancelled.cancel();
    EXPECT_TRUE(early.isPending());
    ASSERT_TRUE(waitFor([&] { return fired.size() == 2; }));
    settle(0.1);
    EXPECT_EQ(fired, (std::vector<std::string>{"early", "late"}));
    EXPECT_FALSE(early.isPending());
}

}  // namespace
}  // namespace osv
