#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "core/Scheduler.h"

namespace osv {

// A scheduler over a virtual clock, for tests. Nothing runs by itself: advance() moves
// the clock and fires due timers in order of due time (ties in order of arming), and
// runs posted and background tasks as it goes. Single-threaded: background work runs
// on the calling thread, in order.
class ManualScheduler final : public Scheduler {
public:
    explicit ManualScheduler(Date start = Date(0.0)) : now_(start) {}

    Date now() const override { return now_; }
    void post(std::function<void()> task) override;
    TimerHandle after(double seconds, std::function<void()> task) override;
    void runInBackground(std::function<void()> work) override;

    // Runs posted and background tasks (and what they post) until none is left.
    void runUntilIdle();
    // Moves the clock forward by `seconds`, firing every timer that falls due on the way
    // with the clock set to its due time.
    void advance(double seconds);
    void advanceTo(Date target);

    std::size_t pendingTimerCount() const;

private:
    struct Timer {
        Date due;
        std::uint64_t sequence;
        std::function<void()> task;
        std::shared_ptr<TimerHandle::State> state;
    };

    Date now_;
    std::uint64_t nextSequence_ = 0;
    std::deque<std::function<void()>> posted_;
    std::vector<Timer> timers_;
};

}  // namespace osv
