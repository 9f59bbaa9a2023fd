#include <gtest/gtest.h>

#include "core/ManualScheduler.h"
#include "live/RealtimeStreamHealth.h"
#include "live/StreamSupervisor.h"

namespace osv {
namespace {

using Action = RealtimeStreamHealth::Action;
using Stage = RealtimeStreamHealth::Stage;

TEST(RealtimeStreamHealthTest, DelaysFollowTheTranscriptionModels) {
    EXPECT_EQ(RealtimeStreamHealth::baseDelay(true, "gpt-transcribe", "gpt-transcribe"), 3.0);
    EXPECT_EQ(RealtimeStreamHealth::baseDelay(false, "gpt-live-transcribe", "gpt-live-transcribe-2"), 7.0);
    EXPECT_EQ(RealtimeStreamHealth::baseDelay(false, "gpt-realtime-whisper", "gpt-live-transcribe"), 11.0);
    const auto fast = RealtimeStreamHealth::connected(Date(0), 3.0);
    EXPECT_EQ(fast.rearmDelay, 7.0);
    EXPECT_EQ(fast.degradeDelay, 14.0);
    const auto slow = RealtimeStreamHealth::connected(Date(0), 11.0);
    EXPECT_EQ(slow.rearmDelay, 11.0);
    EXPECT_EQ(slow.degradeDelay, 18.0);
}

TEST(RealtimeStreamHealthTest, SilentSourceIsRearmedThenDegradedOnlyWhileTranslationFlows) {
    auto h = RealtimeStreamHealth::connected(Date(0), 11.0);
    // No translation: a silent source says nothing.
    EXPECT_EQ(h.evaluate(Date(60)), Action::none);
    h.noteTranslation(Date(100));
    EXPECT_EQ(h.evaluate(Date(110.9)), Action::none);
    h.noteTranslation(Date(106));
    EXPECT_EQ(h.evaluate(Date(111)), Action::rearm);  // 11 s since the burst began
    EXPECT_EQ(h.stage, Stage::rearmed);
    h.noteTranslation(Date(112));
    EXPECT_EQ(h.evaluate(Date(117.9)), Action::none);
    EXPECT_EQ(h.evaluate(Date(118)), Action::degrade);
    EXPECT_EQ(h.noteSource(Date(119)), Action::restore);
    EXPECT_EQ(h.stage, Stage::healthy);
    EXPECT_EQ(h.noteSource(Date(120)), Action::none);
    // Translation 7.1 s old: nothing, however long the source was silent.
    EXPECT_EQ(h.evaluate(Date(119.1)), Action::none);
}

TEST(RealtimeStreamHealthTest, ASourceFailureMakesTheRearmDueAtOnceAndANewBurstRestartsTheSilence) {
    auto h = RealtimeStreamHealth::connected(Date(0), 11.0);
    h.noteTranslation(Date(10));
    h.noteSourceFailure(Date(10.5));
    h.noteSourceFailure(Date(10.9));  // the first failure's time stands
    EXPECT_EQ(h.sourceFailedAt, Date(10.5));
    EXPECT_EQ(h.evaluate(Date(10.6)), Action::rearm);

    auto g = RealtimeStreamHealth::connected(Date(0), 11.0);
    g.noteSource(Date(0.5));
    g.noteTranslation(Date(1));
    EXPECT_EQ(g.evaluate(Date(5)), Action::none);
    // Speech paused for 20 s: a new burst begins, and the old silence does not count.
    g.noteTranslation(Date(25));
    EXPECT_EQ(g.translationBurstStartedAt, Date(25));
    EXPECT_EQ(g.evaluate(Date(30)), Action::none);
    g.noteTranslation(Date(40));  // 15 s after the last: another new burst
    EXPECT_EQ(g.translationBurstStartedAt, Date(40));

    // Healthy straight to degraded when nothing looked in between: the degrade test comes first.
    auto d = RealtimeStreamHealth::connected(Date(0), 11.0);
    for (double t : {1.0, 6.0, 11.0, 16.0, 19.0}) d.noteTranslation(Date(t));
    EXPECT_EQ(d.evaluate(Date(19)), Action::degrade);
    EXPECT_EQ(d.stage, Stage::degraded);
}

// A host that records what the supervisor asks for.
struct Host final : StreamSupervisor::Host {
    void debug(DebugEvent::Level, DebugEvent::Category, std::string, std::string,
               std::optional<std::string> code) override {
        codes.push_back(code.value_or(""));
    }
    const std::string& liveNotice() const override { return notice; }
    void setLiveNotice(std::string n) override { notice = std::move(n); }
    std::optional<std::string> rearmTranscription(CaptureChannel) override {
        ++rearms;
        return nextModel;
    }
    bool buildsFromTranslation(CaptureChannel) const override { return fromTranslation; }
    void buildFromTranslation(CaptureChannel, bool flag) override { fromTranslation = flag; }
    void scheduleReconnect(CaptureChannel channel, const std::string&) override { reconnects.push_back(channel); }
    bool isReconnecting(CaptureChannel) const override { return reconnecting; }
    std::vector<CaptureChannel> activeChannels() const override {
        return {CaptureChannel::system, CaptureChannel::microphone};
    }
    bool isListening() const override { return listening; }
    std::optional<Date> lastDeltaAt() const override { return delta; }
    std::optional<Date> lastAudibleAt() const override { return audible; }
    std::optional<double> secondsSinceAnySpeech() const override { return speechAge; }

