// The sentence passes driven as the controller drives them, against an in-memory HTTP
// transport, in virtual time.

#include <gtest/gtest.h>

#include <filesystem>

#include "core/Json.h"
#include "core/ManualScheduler.h"
#include "core/TranslatorError.h"
#include "lanes/SentenceTranslationPass.h"
#include "recordings/RecordingLibrary.h"
#include "services/FakeHttpTransport.h"
#include "services/OpenAIClient.h"
#include "transcript/LiveTranscriptSession.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using json::Json;
using testing::FakeHttpTransport;
using Kind = TranscriptSegmenter::DeltaKind;

constexpr const char* kRefinementToChinese =
    "请把下面这句会议发言翻译成自然、准确的简体中文。\n这是对一句已经流式译过的话做整句重译，请给出更通顺、更准确的版本。\n"
    "保留人名、产品名、数字、日期和待办事项。只输出中文译文，不要解释、不要加引号。\n如果没有可翻译的实际内容，只返回空字符串。";
constexpr const char* kChineseToJapanese =
    "请把下面这句中文会议发言翻译成自然、口语化的日语（です・ます体）。\n保留人名、产品名、数字、日期和待办事项。"
    "只输出日语译文，不要解释、不要加引号。\n如果没有可翻译的实际内容，只返回空字符串。";

struct TestHost final : SentenceTranslationPass::Host {
    LiveTranscriptSession* session = nullptr;
    bool live = true;
    TranslatorSettings current;
    UsageTally tally;
    std::vector<DebugEvent> events;
    int changes = 0;
    int finishedWork = 0;

    LiveTranscriptSession* liveTranscript(const Uuid&) override { return live ? session : nullptr; }
    void transcriptChanged(const Uuid&) override { ++changes; }
    TranslatorSettings settings() override { return current; }
    ModelPreferences modelPreferences() override { return current.models; }
    UsageTally& usageTally() override { return tally; }
    void debug(DebugEvent event) override { events.push_back(std::move(event)); }
    void trackedWorkFinished(const Uuid&) override { ++finishedWork; }

    const DebugEvent* event(const std::string& title) const {
        for (const auto& e : events)
            if (e.title == title) return &e;
        return nullptr;
    }
};

class Pass : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(dir);
        host.current.apiKey = "sk-test";
        host.current.repairSource = false;
        RecordingLibrary::Options options;
        options.supportDirectory = dir;
        options.timeZone = "UTC";
        library = std::make_unique<RecordingLibrary>(scheduler, options);
        library->loadRecordings();
        RecordingEntry entry = RecordingEntry::make(RecordingKind::live, RecordingStatus::recording, SessionLabel::interpret,
                                                    AudioCaptureMode::mixed, RecognitionLanguage::automatic, scheduler.now());
        recordingID = entry.id;
        library->insertRecording(entry);
        configure();
        host.session = &session;
        pass = std::make_unique<SentenceTranslationPass>(host, lanes, client, *library, scheduler);
    }
    void TearDown() override {
        pass.reset();
        fs::remove_all(dir);
    }

    // As the controller does at each delta: the router's configuration from the settings.
    void configure() { session.configuredRouting = SentenceTranslationPass::routingConfig(host.current, false); }

    SentenceID speak(const std::string& text, CaptureChannel channel = CaptureChannel::system) {
        session.ingest(text, Kind::source, channel, scheduler.now(), std::nullopt);
        pass->submitClaimed(recordingID);
        scheduler.runUntilIdle();
        return SentenceID{session.log().events.back().id};
    }
    void close(CaptureChannel channel = CaptureChannel::system) {
        session.closeUtterance(channel, BoundaryReason::punctuation, scheduler.now());
        pass->submitClaimed(recordingID);
        pass->armGraceTimer(recordingID);
        scheduler.runUntilIdle();
    }
    // A whole sentence in one delta, closed before anything is claimed.
    SentenceID say(const std::string& text, CaptureChannel channel = CaptureChannel::system) {
        session.ingest(text, Kind::source, channel, scheduler.now(), std::nullopt);
        const SentenceID id{session.log().events.back().id};
        close(channel);
        return id;
    }
    void answer(const std::string& text, int index = -1) {
        transport.reply(200, FakeHttpTransport::responsesBody(text, 150, 9), {}, index);
        scheduler.runUntilIdle();
    }
    std::string input(int index = -1) const {
        const auto& r = index < 0 ? transport.last() : transport.calls.at(std::size_t(index))->request;
        return json::parse(r.body)->at("input").get<std::string>();
    }
    const Sentence& sentence(std::size_t i) { return session.snapshot().sentences()[i]; }

    fs::path dir = fs::temp_directory_path() / ("osv-pass-" + Uuid::random().text());
    ManualScheduler scheduler{Date(800000000.0)};
    FakeHttpTransport transport;
    OpenAIClient client{transport, scheduler, "http://127.0.0.1:9/v1"};
    LaneRunner lanes{scheduler};
    std::unique_ptr<RecordingLibrary> library;
    Uuid recordingID;
    LiveTranscriptSession session;
    TestHost host;
    std::unique_ptr<SentenceTranslationPass> pass;
};

