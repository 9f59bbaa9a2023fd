#include "core/ManualScheduler.h"

#include <algorithm>

namespace osv {

void ManualScheduler::post(std::function<void()> task) { posted_.push_back(std::move(task)); }

TimerHandle ManualScheduler::after(double seconds, std::function<void()> task) {
    auto state = std::make_shared<TimerHandle::State>();
    timers_.push_back(Timer{now_ + std::max(0.0, seconds), nextSequence_++, std::move(task), state});
    return TimerHandle(state);
}

void ManualScheduler::runInBackground(std::function<void()> work) { post(std::move(work)); }

void ManualScheduler::runUntilIdle() {
    while (!posted_.empty()) {
        auto task = std::move(posted_.front());
        posted_.pop_front();
        task();
    }
}

void ManualScheduler::advance(double seconds) { advanceTo(now_ + std::max(0.0, seconds)); }

void ManualScheduler::advanceTo(Date target) {
    runUntilIdle();
    for (;;) {
        std::erase_if(timers_, [](const Timer& t) { return t.state->cancelled; });
        auto next = std::min_element(timers_.begin(), timers_.end(), [](const Timer& a, const Timer& b) {
            return a.due != b.due ? a.due < b.due : a.sequence < b.sequence;
        });
        if (next == timers_.end() || next->due > target) break;
        Timer timer = std::move(*next);
        timers_.erase(next);
        now_ = std::max(now_, timer.due);
        timer.state->fired = true;
        timer.task();
        runUntilIdle();
    }
    now_ = std::max(now_, target);
    runUntilIdle();
}

std::size_t ManualScheduler::pendingTimerCount() const {
    return std::size_t(std::count_if(timers_.begin(), timers_.end(),
                                     [](const Timer& t) { return !t.state->cancelled; }));
}

}  // namespace osv