    std::vector<std::string> codes;
    std::string notice;
    int rearms = 0;
    std::optional<std::string> nextModel;
    bool fromTranslation = false;
    std::vector<CaptureChannel> reconnects;
    bool reconnecting = false;
    bool listening = true;
    std::optional<Date> delta, audible;
    std::optional<double> speechAge;
};

struct Supervised : ::testing::Test {
    ManualScheduler scheduler{Date(1000)};
    Host host;
    StreamSupervisor supervisor{scheduler, host};
    Date at(double seconds) const { return Date(1000 + seconds); }
};

TEST_F(Supervised, TheLivenessRuleWaitsTwentyFiveSecondsOrJudgesQuicklyAfterCertainSpeech) {
    scheduler.advance(30);
    // Sound 24 s ago, no delta since, speech never heard: no action yet.
    host.audible = at(6);
    supervisor.checkRecognitionLiveness();
    EXPECT_TRUE(host.reconnects.empty());
    // 25 s without a delta while sound was heard 24.9 s ago: reconnect every channel.
    host.audible = at(5.1);
    host.delta = at(5);
    supervisor.checkRecognitionLiveness();
    EXPECT_EQ(host.reconnects.size(), 2u);
    EXPECT_EQ(host.codes.back(), "recognition_stalled");
    EXPECT_EQ(host.notice.rfind("识别没有响应", 0), 0u);

    host.reconnects.clear();
    host.audible = at(29);
    host.delta = at(18);  // 12 s without text
    host.speechAge = 2.9;
    supervisor.checkRecognitionLiveness();
    EXPECT_TRUE(host.reconnects.empty());
    EXPECT_EQ(host.notice, "");  // the stall notice goes once text is no longer overdue
    host.speechAge = 4.0;
    supervisor.checkRecognitionLiveness();
    EXPECT_EQ(host.reconnects.size(), 2u);
    // Reconnects under way: the rule does not pile more on.
    host.reconnects.clear();
    host.reconnecting = true;
    supervisor.checkRecognitionLiveness();
    EXPECT_TRUE(host.reconnects.empty());
}

TEST_F(Supervised, TheWatchdogTicksEveryFiveSecondsWhileListening) {
    host.audible = at(0);
    supervisor.startLivenessWatchdog();
    scheduler.advance(24);
    EXPECT_TRUE(host.reconnects.empty());
    scheduler.advance(1);  // the tick at 25 s
    EXPECT_EQ(host.reconnects.size(), 0u);  // sound is 25 s old by then: nothing is expected
    host.audible = at(24);
    host.delta = at(0);
    scheduler.advance(5);
    EXPECT_EQ(host.reconnects.size(), 2u);
    host.listening = false;
    host.reconnects.clear();
    scheduler.advance(30);
    EXPECT_TRUE(host.reconnects.empty());
}

TEST_F(Supervised, RearmDegradeAndRestoreActOnTheSessionAndRememberAModelChange) {
    supervisor.connected(CaptureChannel::system, 11.0);
    host.nextModel = "gpt-transcribe";
    // Translation every few seconds, no source: one burst from 1 s on.
    auto translateFor = [&](double seconds) {
        for (double t = 0; t < seconds; t += 1) {
            scheduler.advance(1);
            supervisor.noteTranslation(CaptureChannel::system);
            supervisor.applySourceStreamHealth(CaptureChannel::system);
        }
    };
    translateFor(11);
    EXPECT_EQ(host.rearms, 0);
    translateFor(1);  // 11 s into the burst
    EXPECT_EQ(host.rearms, 1);
    EXPECT_EQ(supervisor.degradedTranscribeModel(CaptureChannel::system), "gpt-transcribe");
    translateFor(7);  // 18 s into the burst
    EXPECT_TRUE(host.fromTranslation);
    EXPECT_TRUE(supervisor.hadSourceStreamOutage);
    EXPECT_EQ(host.notice, "原文识别中断了，先只显示中文。录音正常，结束后可以重新转写补回日文。");
    supervisor.noteSource(CaptureChannel::system);
    EXPECT_FALSE(host.fromTranslation);
    EXPECT_EQ(host.notice, "");
    EXPECT_EQ(host.codes, (std::vector<std::string>{"source_stream_rearm", "transcription_downgrade_remembered",
                                                    "source_stream_degraded", "source_stream_recovered"}));
    // A reconnect of the channel holds its judgement.
    host.reconnecting = true;
    scheduler.advance(30);
    supervisor.noteTranslation(CaptureChannel::system);
    supervisor.applySourceStreamHealth(CaptureChannel::system);
    EXPECT_EQ(host.codes.size(), 4u);
}

}  // namespace
}  // namespace osv
