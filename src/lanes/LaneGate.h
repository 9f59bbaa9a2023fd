#pragma once

// How many jobs of one lane run at once. A freed slot passes straight to the first
// waiter, so a job that arrives in between cannot jump the queue; a waiter that is taken
// out before its turn leaves no trace.
//
// Thread contract: main thread. Jobs are asynchronous requests whose replies come back
// there, so the gate needs no lock of its own.

#include <cstddef>
#include <deque>
#include <functional>
#include <optional>

#include "core/Uuid.h"

namespace osv {

class LaneGate {
public:
    explicit LaneGate(int limit) : limit_(limit < 1 ? 1 : limit) {}

    // Takes a slot for `granted`: runs it at once, inside this call, when a slot is free
    // (and returns none); otherwise queues it and returns the waiter's id. A queued
    // `granted` runs from inside the release() that hands it the slot.
    std::optional<Uuid> acquire(std::function<void()> granted);
    // Gives a slot back: to the first waiter if there is one (`active` stays), else frees it.
    void release();
    // Takes a waiter out; its `granted` never runs and `active` does not change. False when
    // the id is not waiting (it already holds its slot, which it must release).
    bool abandon(const Uuid& id);

    int limit() const { return limit_; }
    int active() const { return active_; }
    std::size_t waitingCount() const { return waiting_.size(); }

private:
    struct Waiter {
        Uuid id;
        std::function<void()> granted;
    };
    int limit_;
    int active_ = 0;
    std::deque<Waiter> waiting_;
};

}  // namespace osv
