#include <gtest/gtest.h>

#include "core/ManualScheduler.h"
#include "lanes/LaneRunner.h"
#include "settings/TranslatorSettings.h"

namespace osv {
namespace {

// A request that only notes whether it was aborted.
struct NotedCall final : HttpCall {
    explicit NotedCall(bool& aborted) : aborted_(aborted) {}
    ~NotedCall() override { cancel(); }
    void cancel() override { aborted_ = true; }
    bool& aborted_;
};

// Jobs that wait until the test finishes them.
struct Jobs {
    explicit Jobs(LaneRunner& r) : runner(r) {}
    LaneRunner& runner;
    std::vector<std::string> started;
    std::map<std::string, LaneRunner::Finish> finishers;
    std::map<std::string, bool> aborted;
    std::vector<std::string> ended;

    LaneTask submit(LaneID lane, const std::string& key, std::int64_t tokens = 0) {
        aborted[key] = false;
        return runner.submit(
            lane, key,
            [this, key, tokens](const std::shared_ptr<LaneTicket>& ticket, LaneRunner::Finish finish) {
                started.push_back(key);
                ticket->add(tokens, tokens / 2);
                ticket->add(1, 1);  // a second request adds to the first
                finishers[key] = std::move(finish);
                return std::make_unique<NotedCall>(aborted[key]);
            },
            [this, key] { ended.push_back(key); });
    }
    void finish(const std::string& key, LaneOutcome outcome = LaneOutcome::done()) {
        auto f = std::move(finishers.at(key));
        finishers.erase(key);
        f(std::move(outcome));
    }
};

TEST(LaneRunner, LimitsComeFromTheTableAndGatesAreMadeOnFirstUse) {
    ManualScheduler scheduler;
    LaneRunner runner(scheduler);
    EXPECT_EQ(runner.gate(LaneID::sentenceTranslation).limit(), 4);
    EXPECT_EQ(runner.gate(LaneID::sourceRepair).limit(), 4);
    EXPECT_EQ(runner.gate(LaneID::provisionalTranslation).limit(), 4);
    EXPECT_EQ(runner.gate(LaneID::readings).limit(), 2);
    EXPECT_EQ(runner.gate(LaneID::speech).limit(), 1);
    EXPECT_EQ(&runner.gate(LaneID::speech), &runner.gate(LaneID::speech));
    EXPECT_EQ(usageKind(LaneID::sentenceTranslation), UsageTally::Kind::refine);
    EXPECT_EQ(usageKind(LaneID::assistDraft), UsageTally::Kind::suggestionDraft);
    for (LaneID lane : allLanes) EXPECT_EQ(laneFromRaw(rawValue(lane)), lane);
}

TEST(LaneRunner, ALaneOfOneRunsItsJobsInSubmissionOrderAndFilesWhatTheyCost) {
    ManualScheduler scheduler(Date(100.0));
    LaneRunner runner(scheduler);
    Jobs jobs{runner};
    for (const char* key : {"a", "b", "c"}) (void)jobs.submit(LaneID::summary, key, 10);
    EXPECT_TRUE(jobs.started.empty());  // nothing from inside submit
    scheduler.runUntilIdle();
    EXPECT_EQ(jobs.started, std::vector<std::string>{"a"});
    EXPECT_EQ(runner.gate(LaneID::summary).waitingCount(), 2u);

    scheduler.advance(2.0);
    jobs.finish("a");
    scheduler.runUntilIdle();
    EXPECT_EQ(jobs.started, (std::vector<std::string>{"a", "b"}));
    scheduler.advance(3.0);
    jobs.finish("b", LaneOutcome::failed("翻译失败"));
    scheduler.runUntilIdle();
    jobs.finish("c");
    scheduler.runUntilIdle();
    EXPECT_EQ(jobs.started, (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(jobs.ended, (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(runner.gate(LaneID::summary).active(), 0);
    EXPECT_EQ(runner.outstandingCount(), 0u);

    const LaneRun a = runner.runs("a").at(LaneID::summary);
    EXPECT_EQ(a.startedAt, Date(100.0));
    EXPECT_EQ(a.finishedAt, Date(102.0));
    EXPECT_EQ(a.inputTokens, 11);
    EXPECT_EQ(a.outputTokens, 6);
    // Queueing is not part of a run: b started when a let go of the slot.
    const LaneRun b = runner.runs("b").at(LaneID::summary);
    EXPECT_EQ(b.startedAt, Date(102.0));
    EXPECT_EQ(b.finishedAt, Date(105.0));
    EXPECT_EQ(b.outcome, LaneOutcome::failed("翻译失败"));
    EXPECT_EQ(runner.keyOrder(), (std::deque<std::string>{"a", "b", "c"}));
}

TEST(LaneRunner, AJobCancelledInTheQueueLeavesNoTraceAndTheNextRuns) {
    ManualScheduler scheduler;
    LaneRunner runner(scheduler);
    Jobs jobs{runner};
    auto first = jobs.submit(LaneID::coach, "1");
    auto second = jobs.submit(LaneID::coach, "2");
    auto third = jobs.submit(LaneID::coach, "3");
    auto never = jobs.submit(LaneID::coach, "0");
    never.cancel();  // before it even asked for a slot
    scheduler.runUntilIdle();
    second.cancel();
    scheduler.runUntilIdle();
    EXPECT_TRUE(second.isFinished());
    jobs.finish("1");
    scheduler.runUntilIdle();
    EXPECT_EQ(jobs.started, (std::vector<std::string>{"1", "3"}));
    jobs.finish("3");
    scheduler.runUntilIdle();
    EXPECT_TRUE(runner.runs("2").empty());
    EXPECT_TRUE(runner.runs("0").empty());
    EXPECT_EQ(runner.keyOrder(), (std::deque<std::string>{"1", "3"}));
    EXPECT_EQ(jobs.ended.size(), 4u);  // every job ends, traced or not
    EXPECT_EQ(runner.gate(LaneID::coach).active(), 0);
}

TEST(LaneRunner, CancellingARunningJobAbortsItsRequestAndFilesCancelled) {
    ManualScheduler scheduler;
    LaneRunner runner(scheduler);
    Jobs jobs{runner};
    auto running = jobs.submit(LaneID::assist, "q");
    auto waiting = jobs.submit(LaneID::assist, "r");
    scheduler.runUntilIdle();
    running.cancel();
    EXPECT_TRUE(jobs.aborted["q"]);
    jobs.finishers.at("q")(LaneOutcome::done());  // a reply racing the abort changes nothing
    scheduler.runUntilIdle();
    EXPECT_EQ(runner.runs("q").at(LaneID::assist).outcome, LaneOutcome::cancelled());
    EXPECT_EQ(jobs.started, (std::vector<std::string>{"q", "r"}));
    EXPECT_FALSE(jobs.aborted["r"]);

    // Cancelled just as the slot came: nothing to abandon; the job holds the slot, runs no
    // work, and gives the slot back as it ends.
    auto next = jobs.submit(LaneID::assist, "s");
    scheduler.runUntilIdle();
    jobs.finish("r");  // hands the slot to "s"
    next.cancel();
    scheduler.runUntilIdle();
    EXPECT_EQ(jobs.started, (std::vector<std::string>{"q", "r"}));
    EXPECT_EQ(runner.runs("s").at(LaneID::assist).outcome, LaneOutcome::cancelled());
    EXPECT_EQ(runner.gate(LaneID::assist).active(), 0);
    EXPECT_EQ(runner.gate(LaneID::assist).waitingCount(), 0u);
}

TEST(LaneRunner, KeepsTheLastRunPerLaneAndKeyAndAtMost600Keys) {
    ManualScheduler scheduler;
    LaneRunner runner(scheduler);
    auto run = [](LaneID lane, const std::string& key, std::int64_t tokens) {
        LaneRun r;
        r.id = Uuid::random();
        r.lane = lane;
        r.key = key;
        r.inputTokens = tokens;
        return r;
    };
    runner.file(run(LaneID::sentenceTranslation, "k", 1));
    runner.file(run(LaneID::sentenceTranslation, "k", 2));
    runner.file(run(LaneID::readings, "k", 3));
    ASSERT_EQ(runner.runs("k").size(), 2u);
    EXPECT_EQ(runner.runs("k").at(LaneID::sentenceTranslation).inputTokens, 2);

    for (int i = 1; i < 600; ++i) runner.file(run(LaneID::summary, "key-" + std::to_string(i), 0));
    EXPECT_EQ(runner.keyOrder().size(), 600u);
    runner.file(run(LaneID::summary, "key-5", 9));  // an existing key evicts nothing
    EXPECT_EQ(runner.runs("k").size(), 2u);
    runner.file(run(LaneID::summary, "key-600", 0));  // the 601st key evicts the oldest, whole
    EXPECT_TRUE(runner.runs("k").empty());
    EXPECT_EQ(runner.keyOrder().size(), 600u);
    EXPECT_EQ(runner.keyOrder().front(), "key-1");
    EXPECT_EQ(runner.runs("key-5").at(LaneID::summary).inputTokens, 9);
}

TEST(LaneRunner, EstimatedCostFromManualRatesOrTheModelsPriceAndAbsentWhenUnknown) {
    LaneRun r;
    r.lane = LaneID::sentenceTranslation;
    r.inputTokens = 2'000'000;
    r.outputTokens = 1'000'000;
    TranslatorSettings settings;
    settings.models.set("a-model-nobody-prices", ModelJob::fastText, std::nullopt);
    EXPECT_EQ(r.estimatedUSD(settings), std::nullopt);
    settings.usageRates.outputPerMillionUSD = 3.0;
    EXPECT_DOUBLE_EQ(*r.estimatedUSD(settings), 3.0);
    settings.usageRates = {};
    settings.models.set("gpt-4.1-mini", ModelJob::fastText, std::nullopt);
    const auto rate = Pricing::rate("gpt-4.1-mini");
    ASSERT_TRUE(rate);
    EXPECT_DOUBLE_EQ(*r.estimatedUSD(settings), 2 * rate->inputPerMillion + rate->outputPerMillion);
}

TEST(LaneRunner, ARunnerThatGoesAwayAbortsWhatRuns) {
    ManualScheduler scheduler;
    bool aborted = false;
    LaneRunner::Finish finish;
    LaneTask task;
    {
        LaneRunner runner(scheduler);
        task = runner.submit(LaneID::glossary, "g", [&](const std::shared_ptr<LaneTicket>&, LaneRunner::Finish f) {
            finish = std::move(f);
            return std::make_unique<NotedCall>(aborted);
        });
        scheduler.runUntilIdle();
        EXPECT_FALSE(aborted);
    }
    EXPECT_TRUE(aborted);
    finish(LaneOutcome::done());  // a late reply finds no runner
    scheduler.runUntilIdle();
    task.cancel();
}

}  // namespace
}  // namespace osv