TEST_F(Pass, AClosedSentenceIsRefinedWithTheFastModelAndFiledIntoTheLiveLog) {
    const SentenceID id = say("今日はいい天気ですね。");
    ASSERT_EQ(transport.calls.size(), 1u);
    const Json body = *json::parse(transport.last().body);
    EXPECT_EQ(body, Json({{"model", "gpt-4.1-mini"},
                          {"input", std::string(kRefinementToChinese) + "\n\n待处理的原句：\n今日はいい天気ですね。"},
                          {"temperature", 0.1}}));
    EXPECT_TRUE(pass->hasTrackedWork(recordingID));
    answer(" 今天天气真好啊。\\n");

    ASSERT_EQ(sentence(0).translations.size(), 1u);
    EXPECT_EQ(sentence(0).translations[0].text, "今天天气真好啊。");
    EXPECT_EQ(sentence(0).translations[0].origin, TranslationOrigin::refined);
    EXPECT_EQ(host.changes, 1);
    EXPECT_FALSE(pass->hasTrackedWork(recordingID));
    EXPECT_EQ(host.finishedWork, 1);
    ASSERT_TRUE(host.event("整句精修完成"));
    EXPECT_EQ(host.event("整句精修完成")->details, "今日はいい天気ですね。 → 今天天气真好啊。");
    EXPECT_EQ(host.tally.byKind["refine"]["gpt-4.1-mini"].inputTokens, 150);
    EXPECT_EQ(host.tally.requests["refine"], 1);
    const LaneRun run = lanes.runs(id.raw.text()).at(LaneID::sentenceTranslation);
    EXPECT_EQ(run.outcome, LaneOutcome::done());
    EXPECT_EQ(run.outputTokens, 9);

    // The next sentence carries the first as context.
    say("散歩に行きましょう。");
    EXPECT_EQ(input(), std::string(kRefinementToChinese) +
                           "\n\n前文（仅供理解代词和称呼，不要翻译）：\n今日はいい天気ですね。\n\n待处理的原句：\n散歩に行きましょう。");
}

TEST_F(Pass, OutstandingWorkIsAJobUnderWayOrASentenceStillOwedAPass) {
    host.current.repairSource = true;
    configure();
    say("今日はいい天気ですね。");
    const auto config = session.routing();
    // Held for its repair: owed, though no job runs yet.
    EXPECT_FALSE(pass->hasTrackedWork(recordingID));
    EXPECT_TRUE(pass->hasOutstandingTranslations(recordingID, session.snapshot().sentences(), config, scheduler.now()));
    scheduler.advance(0.5);
    EXPECT_TRUE(pass->hasTrackedWork(recordingID));
    answer("今天天气真好啊。");
    EXPECT_FALSE(pass->hasOutstandingTranslations(recordingID, session.snapshot().sentences(), config, scheduler.now()));
}

TEST_F(Pass, ASentenceOfOneCharacterGetsNoPass) {
    say("え");
    pass->dispatchPendingTranslations(recordingID);
    scheduler.runUntilIdle();
    EXPECT_TRUE(transport.calls.empty());
    EXPECT_FALSE(pass->hasTrackedWork(recordingID));
}

