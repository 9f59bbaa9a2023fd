#include "lanes/LaneGate.h"

#include <algorithm>

namespace osv {

std::optional<Uuid> LaneGate::acquire(std::function<void()> granted) {
    if (active_ < limit_) {
        ++active_;
        granted();
        return std::nullopt;
    }
    const Uuid id = Uuid::random();
    waiting_.push_back({id, std::move(granted)});
    return id;
}

void LaneGate::release() {
    if (!waiting_.empty()) {
        // The slot passes on: `active` stays as it is.
        auto granted = std::move(waiting_.front().granted);
        waiting_.pop_front();
        granted();
        return;
    }
    active_ = std::max(0, active_ - 1);
}

bool LaneGate::abandon(const Uuid& id) {
    const auto it = std::find_if(waiting_.begin(), waiting_.end(), [&](const Waiter& w) { return w.id == id; });
    if (it == waiting_.end()) return false;
    waiting_.erase(it);
    return true;
}

}  // namespace osv
