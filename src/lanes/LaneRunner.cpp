#include "lanes/LaneRunner.h"

#include "settings/ModelWiring.h"
#include "settings/TranslatorSettings.h"

namespace osv {

std::string_view rawValue(LaneID lane) {
    switch (lane) {
        case LaneID::sourceRepair: return "sourceRepair";
        case LaneID::sentenceTranslation: return "sentenceTranslation";
        case LaneID::provisionalTranslation: return "provisionalTranslation";
        case LaneID::readings: return "readings";
        case LaneID::contextRepair: return "contextRepair";
        case LaneID::glossary: return "glossary";
        case LaneID::summary: return "summary";
        case LaneID::assistDraft: return "assistDraft";
        case LaneID::assist: return "assist";
        case LaneID::coach: return "coach";
        case LaneID::speech: return "speech";
    }
    return "sentenceTranslation";
}

std::optional<LaneID> laneFromRaw(std::string_view raw) {
    for (LaneID lane : allLanes)
        if (rawValue(lane) == raw) return lane;
    return std::nullopt;
}

int laneLimit(LaneID lane) {
    switch (lane) {
        case LaneID::sourceRepair:
        case LaneID::sentenceTranslation:
        case LaneID::provisionalTranslation: return 4;
        case LaneID::readings: return 2;
        default: return 1;
    }
}

UsageTally::Kind usageKind(LaneID lane) {
    using Kind = UsageTally::Kind;
    switch (lane) {
        case LaneID::sourceRepair: return Kind::sourceRepair;
        case LaneID::sentenceTranslation: return Kind::refine;
        case LaneID::provisionalTranslation: return Kind::provisional;
        case LaneID::readings: return Kind::furigana;
        case LaneID::contextRepair: return Kind::contextRepair;
        case LaneID::glossary: return Kind::glossary;
        case LaneID::summary: return Kind::summary;
        case LaneID::assistDraft: return Kind::suggestionDraft;
        case LaneID::assist: return Kind::suggestion;
        case LaneID::coach: return Kind::coach;
        case LaneID::speech: return Kind::speech;
    }
    return Kind::refine;
}

std::optional<double> LaneRun::estimatedUSD(const TranslatorSettings& settings) const {
    return osv::estimatedUSD(usageKind(lane), inputTokens, outputTokens, settings, settings.activeMode);
}

// MARK: - Tasks

struct LaneTask::State {
    enum class Phase { pending, queued, running, ended };
    LaneID lane;
    std::string key;
    LaneRunner::Work work;
    std::function<void()> onEnd;
    Phase phase = Phase::pending;
    bool cancelled = false;
    std::optional<Uuid> waiterID;
    std::unique_ptr<HttpCall> call;
    std::shared_ptr<LaneTicket> ticket;
    Date startedAt;
    // Cancels through the runner, which may be gone.
    std::function<void()> cancelRunning;
    std::function<void(const Uuid&)> abandon;
};

void LaneTask::cancel() {
    if (!state_ || state_->cancelled || state_->phase == State::Phase::ended) return;
    state_->cancelled = true;
    switch (state_->phase) {
        case State::Phase::pending: break;  // start() will find it cancelled
        case State::Phase::queued:
            if (state_->waiterID && state_->abandon) state_->abandon(*state_->waiterID);
            break;
        case State::Phase::running:
            if (state_->cancelRunning) state_->cancelRunning();
            break;
        case State::Phase::ended: break;
    }
}

bool LaneTask::isFinished() const { return state_ && state_->phase == State::Phase::ended; }
bool LaneTask::isCancelled() const { return state_ && state_->cancelled; }

// MARK: - Runner

LaneRunner::~LaneRunner() {
    // Running jobs end with the runner: their requests are aborted, nothing is filed.
    for (auto& [state, t] : tasks_) {
        t->phase = LaneTask::State::Phase::ended;
        t->call.reset();
        t->work = nullptr;
        t->cancelRunning = nullptr;
        t->abandon = nullptr;
    }
}

LaneGate& LaneRunner::gate(LaneID lane) {
    auto& g = gates_[lane];
    if (!g) g = std::make_unique<LaneGate>(laneLimit(lane));
    return *g;
}

LaneTask LaneRunner::submit(LaneID lane, std::string key, Work work, std::function<void()> onEnd) {
    auto task = std::make_shared<LaneTask::State>();
    task->lane = lane;
    task->key = std::move(key);
    task->work = std::move(work);
    task->onEnd = std::move(onEnd);
    ++outstanding_;
    tasks_[task.get()] = task;
    const auto guard = lifetime_.guard();
    std::weak_ptr<LaneTask::State> weak = task;
    task->abandon = [this, guard, weak](const Uuid& id) {
        if (guard.expired()) return;
        auto t = weak.lock();
        if (!t) return;
        // Taken out of the queue before its turn: no run is filed.
        if (gate(t->lane).abandon(id)) scheduler_.post([this, guard, t] {
                if (!guard.expired()) end(t);
            });
    };
    task->cancelRunning = [this, guard, weak] {
        if (guard.expired()) return;
        if (auto t = weak.lock()) {
            t->call.reset();  // aborts the request; its reply will never come
            finish(t, LaneOutcome::cancelled());
        }
    };
    scheduler_.post([this, guard, task] {
        if (!guard.expired()) start(task);
    });
    return LaneTask(task);
}

void LaneRunner::start(const std::shared_ptr<LaneTask::State>& task) {
    if (task->cancelled) return end(task);  // cancelled before it asked for a slot: no trace
    task->phase = LaneTask::State::Phase::queued;
    const auto guard = lifetime_.guard();
    // The slot may come from inside another job's release: start the work from the queue.
    task->waiterID = gate(task->lane).acquire([this, guard, task] {
        task->waiterID.reset();
        scheduler_.post([this, guard, task] {
            if (!guard.expired()) run(task);
        });
    });
}

void LaneRunner::run(const std::shared_ptr<LaneTask::State>& task) {
    task->phase = LaneTask::State::Phase::running;
    task->ticket = std::make_shared<LaneTicket>();
    task->startedAt = scheduler_.now();
    ++inFlight_[task->lane];
    if (task->cancelled) return finish(task, LaneOutcome::cancelled());  // cancelled as the slot came
    const auto guard = lifetime_.guard();
    std::weak_ptr<LaneTask::State> weak = task;
    auto call = task->work(task->ticket, [this, guard, weak](LaneOutcome outcome) {
        if (guard.expired()) return;
        if (auto t = weak.lock()) finish(t, std::move(outcome));
    });
    if (task->phase == LaneTask::State::Phase::running) task->call = std::move(call);
}

void LaneRunner::finish(const std::shared_ptr<LaneTask::State>& task, LaneOutcome outcome) {
    if (task->phase != LaneTask::State::Phase::running) return;
    task->phase = LaneTask::State::Phase::ended;
    --inFlight_[task->lane];
    LaneRun run;
    run.id = Uuid::random();
    run.lane = task->lane;
    run.key = task->key;
    run.startedAt = task->startedAt;
    run.finishedAt = scheduler_.now();
    // The slot goes back before anything is filed, so the next job need not wait.
    gate(task->lane).release();
    std::tie(run.inputTokens, run.outputTokens) = task->ticket->counters();
    run.outcome = std::move(outcome);
    task->call.reset();
    task->work = nullptr;
    const auto guard = lifetime_.guard();
    scheduler_.post([this, guard, task, run = std::move(run)]() mutable {
        if (guard.expired()) return;
        file(std::move(run));
        end(task);
    });
}

void LaneRunner::end(const std::shared_ptr<LaneTask::State>& task) {
    task->phase = LaneTask::State::Phase::ended;
    task->work = nullptr;
    task->cancelRunning = nullptr;
    task->abandon = nullptr;
    tasks_.erase(task.get());
    if (outstanding_ > 0) --outstanding_;
    if (auto onEnd = std::move(task->onEnd)) onEnd();
}

void LaneRunner::file(LaneRun run) {
    auto it = runs_.find(run.key);
    if (it == runs_.end()) {
        keyOrder_.push_back(run.key);
        it = runs_.emplace(run.key, std::map<LaneID, LaneRun>{}).first;
    }
    it->second[run.lane] = std::move(run);
    while (keyOrder_.size() > kMaximumKeys) {
        runs_.erase(keyOrder_.front());
        keyOrder_.pop_front();
    }
}

std::map<LaneID, LaneRun> LaneRunner::runs(const std::string& key) const {
    const auto it = runs_.find(key);
    return it == runs_.end() ? std::map<LaneID, LaneRun>{} : it->second;
}

}  // namespace osv
