// The sentence passes over the Qt adapters against the fake server's HTTP side, with the
// demo scenario: what the server received, what was filed, and a cancelled job's request
// aborted on the wire.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "LoopbackServers.h"
#include "lanes/SentenceTranslationPass.h"
#include "platform/qt/QtHttpTransport.h"
#include "platform/qt/QtScheduler.h"
#include "recordings/RecordingLibrary.h"
#include "services/OpenAIClient.h"
#include "transcript/LiveTranscriptSession.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using json::Json;
using testing::FakeRealtimeServer;
using testing::waitFor;
using Kind = TranscriptSegmenter::DeltaKind;

constexpr const char* kRefinement =
    "请把下面这句会议发言翻译成自然、准确的简体中文。\n这是对一句已经流式译过的话做整句重译，请给出更通顺、更准确的版本。\n"
    "保留人名、产品名、数字、日期和待办事项。只输出中文译文，不要解释、不要加引号。\n如果没有可翻译的实际内容，只返回空字符串。";
constexpr const char* kChineseToJapanese =
    "请把下面这句中文会议发言翻译成自然、口语化的日语（です・ます体）。\n保留人名、产品名、数字、日期和待办事项。"
    "只输出日语译文，不要解释、不要加引号。\n如果没有可翻译的实际内容，只返回空字符串。";