TEST_F(Pass, DraftsOfAnOpenSentenceComeAtEightCharactersAndEverySixteenMore) {
    speak("今日は会議で話");  // 7
    EXPECT_TRUE(transport.calls.empty());
    speak("す");  // 8
    ASSERT_EQ(transport.calls.size(), 1u);
    // Japanese in a Chinese-target session: the refinement text.
    EXPECT_EQ(input(), std::string(kRefinementToChinese) + "\n\n待处理的原句：\n今日は会議で話す");
    speak("ことは三つあります、まず");  // 20
    speak("一つ目");                    // 23
    EXPECT_EQ(transport.calls.size(), 1u);
    speak("は");  // 24
    EXPECT_EQ(transport.calls.size(), 2u);
    answer("草稿一", 0);
    answer("草稿二", 1);
    // Two drafts, the later standing.
    EXPECT_EQ(Sentence::standing(sentence(0).translations)->text, "草稿二");
    EXPECT_EQ(Sentence::standing(sentence(0).translations)->origin, TranslationOrigin::provisional);
    EXPECT_EQ(host.tally.requests["provisional"], 2);
    EXPECT_FALSE(lanes.runs(sentence(0).id.raw.text()).count(LaneID::sentenceTranslation));
    EXPECT_TRUE(lanes.runs(sentence(0).id.raw.text()).count(LaneID::provisionalTranslation));
}

TEST_F(Pass, ARefinementWaitsForTheRepairGraceButReverseNeverWaits) {
    host.current.repairSource = true;
    configure();
    say("今日はいい天気ですね。");
    EXPECT_TRUE(transport.calls.empty());
    ASSERT_TRUE(pass->isGraceArmed());
    // The user's Chinese goes at once, with the Chinese-to-Japanese text.
    say("好的，我们出发吧。", CaptureChannel::system);
    ASSERT_EQ(transport.calls.size(), 1u);
    EXPECT_EQ(input(), std::string(kChineseToJapanese) + "\n\n前文（仅供理解代词和称呼，不要翻译）：\n今日はいい天気ですね。"
                                                         "\n\n待处理的原句：\n好的，我们出发吧。");
    // No repair comes: 0.35 s after the sentence's end (and 0.05 s more) it goes anyway.
    scheduler.advance(0.35);
    EXPECT_EQ(transport.calls.size(), 1u);
    scheduler.advance(0.051);
    scheduler.runUntilIdle();
    ASSERT_EQ(transport.calls.size(), 2u);
    EXPECT_EQ(input(), std::string(kRefinementToChinese) + "\n\n待处理的原句：\n今日はいい天気ですね。");
    EXPECT_FALSE(pass->isGraceArmed());

    answer("そうですね、行きましょう。", 0);
    EXPECT_EQ(sentence(1).translations.back().origin, TranslationOrigin::reverseToJapanese);
    EXPECT_TRUE(host.event("中→日翻译完成"));
    EXPECT_EQ(host.tally.requests["reverse"], 1);
}

TEST_F(Pass, ATargetOfJapaneseSaysSoButKeepsItsFixedWording) {
    EXPECT_EQ(SentenceTranslationPass::refinementInstruction(TargetLanguage::japanese),
              "请把下面这句会议发言翻译成自然、准确的日语。\n这是对一句已经流式译过的话做整句重译，请给出更通顺、更准确的版本。\n"
              "保留人名、产品名、数字、日期和待办事项。只输出中文译文，不要解释、不要加引号。\n如果没有可翻译的实际内容，只返回空字符串。");
    TranslationRouter::Request draft;
    draft.origin = TranslationOrigin::provisional;
    draft.text = "我们下周再讨论这个问题";
    EXPECT_TRUE(SentenceTranslationPass::usesChineseToJapanese(draft));
    draft.text = "来週またこの問題を話しましょう";
    EXPECT_FALSE(SentenceTranslationPass::usesChineseToJapanese(draft));
}

