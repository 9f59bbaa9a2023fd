#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/ManualScheduler.h"

namespace osv {
namespace {

TEST(ManualScheduler, FiresDueTimersInOrderWithTheClockAtTheirDueTime) {
    ManualScheduler s(Date(100));
    std::vector<std::string> fired;
    auto late = s.after(2.0, [&] { fired.push_back("late@" + std::to_string(int(s.now().seconds))); });
    auto early = s.after(1.0, [&] { fired.push_back("early@" + std::to_string(int(s.now().seconds))); });
    auto tieA = s.after(1.0, [&] { fired.push_back("tieA"); });
    s.advance(0.5);
    EXPECT_TRUE(fired.empty());
    s.advance(2.0);
    EXPECT_EQ(fired, (std::vector<std::string>{"early@101", "tieA", "late@102"}));
    EXPECT_EQ(s.now(), Date(102.5));
    EXPECT_FALSE(early.isPending());
}

TEST(ManualScheduler, DestroyingOrReplacingAHandleCancelsItsTimer) {
    ManualScheduler s;
    int count = 0;
    {
        auto dropped = s.after(1.0, [&] { ++count; });
    }
    TimerHandle rearmed = s.after(1.0, [&] { count += 10; });
    rearmed = s.after(3.0, [&] { count += 100; });  // re-arming replaces the first timer
    s.advance(5.0);
    EXPECT_EQ(count, 100);
    EXPECT_EQ(s.pendingTimerCount(), 0u);
}

TEST(ManualScheduler, TimersArmedWhileFiringRunWithinTheSameAdvance) {
    ManualScheduler s;
    std::vector<double> at;
    TimerHandle second;
    auto first = s.after(1.0, [&] {
        at.push_back(s.now().seconds);
        second = s.after(1.0, [&] { at.push_back(s.now().seconds); });
    });
    s.advance(2.5);
    EXPECT_EQ(at, (std::vector<double>{1.0, 2.0}));
}

TEST(ManualScheduler, BackgroundResultsComeBackThroughTheMainQueue) {
    ManualScheduler s;
    std::vector<std::string> order;
    s.background([&] { order.push_back("work"); return 42; },
                 [&](int v) { order.push_back("done " + std::to_string(v)); });
    s.post([&] { order.push_back("posted"); });
    EXPECT_TRUE(order.empty());
    s.runUntilIdle();
    EXPECT_EQ(order, (std::vector<std::string>{"work", "posted", "done 42"}));
}

TEST(ManualScheduler, LifetimeGuardSilencesCallbacksOfAGoneReceiver) {
    ManualScheduler s;
    int calls = 0;
    auto receiver = std::make_unique<Lifetime>();
    std::weak_ptr<void> guard = receiver->guard();
    s.post([&, guard] { if (!guard.expired()) ++calls; });
    receiver.reset();
    s.runUntilIdle();
    EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace osv
