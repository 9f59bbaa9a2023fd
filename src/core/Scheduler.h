#pragma once

// The time and threading port. Logic asks it for the time and for timers instead of
// reading a clock or sleeping, so that tests run every timer in virtual time.

#include <functional>
#include <memory>
#include <utility>

#include "core/Date.h"

namespace osv {

// Handle of a timer. Destroying it cancels the timer (RAII); moving it moves ownership.
// A default-constructed handle owns nothing.
class [[nodiscard]] TimerHandle {
public:
    struct State {
        bool cancelled = false;
        bool fired = false;
        // Frees what the scheduler holds for a timer that will never fire; run once, by
        // the first cancel before the timer is due.
        std::function<void()> release;
    };

    TimerHandle() = default;
    explicit TimerHandle(std::shared_ptr<State> state) : state_(std::move(state)) {}
    TimerHandle(TimerHandle&&) noexcept = default;
    TimerHandle& operator=(TimerHandle&& other) noexcept {
        if (this != &other) {
            cancel();
            state_ = std::move(other.state_);
        }
        return *this;
    }
    TimerHandle(const TimerHandle&) = delete;
    TimerHandle& operator=(const TimerHandle&) = delete;
    ~TimerHandle() { cancel(); }

    void cancel() {
        if (state_ && !state_->cancelled) {
            state_->cancelled = true;
            if (!state_->fired && state_->release) std::exchange(state_->release, nullptr)();
        }
        state_.reset();
    }
    // Armed and neither fired nor cancelled.
    bool isPending() const { return state_ && !state_->cancelled && !state_->fired; }

private:
    std::shared_ptr<State> state_;
};

// Thread contract: now(), post() and after() are called on the main thread; post() may
// also be called from any thread (that is how background work comes back). Callbacks of
// post() and after() run on the main thread.
class Scheduler {
public:
    virtual ~Scheduler() = default;

    virtual Date now() const = 0;
    // Runs `task` on the main thread soon, after the tasks posted before it.
    virtual void post(std::function<void()> task) = 0;
    // Runs `task` on the main thread once `seconds` have passed, unless the handle is
    // destroyed or cancelled first.
    virtual TimerHandle after(double seconds, std::function<void()> task) = 0;
    // Runs `work` off the main thread. It must not touch main-thread state.
    virtual void runInBackground(std::function<void()> work) = 0;

    // Runs `work` in the background and hands its result to `done` on the main thread.
    template <class Work, class Done>
    void background(Work work, Done done) {
        runInBackground([this, work = std::move(work), done = std::move(done)]() mutable {
            auto result = std::make_shared<decltype(work())>(work());
            post([done = std::move(done), result]() mutable { done(std::move(*result)); });
        });
    }
};

// Lets a callback find out whether its receiver still exists: the receiver owns a
// Lifetime, callbacks capture its guard() and do nothing once it is gone.
class Lifetime {
public:
    Lifetime() : token_(std::make_shared<char>(0)) {}
    Lifetime(const Lifetime&) : Lifetime() {}
    Lifetime& operator=(const Lifetime&) { return *this; }
    std::weak_ptr<void> guard() const { return token_; }

private:
    std::shared_ptr<char> token_;
};

}  // namespace osv
