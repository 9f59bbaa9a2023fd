// The Scheduler port over the Qt event loop: what the virtual-time tests assume of it.

#include <gtest/gtest.h>

#include <QThread>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "LoopbackServers.h"
#include "core/EntryGuard.h"
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

// A save still running at quit posts its result back through the scheduler: the scheduler
// waits for it instead of leaving it a freed object (ASan reports the use otherwise).
TEST(QtScheduler, QuittingWaitsForWorkInFlight) {
    std::atomic<bool> started{false}, finished{false};
    bool resultRan = false;
    {
        QtScheduler scheduler;
        scheduler.background(
            [&] {
                started = true;
                std::this_thread::sleep_for(std::chrono::milliseconds(100));  // a slow index save
                finished = true;
                return 1;
            },
            [&](int) { resultRan = true; });
        while (!started) std::this_thread::yield();
    }
    EXPECT_TRUE(finished);
    settle(0.05);
    EXPECT_FALSE(resultRan);  // its result has nobody left to go to
}

// An exception from a task would otherwise leave through Qt's event loop and end the program.
TEST(QtScheduler, AThrowingTaskIsReportedAndTheLoopGoesOn) {
    std::mutex lock;  // the background report comes from a pool thread
    std::vector<std::string> caught;
    setEscapedExceptionHandler([&](std::string_view where, std::string_view) {
        std::lock_guard guard(lock);
        caught.emplace_back(where);
    });
    QtScheduler scheduler;
    int after = 0;
    scheduler.post([] { throw std::runtime_error("posted"); });
    TimerHandle timer = scheduler.after(0.0, [] { throw std::runtime_error("timer"); });
    scheduler.runInBackground([] { throw std::runtime_error("background"); });
    scheduler.post([&] { ++after; });
    ASSERT_TRUE(waitFor([&] {
        std::lock_guard guard(lock);
        return after == 1 && caught.size() == 3;
    }));
    setEscapedExceptionHandler({});
    std::sort(caught.begin(), caught.end());
    EXPECT_EQ(caught, (std::vector<std::string>{"background work", "posted task", "timer"}));
}

TEST(QtScheduler, ACancelledTimerIsStoppedAndFreed) {
    QtScheduler scheduler;
    TimerHandle handle;
    for (int i = 0; i < 50; ++i) handle = scheduler.after(30, [] {});  // re-armed at every delta
    EXPECT_EQ(scheduler.armedTimerCount(), 1u);
    handle.cancel();
    EXPECT_EQ(scheduler.armedTimerCount(), 0u);
    int fired = 0;
    TimerHandle kept = scheduler.after(0.01, [&] { ++fired; });
    ASSERT_TRUE(waitFor([&] { return fired == 1; }));
    kept.cancel();  // after it fired: nothing to free, nothing breaks
    EXPECT_EQ(scheduler.armedTimerCount(), 0u);
}

}  // namespace
}  // namespace osv