std::string demoScenario() {
    std::ifstream in(std::string(OSV_SOURCE_DIR) + "/tools/fake-realtime/scenarios/translation.jsonl");
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

struct Host final : SentenceTranslationPass::Host {
    LiveTranscriptSession* session = nullptr;
    TranslatorSettings current;
    UsageTally tally;
    std::vector<DebugEvent> events;
    int finished = 0;
    LiveTranscriptSession* liveTranscript(const Uuid&) override { return session; }
    void transcriptChanged(const Uuid&) override {}
    TranslatorSettings settings() override { return current; }
    ModelPreferences modelPreferences() override { return current.models; }
    UsageTally& usageTally() override { return tally; }
    void debug(DebugEvent e) override { events.push_back(std::move(e)); }
    void trackedWorkFinished(const Uuid&) override { ++finished; }
};

struct Loopback {
    explicit Loopback(const std::string& base) : client(transport, scheduler, base) {
        fs::create_directories(dir);
        RecordingLibrary::Options options;
        options.supportDirectory = dir;
        library = std::make_unique<RecordingLibrary>(scheduler, options);
        library->loadRecordings();
        host.current.apiKey = "sk-fake";
        host.current.repairSource = false;
        host.session = &session;
        session.configuredRouting = SentenceTranslationPass::routingConfig(host.current, false);
        pass = std::make_unique<SentenceTranslationPass>(host, lanes, client, *library, scheduler);
    }
    ~Loopback() {
        pass.reset();
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
    void delta(const std::string& text) {
        session.ingest(text, Kind::source, CaptureChannel::system, scheduler.now(), std::nullopt);
        pass->submitClaimed(recordingID);
    }
    void close() {
        session.closeUtterance(CaptureChannel::system, BoundaryReason::punctuation, scheduler.now());
        pass->submitClaimed(recordingID);
        pass->armGraceTimer(recordingID);
    }

    fs::path dir = fs::temp_directory_path() / ("osv-pass-loopback-" + Uuid::random().text());
    QtScheduler scheduler;
    QtHttpTransport transport;
    OpenAIClient client;
    LaneRunner lanes{scheduler};
    std::unique_ptr<RecordingLibrary> library;
    LiveTranscriptSession session;
    Host host;
    Uuid recordingID = Uuid::random();
    std::unique_ptr<SentenceTranslationPass> pass;
};

std::vector<Json> lines(const FakeRealtimeServer& server, const std::string& event) {
    std::vector<Json> out;
    for (auto& l : server.record())
        if (l.value("event", "") == event) out.push_back(l);
    return out;
}

TEST(SentencePassOverLoopback, TheDemoScenarioGivesEveryClosedSentenceItsRefinedOrReverseTranslation) {
    FakeRealtimeServer server(demoScenario());
    ASSERT_GT(server.port(), 0);
    Loopback run(server.base());
    run.delta("今日は");
    run.delta("いい天気ですね。");  // open, 11 characters: a draft
    run.close();
    run.delta("好的，我们出发吧。");
    run.close();
    run.delta("散歩に行きましょう。");
    run.close();
    ASSERT_TRUE(waitFor([&] { return !run.pass->hasTrackedWork(run.recordingID); }));

    const auto& sentences = run.session.snapshot().sentences();
    ASSERT_EQ(sentences.size(), 3u);
    EXPECT_EQ(Sentence::standing(sentences[0].translations)->text, "今天天气真好啊。");
    EXPECT_EQ(Sentence::standing(sentences[0].translations)->origin, TranslationOrigin::refined);
    EXPECT_TRUE(std::any_of(sentences[0].translations.begin(), sentences[0].translations.end(),
                            [](const Translation& t) { return t.origin == TranslationOrigin::provisional; }));
    EXPECT_EQ(Sentence::standing(sentences[1].translations)->text, "そうですね。");
    EXPECT_EQ(Sentence::standing(sentences[1].translations)->origin, TranslationOrigin::reverseToJapanese);
    EXPECT_EQ(Sentence::standing(sentences[2].translations)->text, "我们去散步吧。");
    EXPECT_EQ(run.host.tally.requests["refine"], 2);
    EXPECT_EQ(run.host.tally.requests["reverse"], 1);
    EXPECT_EQ(run.host.tally.requests["provisional"], 3);  // a draft of each sentence while it was open

    // The prompts as the server received them.
    std::vector<std::string> inputs;
    for (const auto& l : lines(server, "http")) {
        EXPECT_EQ(l["authorization"], "ok");
        EXPECT_EQ(l["json"]["model"], "gpt-4.1-mini");
        EXPECT_EQ(l["json"]["temperature"], 0.1);
        inputs.push_back(l["json"]["input"]);
    }
    std::sort(inputs.begin(), inputs.end());
    // Each sentence twice, as a draft while open and as its closed pass: nothing changed in
    // between, so both carry the same prompt.
    std::vector<std::string> expected;
    for (int i = 0; i < 2; ++i) {
        expected.push_back(std::string(kRefinement) + "\n\n待处理的原句：\n今日はいい天気ですね。");
        expected.push_back(std::string(kChineseToJapanese) +
                           "\n\n前文（仅供理解代词和称呼，不要翻译）：\n今日はいい天気ですね。\n\n待处理的原句：\n好的，我们出发吧。");
        expected.push_back(std::string(kRefinement) +
                           "\n\n前文（仅供理解代词和称呼，不要翻译）：\n今日はいい天気ですね。\n好的，我们出发吧。\n\n待处理的原句：\n散歩に行きましょう。");
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(inputs, expected);
}

TEST(SentencePassOverLoopback, AJobThatGoesAwayAbortsItsRequestOnTheWire) {
    FakeRealtimeServer server(R"({"http": {"path": "/v1/responses"}, "reply": {"delay_ms": 10000, "json": {"output": []}}})");
    ASSERT_GT(server.port(), 0);
    auto run = std::make_unique<Loopback>(server.base());
    run->delta("今日はいい天気ですね。");
    run->close();
    ASSERT_TRUE(waitFor([&] { return lines(server, "http").size() == 2; }));
    run->pass.reset();  // the session goes away with its controller
    ASSERT_TRUE(waitFor([&] { return lines(server, "http_cancelled").size() == 2 && run->lanes.outstandingCount() == 0; }));
    EXPECT_TRUE(run->session.snapshot().sentences()[0].translations.empty());
    EXPECT_EQ(run->lanes.runs(run->session.snapshot().sentences()[0].id.raw.text()).at(LaneID::sentenceTranslation).outcome,
              LaneOutcome::cancelled());
}

}  // namespace
}  // namespace osv
