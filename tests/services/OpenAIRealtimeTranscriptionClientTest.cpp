#include <gtest/gtest.h>

#include "core/Base64.h"
#include "core/Json.h"
#include "core/ManualScheduler.h"
#include "services/FakeWebSocketTransport.h"
#include "services/OpenAIRealtimeTranscriptionClient.h"
#include "settings/TranslatorSettings.h"

namespace osv {
namespace {

using json::Json;
using Event = TranscriptionEvent;
using Output = TranscriptionTurnReader::Output;
using testing::FakeWebSocketTransport;
using Bytes = std::vector<std::uint8_t>;

Json parsed(const std::string& text) { return *json::parse(text); }

// 40 ms of working-format audio at a constant sample value.
Bytes chunk(std::int16_t sample, std::size_t bytes = 1920) {
    Bytes b;
    for (std::size_t i = 0; i < bytes / 2; ++i) {
        const std::int16_t s = (i % 2) ? sample : std::int16_t(-sample);
        b.push_back(std::uint8_t(s & 0xff));
        b.push_back(std::uint8_t((s >> 8) & 0xff));
    }
    return b;
}
const Bytes kLoud = chunk(16000);
const Bytes kQuiet = chunk(0);

TranscriptionWireEvent wire(const std::string& text) { return *TranscriptionWireEvent::decode(text); }

TEST(TranscriptionConfiguration, TranscribeModelsGetLanguagesDelayAndKeywordsOthersALanguageOrNothing) {
    const std::string glossary = "東京\n  \n<b>bad</b>\nline\r\n大阪 ";
    EXPECT_EQ(OpenAIRealtimeTranscriptionClient::glossaryTerms(glossary), (std::vector<std::string>{"東京", "大阪"}));

    const Json live = parsed(OpenAIRealtimeTranscriptionClient::configuration("gpt-live-transcribe-1",
                                                                            RecognitionLanguage::automatic, glossary));
    EXPECT_EQ(live, parsed(R"({"type":"session.update","session":{"type":"transcription","audio":{"input":{
        "format":{"type":"audio/pcm","rate":24000},
        "transcription":{"model":"gpt-live-transcribe-1",
          "prompt":"A conversation in Japanese and Mandarin Chinese. Transcribe only audible speech faithfully, preserving names, numbers, dates and negation. Do not invent words for ringing, music or silence. 東京; 大阪",
          "delay":"low","languages":["ja","zh"],"keywords":["東京","大阪"]},
        "turn_detection":null}}}})"));

    const Json plain = parsed(OpenAIRealtimeTranscriptionClient::configuration("gpt-transcribe", RecognitionLanguage::japanese, ""));
    const Json& t = plain["session"]["audio"]["input"]["transcription"];
    EXPECT_EQ(t["languages"], Json::array({"ja"}));
    EXPECT_FALSE(t.contains("delay"));
    EXPECT_FALSE(t.contains("keywords"));
    EXPECT_FALSE(t.contains("language"));
    EXPECT_EQ(t["prompt"].get<std::string>().rfind("A conversation. Transcribe", 0), 0u);

    const Json whisper = parsed(OpenAIRealtimeTranscriptionClient::configuration("whisper-1", RecognitionLanguage::chinese, "東京"));
    EXPECT_EQ(whisper["session"]["audio"]["input"]["transcription"]["language"], "zh");
    EXPECT_FALSE(whisper["session"]["audio"]["input"]["transcription"].contains("languages"));
    const Json automatic = parsed(OpenAIRealtimeTranscriptionClient::configuration("whisper-1", RecognitionLanguage::automatic, ""));
    EXPECT_FALSE(automatic["session"]["audio"]["input"]["transcription"].contains("language"));

    // 40 terms of 120 characters: 32 keywords of 100, the prompt cut to 800 characters.
    std::string many;
    for (int i = 0; i < 40; ++i) many += std::string(119, 'a') + char('A' + i % 26) + "\n";
    const Json cut = parsed(OpenAIRealtimeTranscriptionClient::configuration("gpt-transcribe", RecognitionLanguage::automatic, many));
    const Json& c = cut["session"]["audio"]["input"]["transcription"];
    EXPECT_EQ(c["keywords"].size(), 32u);
    EXPECT_EQ(c["keywords"][0].get<std::string>(), std::string(100, 'a'));
    EXPECT_EQ(c["prompt"].get<std::string>().size(), 800u);
}