TEST_F(Pass, FailuresShowShortWordsAndARetrySucceeds) {
    host.current.glossary = "小林";
    say("小林さんの提案です。");
    transport.reply(429, R"({"error": {"message": "Rate limit reached for gpt-4.1-mini in organization org-abc on tokens per min", "type": "rate_limit"}})",
                    {{"retry-after", "2"}});
    scheduler.runUntilIdle();
    EXPECT_EQ(input(), std::string(kRefinementToChinese) + "\n\n固定译法（人名/产品名等，必须照用）：\n小林\n\n待处理的原句：\n小林さんの提案です。");
    ASSERT_TRUE(sentence(0).translationFailure);
    EXPECT_EQ(*sentence(0).translationFailure, "OpenAI API 错误：Rate limit reached for gpt…");
    const DebugEvent* failed = host.event("整句精修失败");
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->code, "refine_failed");
    EXPECT_EQ(failed->level, DebugEvent::Level::warning);
    EXPECT_EQ(lanes.runs(sentence(0).id.raw.text()).at(LaneID::sentenceTranslation).outcome.kind, LaneOutcome::Kind::failed);
    EXPECT_TRUE(SentenceTranslationPass::hasFailedTranslations(session.snapshot().sentences()));

    // Not tried again by itself.
    pass->dispatchPendingTranslations(recordingID);
    EXPECT_EQ(transport.calls.size(), 1u);

    pass->retryFailedTranslations(recordingID, true);
    scheduler.runUntilIdle();
    ASSERT_EQ(transport.calls.size(), 2u);
    EXPECT_EQ(host.event("重试整句翻译")->details, "count: 1");
    transport.reply(500, "upstream exploded");
    scheduler.runUntilIdle();
    EXPECT_EQ(*sentence(0).translationFailure, "OpenAI API 错误：upstream exploded");
    pass->retryFailedTranslations(recordingID, true);
    scheduler.runUntilIdle();
    answer("小林先生的提案。");
    EXPECT_FALSE(sentence(0).translationFailure);
    EXPECT_FALSE(SentenceTranslationPass::hasFailedTranslations(session.snapshot().sentences()));

    // An empty reply is a failure too.
    say("以上です。");
    answer("");
    EXPECT_EQ(*sentence(1).translationFailure, "OpenAI API 错误：整句精修翻译结果为空。");
}

TEST_F(Pass, TermsLearnedDuringTheSessionJoinTheUsersGlossaryFromTheNextSentenceOn) {
    TranslatorSettings settings;
    EXPECT_EQ(SentenceTranslationPass::settingsWithGlossary(settings, "").glossary, "");
    settings.glossary = "  \n";
    EXPECT_EQ(SentenceTranslationPass::settingsWithGlossary(settings, "小林 → 小林").glossary, "小林 → 小林");
    settings.glossary = "田中";
    EXPECT_EQ(SentenceTranslationPass::settingsWithGlossary(settings, "小林 → 小林").glossary, "田中\n小林 → 小林");
    EXPECT_EQ(SentenceTranslationPass::settingsWithGlossary(settings, "").glossary, "田中");

    host.current.glossary = "田中";
    session.attachGlossary({GlossaryTerm{"小林", std::string("小橋"), std::string("小林")}}, scheduler.now());
    say("小橋さんです。");
    EXPECT_EQ(input(), std::string(kRefinementToChinese) +
                           "\n\n固定译法（人名/产品名等，必须照用）：\n田中\n小林（识别常写成：小橋） → 小林\n\n待处理的原句：\n小橋さんです。");
}

TEST_F(Pass, FailureSummariesAreCutAt40Characters) {
    EXPECT_EQ(SentenceTranslationPass::translationFailureSummary({"e", std::string(40, 'a')}), std::string(40, 'a'));
    EXPECT_EQ(SentenceTranslationPass::translationFailureSummary({"e", "  " + std::string(41, 'a') + "\n"}),
              std::string(40, 'a') + "…");
    std::string chinese;
    for (int i = 0; i < 41; ++i) chinese += "错";
    std::string cut;
    for (int i = 0; i < 40; ++i) cut += "错";
    EXPECT_EQ(SentenceTranslationPass::translationFailureSummary({"e", chinese}), cut + "…");
    EXPECT_EQ(SentenceTranslationPass::translationFailureSummary(
                  {"api_error", "OpenAI API 错误：Unsupported parameter: 'temperature' is not supported with this model."}),
              "翻译模型不接受当前参数，请在设置里换一个模型");
    EXPECT_EQ(SentenceTranslationPass::translationFailureSummary(TranslatorError::missingAPIKey().asError()),
              "缺少 OpenAI API Key。请在设置里粘贴，或用 OPENAI_API_…");

    // Without a key the sentence shows the key's words and nothing is sent.
    host.current.apiKey = " ";
    say("鍵がありません。");
    EXPECT_TRUE(transport.calls.empty());
    scheduler.runUntilIdle();
    EXPECT_EQ(*sentence(0).translationFailure, "缺少 OpenAI API Key。请在设置里粘贴，或用 OPENAI_API_…");
}

