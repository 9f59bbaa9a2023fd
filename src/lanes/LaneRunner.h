#pragma once

// Bounded background language work. A lane is one kind of job (translate a sentence,
// repair it, draft an answer...); the runner bounds how many jobs of each lane run at
// once, keeps a short record of what each job cost and how it ended, and lets a job that
// is cancelled while queued leave without having run. It knows nothing of models or
// sentences: it sees a lane, a string key and a piece of cancellable work.
//
// Thread contract: main thread. A job's work is an asynchronous request whose reply comes
// back on the main thread; starting a job, handing a slot on and filing a run go through
// the Scheduler, so nothing runs from inside submit() or cancel().

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "core/Date.h"
#include "core/Scheduler.h"
#include "core/Uuid.h"
#include "lanes/LaneGate.h"
#include "metering/UsageTally.h"
#include "services/HttpTransport.h"

namespace osv {

struct TranslatorSettings;

enum class LaneID {
    sourceRepair, sentenceTranslation, provisionalTranslation, readings, contextRepair, glossary, summary,
    assistDraft, assist, coach, speech
};
inline constexpr std::array<LaneID, 11> allLanes{
    LaneID::sourceRepair, LaneID::sentenceTranslation, LaneID::provisionalTranslation, LaneID::readings,
    LaneID::contextRepair, LaneID::glossary,           LaneID::summary,                LaneID::assistDraft,
    LaneID::assist,       LaneID::coach,               LaneID::speech};
std::string_view rawValue(LaneID lane);
std::optional<LaneID> laneFromRaw(std::string_view raw);
// How many jobs of the lane run at once: 4 for the sentence lanes, 2 for readings, else 1.
int laneLimit(LaneID lane);
// The usage kind under which the lane's tokens are priced.
UsageTally::Kind usageKind(LaneID lane);

// The usage a job meets, summed over its requests. Written wherever a reply arrives, read
// once when the job ends.
class LaneTicket {
public:
    void add(std::int64_t input, std::int64_t output) {
        std::lock_guard lock(mutex_);
        input_ += input;
        output_ += output;
    }
    std::pair<std::int64_t, std::int64_t> counters() const {
        std::lock_guard lock(mutex_);
        return {input_, output_};
    }

private:
    mutable std::mutex mutex_;
    std::int64_t input_ = 0;
    std::int64_t output_ = 0;
};

struct LaneOutcome {
    enum class Kind { done, failed, cancelled };
    Kind kind = Kind::done;
    std::string failure;  // the words to show, for failed

    static LaneOutcome done() { return {Kind::done, {}}; }
    static LaneOutcome failed(std::string words) { return {Kind::failed, std::move(words)}; }
    static LaneOutcome cancelled() { return {Kind::cancelled, {}}; }
    bool operator==(const LaneOutcome&) const = default;
};

// What is remembered of one finished job.
struct LaneRun {
    using Outcome = LaneOutcome;

    Uuid id;
    LaneID lane = LaneID::sentenceTranslation;
    std::string key;
    Date startedAt;  // when the gate let it through: queueing is not part of the run
    Date finishedAt;
    std::int64_t inputTokens = 0;
    std::int64_t outputTokens = 0;
    Outcome outcome;

    // The cost: the user's own token rates when either is set, else the price of the model
    // the preferences give the lane's job; none when no rate is known (not 0).
    std::optional<double> estimatedUSD(const TranslatorSettings& settings) const;
    bool operator==(const LaneRun&) const = default;
};

// The handle of a submitted job. Cancelling it takes a queued job out without a trace, or
// aborts a running job's request (the job then ends as cancelled). Letting the handle go
// does not cancel the job.
class LaneTask {
public:
    LaneTask() = default;
    void cancel();
    bool isFinished() const;
    bool isCancelled() const;
    explicit operator bool() const { return bool(state_); }

    struct State;

private:
    friend class LaneRunner;
    explicit LaneTask(std::shared_ptr<State> state) : state_(std::move(state)) {}
    std::shared_ptr<State> state_;
};

class LaneRunner {
public:
    // Calls `finish` exactly once with the job's outcome, now or later; returns the
    // request to abort if the job is cancelled while it runs (null when there is none).
    using Finish = std::function<void(LaneOutcome)>;
    using Work = std::function<std::unique_ptr<HttpCall>(const std::shared_ptr<LaneTicket>&, Finish)>;

    static constexpr std::size_t kMaximumKeys = 600;

    explicit LaneRunner(Scheduler& scheduler) : scheduler_(scheduler) {}
    ~LaneRunner();
    LaneRunner(const LaneRunner&) = delete;
    LaneRunner& operator=(const LaneRunner&) = delete;

    // The lane's gate, made with the lane's limit on first use.
    LaneGate& gate(LaneID lane);

    // Starts a job and returns at once. `onEnd` runs once on the main thread when the job
    // has ended in any way (after its run was filed, if one was).
    LaneTask submit(LaneID lane, std::string key, Work work, std::function<void()> onEnd = {});

    // The last run of each lane for `key`; empty when there are none.
    std::map<LaneID, LaneRun> runs(const std::string& key) const;
    const std::deque<std::string>& keyOrder() const { return keyOrder_; }
    // Jobs submitted and not yet ended.
    std::size_t outstandingCount() const { return outstanding_; }

    // Stores a finished run; the oldest keys beyond 600 go with their whole history.
    void file(LaneRun run);

private:
    void start(const std::shared_ptr<LaneTask::State>& task);
    void run(const std::shared_ptr<LaneTask::State>& task);
    void finish(const std::shared_ptr<LaneTask::State>& task, LaneOutcome outcome);
    void end(const std::shared_ptr<LaneTask::State>& task);

    Scheduler& scheduler_;
    std::map<LaneID, std::unique_ptr<LaneGate>> gates_;
    std::unordered_map<std::string, std::map<LaneID, LaneRun>> runs_;
    std::deque<std::string> keyOrder_;
    std::map<LaneID, int> inFlight_;  // kept beside the others; no decision reads it
    std::size_t outstanding_ = 0;
    // Every job until it ends: a caller need not keep the handle for the job to finish.
    std::unordered_map<const LaneTask::State*, std::shared_ptr<LaneTask::State>> tasks_;
    Lifetime lifetime_;
};

}  // namespace osv