TEST(TranscriptionAudioTurn, LimitsFollowTheModel) {
    auto t = TranscriptionAudioTurn::forModel("gpt-transcribe-2");
    EXPECT_EQ(t.initialMaximumBytes, 144'000u);
    EXPECT_EQ(t.maximumBytes, 384'000u);
    t = TranscriptionAudioTurn::forModel("gpt-live-transcribe");
    EXPECT_EQ(t.initialMaximumBytes, 192'000u);
    EXPECT_EQ(t.maximumBytes, 192'000u);
    t = TranscriptionAudioTurn::forModel("gpt-4o-transcribe");
    EXPECT_EQ(t.initialMaximumBytes, 384'000u);
}

// Chunks until the turn says commit; how many it took (0: never within `limit`).
int chunksUntilCommit(TranscriptionAudioTurn& t, const Bytes& c, int limit) {
    for (int i = 1; i <= limit; ++i)
        if (t.append(c)) return i;
    return 0;
}

TEST(TranscriptionAudioTurn, QuietAfterSpeechCommitsAndTheNextCommitWaitsForNewSpeech) {
    auto t = TranscriptionAudioTurn::forModel("gpt-transcribe");
    for (int i = 0; i < 10; ++i) ASSERT_FALSE(t.append(kLoud));
    // 0.6 s is 15 chunks of 40 ms.
    EXPECT_EQ(chunksUntilCommit(t, kQuiet, 100), 15);
    t.clearBuffer();
    EXPECT_FALSE(t.continuingSpeech);
    EXPECT_EQ(chunksUntilCommit(t, kQuiet, 200), 0);
}

TEST(TranscriptionAudioTurn, AFirstTranscriptRaisesTheLimitFromThreeSecondsToEight) {
    auto t = TranscriptionAudioTurn::forModel("gpt-transcribe");
    EXPECT_EQ(chunksUntilCommit(t, kLoud, 500), 75);  // 144,000 bytes
    t.clearBuffer();
    t.hasTranscript = true;
    EXPECT_EQ(chunksUntilCommit(t, kLoud, 500), 200);  // 384,000 bytes
}

TEST(TranscriptionAudioTurn, AFadingPhraseStaysInTheTurnWhileItsLevelReadsAsVoice) {
    auto t = TranscriptionAudioTurn::forModel("gpt-transcribe");
    ASSERT_FALSE(t.append(kLoud));
    // Peak 0.005: below the loud mark, above the continuing one; level 0.04.
    const Bytes fading = chunk(164);
    for (int i = 0; i < 30; ++i) ASSERT_FALSE(t.append(fading));
    EXPECT_EQ(t.quietBytes, 0u);
    // The same after a turn has ended is quiet.
    auto fresh = TranscriptionAudioTurn::forModel("gpt-transcribe");
    ASSERT_FALSE(fresh.append(fading));
    EXPECT_EQ(fresh.quietBytes, 1920u);
}

std::vector<Output> feed(TranscriptionTurnReader& r, std::initializer_list<const char*> frames) {
    std::vector<Output> out;
    for (const char* f : frames)
        for (auto& o : r.accept(wire(f))) out.push_back(o);
    return out;
}

TEST(TranscriptionTurnReader, ALaterTurnWaitsForTheEarlierAndComesOutInSpokenOrder) {
    TranscriptionTurnReader r;
    auto out = feed(r, {
        R"({"type":"input_audio_buffer.committed","item_id":"A"})",
        R"({"type":"input_audio_buffer.committed","item_id":"B","previous_item_id":"A"})",
        R"({"type":"conversation.item.input_audio_transcription.delta","item_id":"B","delta":"二番目"})",
        R"({"type":"conversation.item.input_audio_transcription.delta","item_id":"A","delta":"最初"})",
    });
    EXPECT_EQ(out, (std::vector<Output>{Output::newText("最初")}));
    out = feed(r, {R"({"type":"conversation.item.input_audio_transcription.completed","item_id":"A","transcript":"最初"})"});
    EXPECT_EQ(out, (std::vector<Output>{Output::ended(), Output::newText("二番目")}));
    out = feed(r, {R"({"type":"conversation.item.input_audio_transcription.completed","item_id":"B","transcript":"二番目です"})"});
    EXPECT_EQ(out, (std::vector<Output>{Output::newText("です"), Output::ended()}));
    // A late delta of a finished turn is ignored.
    EXPECT_TRUE(feed(r, {R"({"type":"conversation.item.input_audio_transcription.delta","item_id":"A","delta":"x"})"}).empty());
    EXPECT_EQ(r.openItemCount(), 0u);
}

TEST(TranscriptionTurnReader, ALaterItemAnnouncedFirstKeepsItsPredecessorAhead) {
    TranscriptionTurnReader r;
    auto out = feed(r, {
        R"({"type":"input_audio_buffer.committed","item_id":"B","previous_item_id":"A"})",
        R"({"type":"conversation.item.input_audio_transcription.completed","item_id":"B","transcript":"後"})",
    });
    EXPECT_TRUE(out.empty());
    out = feed(r, {R"({"type":"conversation.item.input_audio_transcription.completed","item_id":"A","transcript":"前"})"});
    EXPECT_EQ(out, (std::vector<Output>{Output::newText("前"), Output::ended(), Output::newText("後"), Output::ended()}));
}

TEST(TranscriptionTurnReader, AFinalTextThatDiffersIsARevisionAndEqualTextIsNot) {
    TranscriptionTurnReader r;
    auto out = feed(r, {
        R"({"type":"conversation.item.input_audio_transcription.delta","item_id":"A","delta":"こんにちわ"})",
        R"({"type":"conversation.item.input_audio_transcription.completed","item_id":"A","transcript":"こんにちは"})",
        R"({"type":"conversation.item.input_audio_transcription.delta","item_id":"B","delta":"はい"})",
        R"({"type":"conversation.item.input_audio_transcription.completed","item_id":"B","transcript":"はい"})",
        R"({"type":"conversation.item.input_audio_transcription.delta","delta":"no item"})",
        R"({"type":"response.done","item_id":"C"})",
    });
    EXPECT_EQ(out, (std::vector<Output>{Output::newText("こんにちわ"), Output::revised("こんにちわ", "こんにちは"),
                                        Output::ended(), Output::newText("はい"), Output::ended()}));
}

struct Harness {
    FakeWebSocketTransport transport;
    ManualScheduler scheduler;
    OpenAIRealtimeTranscriptionClient client{transport, scheduler, "http://127.0.0.1:9/v1"};
    TranslatorSettings settings;
    std::vector<Event> events;
    std::vector<OpenAIDebugLog> logs;
    std::optional<Expected<void>> started;

    Harness() { settings.apiKey = " sk-test\n"; }

    void start(std::string model = "gpt-transcribe") {
        client.start(
            settings, std::move(model), [this](const Event& e) { events.push_back(e); },
            [this](const OpenAIDebugLog& l) { logs.push_back(l); }, [this](Expected<void> r) { started = r; });
    }
    void connect() {
        start();
        transport.last().accept();
        server(R"({"type":"session.updated"})");
        scheduler.runUntilIdle();
        ASSERT_TRUE(started && started->ok());
    }
    void server(const std::string& text) { transport.last().text(text); }
    std::vector<std::string> sentTypes() const {
        std::vector<std::string> out;
        for (const auto& s : transport.last().sent) out.push_back(parsed(s)["type"].get<std::string>());
        return out;
    }
};

TEST(RealtimeTranscriptionClient, ConnectsWithTheTranscriptionIntentAndStartsOnceTheServerConfirms) {
    Harness h;
    h.start();
    ASSERT_EQ(h.transport.requests.size(), 1u);
    EXPECT_EQ(h.transport.requests[0].url, "ws://127.0.0.1:9/v1/realtime?intent=transcription");
    EXPECT_EQ(h.transport.requests[0].timeoutSeconds, 10.0);
    EXPECT_EQ(h.transport.requests[0].headers, (HeaderList{{"Authorization", "Bearer sk-test"}}));
    h.transport.last().accept();
    ASSERT_EQ(h.transport.last().sent.size(), 1u);
    EXPECT_EQ(h.transport.last().sent[0],
              OpenAIRealtimeTranscriptionClient::configuration("gpt-transcribe", RecognitionLanguage::automatic, ""));
    h.scheduler.runUntilIdle();
    EXPECT_FALSE(h.started);
    h.server(R"({"type":"transcription_session.updated"})");
    EXPECT_FALSE(h.started);  // never from inside a handler's call chain
    h.scheduler.runUntilIdle();
    ASSERT_TRUE(h.started && h.started->ok());
    h.scheduler.advance(10);
    EXPECT_FALSE(h.transport.last().closeCode);
}

TEST(RealtimeTranscriptionClient, NoConfirmationInEightSecondsFailsTheStartAndCancelsTheSocket) {
    Harness h;
    h.start();
    h.transport.last().accept();
    h.scheduler.advance(7.9);
    EXPECT_FALSE(h.started);
    h.scheduler.advance(0.2);
    ASSERT_TRUE(h.started);
    ASSERT_FALSE(h.started->ok());
    EXPECT_EQ(h.started->error().message, "OpenAI API 错误：实时原文连接超时");
    EXPECT_EQ(h.transport.last().closeCode, 1001);
    EXPECT_FALSE(h.client.hasSocket());
    EXPECT_TRUE(h.events.empty());
}

TEST(RealtimeTranscriptionClient, AMissingKeyOrARefusedConnectionFailsTheStart) {
    Harness keyless;
    keyless.settings.apiKey = "  ";
    keyless.start();
    keyless.scheduler.runUntilIdle();
    ASSERT_TRUE(keyless.started && !keyless.started->ok());
    EXPECT_EQ(keyless.started->error().code, "missing_api_key");
    EXPECT_TRUE(keyless.transport.requests.empty());

    Harness refused;
    refused.start();
    refused.transport.last().end(WebSocketEnd::Reason::failed, "Connection refused", false);
    refused.scheduler.runUntilIdle();
    ASSERT_TRUE(refused.started && !refused.started->ok());
    EXPECT_EQ(refused.started->error().message, "Connection refused");
}

TEST(RealtimeTranscriptionClient, CommitsClearsAndCountsOutstandingCommitsUntilTheirTranscriptsArrive) {
    Harness h;
    h.connect();
    h.transport.last().sent.clear();
    // One second of nothing is cleared.
    for (int i = 0; i < 25; ++i) h.client.sendAudio(kQuiet);
    EXPECT_EQ(h.sentTypes().back(), "input_audio_buffer.clear");
    h.transport.last().sent.clear();
    for (int i = 0; i < 5; ++i) h.client.sendAudio(kLoud);
    for (int i = 0; i < 15; ++i) h.client.sendAudio(kQuiet);
    std::vector<std::string> types = h.sentTypes();
    EXPECT_EQ(types.size(), 21u);
    EXPECT_EQ(types.back(), "input_audio_buffer.commit");
    EXPECT_EQ(h.client.outstandingCommits(), 1);
    // The audio is sent as it came, chunk by chunk.
    EXPECT_EQ(base64Decode(parsed(h.transport.last().sent[0])["audio"].get<std::string>()), kLoud);

    h.server(R"({"type":"input_audio_buffer.committed","item_id":"A"})");
    EXPECT_EQ(h.client.pendingItems(), (std::set<std::string>{"A"}));
    h.server(R"({"type":"conversation.item.input_audio_transcription.delta","item_id":"A","delta":"你好"})");
    h.server(R"({"type":"conversation.item.input_audio_transcription.completed","item_id":"A","transcript":"你好。"})");
    EXPECT_EQ(h.client.outstandingCommits(), 0);
    EXPECT_TRUE(h.client.pendingItems().empty());
    EXPECT_TRUE(h.client.turn().hasTranscript);
    EXPECT_EQ(h.events, (std::vector<Event>{Event::delta("你好"), Event::delta("。"), Event::turnEnded()}));
}

TEST(RealtimeTranscriptionClient, FinishInputCommitsTheRestAndWaitsAtMostTwoAndAHalfSeconds) {
    Harness h;
    h.connect();
    for (int i = 0; i < 5; ++i) h.client.sendAudio(kLoud);
    bool finished = false;
    h.client.finishInput([&] { finished = true; });
    EXPECT_EQ(h.sentTypes().back(), "input_audio_buffer.commit");
    EXPECT_EQ(h.client.outstandingCommits(), 1);
    h.scheduler.advance(2.45);
    EXPECT_FALSE(finished);
    h.scheduler.advance(0.1);
    EXPECT_TRUE(finished);

    // Answered early: it returns at the next poll.
    Harness answered;
    answered.connect();
    for (int i = 0; i < 5; ++i) answered.client.sendAudio(kLoud);
    bool done = false;
    answered.client.finishInput([&] { done = true; });
    answered.scheduler.advance(0.5);
    answered.server(R"({"type":"input_audio_buffer.committed","item_id":"Z"})");
    answered.server(R"({"type":"conversation.item.input_audio_transcription.completed","item_id":"Z","transcript":"好"})");
    answered.scheduler.advance(0.05);
    EXPECT_TRUE(done);
}

TEST(RealtimeTranscriptionClient, ABlipBelowATenthOfASecondIsNotCommittedAtTheEnd) {
    Harness h;
    h.connect();
    h.client.sendAudio(chunk(16000, 960));
    bool finished = false;
    h.client.finishInput([&] { finished = true; });
    h.scheduler.runUntilIdle();
    EXPECT_TRUE(finished);
    EXPECT_EQ(h.sentTypes(), (std::vector<std::string>{"session.update", "input_audio_buffer.append"}));
    EXPECT_EQ(h.client.outstandingCommits(), 0);
}

TEST(RealtimeTranscriptionClient, AServerErrorEndsTheStreamWithItsTextAndUndecodableFramesAreSkipped) {
    Harness h;
    h.connect();
    h.server("not json");
    h.server(R"({"no":"type"})");
    EXPECT_TRUE(h.events.empty());
    h.server(R"({"type":"error","error":{"message":"Invalid model"}})");
    EXPECT_EQ(h.events, (std::vector<Event>{Event::failed("OpenAI API 错误：Invalid model")}));
    EXPECT_EQ(h.transport.last().closeCode, 1001);
    EXPECT_FALSE(h.client.hasSocket());

    Harness during;
    during.start();
    during.transport.last().accept();
    during.server(R"({"type":"conversation.item.input_audio_transcription.failed","item_id":"A"})");
    during.scheduler.runUntilIdle();
    ASSERT_TRUE(during.started && !during.started->ok());
    EXPECT_EQ(during.started->error().message, "OpenAI API 错误：实时原文识别失败");
}

TEST(RealtimeTranscriptionClient, ALostConnectionIsReportedUnlessTheClientIsClosing) {
    Harness h;
    h.connect();
    h.transport.last().end(WebSocketEnd::Reason::failed, "The network connection was lost.");
    EXPECT_EQ(h.events, (std::vector<Event>{Event::failed("The network connection was lost.")}));

    Harness closing;
    closing.connect();
    closing.client.close();
    EXPECT_EQ(closing.transport.last().closeCode, 1000);
    closing.transport.last().end(WebSocketEnd::Reason::closedByUs, "Closed");
    closing.client.sendAudio(kLoud);
    closing.scheduler.runUntilIdle();
    EXPECT_TRUE(closing.events.empty());

    Harness early;
    early.start();
    early.client.close();
    early.scheduler.runUntilIdle();
    ASSERT_TRUE(early.started && !early.started->ok());
    EXPECT_EQ(early.started->error().code, "cancelled");
}

TEST(RealtimeTranscriptionClient, ASendFailureLosesTheStream) {
    Harness h;
    h.connect();
    h.transport.last().failSends = true;
    h.client.sendAudio(kLoud);
    EXPECT_EQ(h.transport.last().closeCode, 1001);
    ASSERT_EQ(h.events.size(), 1u);
    EXPECT_EQ(h.events[0].kind, Event::Kind::failed);
}

}  // namespace
}  // namespace osv

namespace osv {
namespace {

TEST(RealtimeTranscriptionClient, StartingAgainLetsTheEarlierSocketGoAndCancelsItsStart) {
    Harness h;
    h.start();
    std::optional<Expected<void>> second;
    h.client.start(h.settings, "gpt-transcribe", {}, {}, [&](Expected<void> r) { second = r; });
    EXPECT_EQ(h.transport.connections.at(0)->closeCode, 1001);
    h.scheduler.runUntilIdle();
    ASSERT_TRUE(h.started && !h.started->ok());
    EXPECT_EQ(h.started->error().code, "cancelled");
    h.transport.last().accept();
    h.server(R"({"type":"session.updated"})");
    h.scheduler.runUntilIdle();
    ASSERT_TRUE(second && second->ok());
}

}  // namespace
}  // namespace osv