TEST_F(Pass, AReplyAfterTheSessionEndedGoesIntoTheStoredRecording) {
    say("今日はいい天気ですね。");
    // The session ends: its log is filed with the recording and the controller lets go.
    const TranscriptEventLog filed = session.log();
    library->updateRecording(recordingID, true, [&](RecordingEntry& e) { e.eventLog = filed; });
    host.live = false;
    answer("今天天气真好啊。");
    EXPECT_EQ(host.changes, 0);
    EXPECT_TRUE(session.snapshot().sentences()[0].translations.empty());
    const RecordingEntry* entry = library->recording(recordingID);
    ASSERT_TRUE(entry && entry->eventLog);
    EXPECT_EQ(entry->eventLog->size(), filed.size() + 1);
    EXPECT_NE(entry->translatedText.find("今天天气真好啊。"), std::string::npos) << entry->translatedText;
    EXPECT_TRUE(library->isSaveScheduled());
}

TEST_F(Pass, TheEndOfSessionSweepRunsOncePerRecording) {
    host.current.refineFinishedSentences = true;
    configure();
    session.ingest("今日はいい天気ですね。", Kind::source, CaptureChannel::system, scheduler.now(), std::nullopt);
    session.closeUtterance(CaptureChannel::system, BoundaryReason::punctuation, scheduler.now());
    session.ingest("散歩に行きましょう。", Kind::source, CaptureChannel::system, scheduler.now() + 1.0, std::nullopt);
    session.closeUtterance(CaptureChannel::system, BoundaryReason::punctuation, scheduler.now() + 1.5);
    const TranscriptEventLog filed = session.log();
    library->updateRecording(recordingID, true, [&](RecordingEntry& e) { e.eventLog = filed; });
    host.live = false;
    scheduler.advance(5);

    pass->sweepOutstandingTranslations(recordingID);
    pass->sweepOutstandingTranslations(recordingID);
    scheduler.runUntilIdle();
    ASSERT_EQ(transport.calls.size(), 2u);
    const DebugEvent* swept = host.event("会话结束后仍有未翻译的句子，已补发");
    ASSERT_TRUE(swept);
    EXPECT_EQ(swept->code, "translation_sweep");
    EXPECT_EQ(swept->details, "今日はいい天気ですね。\n散歩に行きましょう。");
    answer("今天天气真好啊。", 0);
    transport.reply(429, R"({"error": {"message": "slow down"}})", {}, 1);
    scheduler.runUntilIdle();
    // A failure in the sweep stays: the sweep does not come again.
    pass->sweepOutstandingTranslations(recordingID);
    scheduler.runUntilIdle();
    EXPECT_EQ(transport.calls.size(), 2u);
    const auto log = library->loadEventLog(recordingID);
    ASSERT_TRUE(log);
    EXPECT_EQ(log->size(), filed.size() + 2);

    // The user's retry on a stored recording asks for what its log lacks.
    pass->retryFailedTranslations(recordingID, false);
    scheduler.runUntilIdle();
    ASSERT_EQ(transport.calls.size(), 3u);
    EXPECT_EQ(input(), std::string(kRefinementToChinese) +
                           "\n\n前文（仅供理解代词和称呼，不要翻译）：\n今日はいい天気ですね。\n\n待处理的原句：\n散歩に行きましょう。");
}

TEST_F(Pass, ThePassGoingAwayAbortsItsRequestsAndFilesNothing) {
    say("今日はいい天気ですね。");
    ASSERT_EQ(transport.calls.size(), 1u);
    const std::string key = sentence(0).id.raw.text();
    pass.reset();
    EXPECT_TRUE(transport.calls[0]->cancelled);
    scheduler.runUntilIdle();
    EXPECT_TRUE(sentence(0).translations.empty());
    EXPECT_EQ(host.changes, 0);
    EXPECT_EQ(lanes.runs(key).at(LaneID::sentenceTranslation).outcome, LaneOutcome::cancelled());
}

}  // namespace
}  // namespace osv
