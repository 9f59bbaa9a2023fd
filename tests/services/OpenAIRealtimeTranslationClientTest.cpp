#include <gtest/gtest.h>

#include "core/Base64.h"
#include "core/Json.h"
#include "core/ManualScheduler.h"
#include "services/FakeWebSocketTransport.h"
#include "services/OpenAIRealtimeTranslationClient.h"
#include "settings/TranslatorSettings.h"

namespace osv {
namespace {

using json::Json;
using Event = RealtimeTranslationEvent;
using Level = DebugEvent::Level;
using testing::FakeWebSocketTransport;

Json parsed(const std::string& text) { return *json::parse(text); }

struct Harness {
    // The transport outlives the scheduler, whose queue may hold the client's sockets.
    FakeWebSocketTransport transport;
    ManualScheduler scheduler;
    OpenAIRealtimeTranslationClient client{transport, scheduler, "http://127.0.0.1:9/v1"};
    TranslatorSettings settings;
    std::vector<Event> events;
    std::vector<OpenAIDebugLog> logs;
    std::optional<Expected<void>> started;

    Harness() { settings.apiKey = " sk-test\n"; }

    OpenAIRealtimeTranslationClient::EventHandler onEvent() {
        return [this](const Event& e) { events.push_back(e); };
    }
    OpenAIRealtimeTranslationClient::DebugHandler onDebug() {
        return [this](const OpenAIDebugLog& l) { logs.push_back(l); };
    }
    void start(bool wantsSource = true, std::string target = "zh") {
        client.start(settings, std::move(target), wantsSource, onEvent(), onDebug(),
                     [this](Expected<void> r) { started = std::move(r); });
    }
    // Started, connected and reading, with the logs of the start cleared.
    void connect() {
        start();
        transport.last().accept();
        scheduler.runUntilIdle();
        ASSERT_TRUE(started && started->ok());
        events.clear();
        logs.clear();
    }
    void server(const std::string& json) { transport.last().text(json); }
    std::vector<std::string> codes() const {
        std::vector<std::string> out;
        for (const auto& l : logs) out.push_back(l.code.value_or("-"));
        return out;
    }
    std::vector<Json> sent() const {
        std::vector<Json> out;
        for (const auto& s : transport.last().sent) out.push_back(parsed(s));
        return out;
    }
};

using Strings = std::vector<std::string>;

TEST(RealtimeClientStart, SendsTheConfigurationInOrderThenDeliversConnected) {
    Harness h;
    h.settings.models.set("gpt-transcribe-mini", ModelJob::realtimeTranscribe, AppMode::interpret);
    h.start(true, "ja");
    ASSERT_EQ(h.transport.requests.size(), 1u);
    const WebSocketRequest& request = h.transport.requests[0];
    EXPECT_EQ(request.url, "ws://127.0.0.1:9/v1/realtime/translations?model=gpt-realtime-translate");
    EXPECT_EQ(request.timeoutSeconds, 60.0);
    EXPECT_EQ(request.headers, (HeaderList{{"Authorization", "Bearer sk-test"}, {"OpenAI-Safety-Identifier", "ossevra"}}));
    ASSERT_EQ(h.logs.size(), 1u);
    EXPECT_EQ(h.logs[0].title, "连接 Realtime 同传");
    EXPECT_EQ(h.logs[0].details,
              "endpoint: /v1/realtime/translations\nmodel: gpt-realtime-translate\ntranscription: gpt-transcribe-mini\n"
              "targetLanguage: ja");
    EXPECT_EQ(h.logs[0].category, DebugEvent::Category::openAI);
    EXPECT_TRUE(h.events.empty());
    EXPECT_FALSE(h.started);

    h.transport.last().accept();
    EXPECT_EQ(h.sent(), (std::vector<Json>{
                            parsed(R"({"type":"session.update","session":{"audio":{"output":{"language":"ja"}}}})"),
                            parsed(R"({"type":"session.update","session":{"audio":{"input":{"transcription":{"model":"gpt-transcribe-mini"}}}}})"),
                        }));
    EXPECT_EQ(h.events, (std::vector<Event>{Event::connected()}));
    ASSERT_EQ(h.logs.size(), 2u);
    EXPECT_EQ(h.logs[1].title, "Realtime 同传已连接");
    EXPECT_EQ(h.logs[1].level, Level::success);
    EXPECT_EQ(h.logs[1].details, "targetLanguage: ja");
    ASSERT_TRUE(h.started);
    EXPECT_TRUE(h.started->ok());
}

TEST(RealtimeClientStart, WithoutTheSourceStreamOnlyTheLanguageIsSent) {
    Harness h;
    h.start(false);
    h.transport.last().accept();
    EXPECT_EQ(h.sent().size(), 1u);
    // A blank realtime transcription choice falls back to the file transcription model.
    EXPECT_EQ(h.client.transcriptionModel(), "gpt-transcribe");
    EXPECT_EQ(h.client.fallbackTranscriptionModel(), "gpt-4o-mini-transcribe");
}

TEST(RealtimeClientStart, FailuresBeforeTheSocketAreReportedLaterNeverFromInsideStart) {
    Harness h;
    h.settings.apiKey = " \n\t";
    h.start();
    EXPECT_FALSE(h.started);
    h.scheduler.runUntilIdle();
    ASSERT_TRUE(h.started);
    EXPECT_EQ(h.started->error().code, "missing_api_key");
    EXPECT_TRUE(h.transport.requests.empty());

    Harness bad;
    OpenAIRealtimeTranslationClient client(bad.transport, bad.scheduler, "not a url");
    std::optional<Expected<void>> result;
    client.start(bad.settings, "zh", true, {}, {}, [&](Expected<void> r) { result = std::move(r); });
    bad.scheduler.runUntilIdle();
    ASSERT_TRUE(result);
    EXPECT_EQ(result->error().code, "api_error");
    EXPECT_EQ(result->error().message, "OpenAI API 错误：Realtime URL 无效。");
    EXPECT_FALSE(client.hasSocket());
}

TEST(RealtimeClientStart, ASocketThatNeverOpensOrCannotTakeTheConfigurationFailsTheStart) {
    Harness h;
    h.start();
    h.transport.last().end(WebSocketEnd::Reason::failed, "Connection refused", false);
    ASSERT_TRUE(h.started);
    EXPECT_EQ(h.started->error().message, "Connection refused");
    EXPECT_FALSE(h.client.hasSocket());

    Harness s;
    s.start();
    s.transport.last().failSends = true;
    s.transport.last().accept();
    ASSERT_TRUE(s.started);
    EXPECT_EQ(s.started->error().code, "websocket_send_failed");
    for (const auto& e : s.events) EXPECT_NE(e.kind, Event::Kind::connected);
    EXPECT_FALSE(s.client.hasSocket());
}

TEST(RealtimeClientHandle, TheSameWordsUnderTwoSpellingsAreDeliveredOnce) {
    Harness h;
    h.connect();
    h.server(R"({"type":"session.input_transcript.delta","delta":"おはよう"})");
    h.server(R"({"type":"conversation.item.input_audio_transcription.delta","delta":"おはよう"})");
    h.server(R"({"type":"session.output_transcript.delta","delta":"早上好"})");
    h.server(R"({"type":"response.output_audio_transcript.delta","delta":"早上好"})");
    h.server(R"({"type":"conversation.item.input_audio_transcription.completed","transcript":"おはよう"})");
    h.server(R"({"type":"session.input_transcript.completed","transcript":"おはよう"})");
    EXPECT_EQ(h.events, (std::vector<Event>{Event::inputTranscriptDelta("おはよう"), Event::outputTranscriptDelta("早上好")}));
    EXPECT_TRUE(h.logs.empty());
    EXPECT_EQ(h.client.eventTypeReport(),
              "session.output_transcript.delta ×1\nsession.input_transcript.delta ×1\n"
              "session.input_transcript.completed ×1\nresponse.output_audio_transcript.delta ×1\n"
              "conversation.item.input_audio_transcription.delta ×1\n"
              "conversation.item.input_audio_transcription.completed ×1");
}

TEST(RealtimeClientHandle, ACompletionWithoutDeltasIsDeliveredOnceAsADeltaWithAWarning) {
    Harness h;
    h.connect();
    h.server(R"({"type":"session.output_transcript.done","text":"你好。","delta":"ignored"})");
    h.server(R"({"type":"session.output_transcript.delta","delta":"再"})");
    h.server(R"({"type":"session.output_transcript.done","text":"再见。"})");
    EXPECT_EQ(h.events, (std::vector<Event>{Event::outputTranscriptDelta("你好。"), Event::outputTranscriptDelta("再")}));
    ASSERT_EQ(h.logs.size(), 1u);
    EXPECT_EQ(h.logs[0].title, "整轮文本补回");
    EXPECT_EQ(h.logs[0].level, Level::warning);
    EXPECT_EQ(h.logs[0].code, "realtime_completed_without_deltas");
    EXPECT_EQ(h.logs[0].details, "stream: 译文\ntype: session.output_transcript.done\n本轮没有收到任何 delta，改用整轮文本。");
}

TEST(RealtimeClientHandle, ASourceFailureIsTheSourceStreamsAloneAndResetsItsTurn) {
    Harness h;
    h.connect();
    h.server(R"({"type":"session.input_transcript.delta","delta":"もしもし"})");
    h.server(R"({"type":"session.input_transcript.failed"})");
    h.server(R"({"type":"session.input_transcript.failed","error":{"message":"audio unclear"}})");
    h.server(R"({"type":"session.input_transcript.completed","transcript":"はい"})");
    EXPECT_EQ(h.events, (std::vector<Event>{Event::inputTranscriptDelta("もしもし"),
                                            Event::sourceStreamFailed("转写未能完成。"),
                                            Event::sourceStreamFailed("audio unclear"),
                                            Event::inputTranscriptDelta("はい")}));
    EXPECT_EQ(h.codes(), (Strings{"realtime_transcription_failed", "realtime_transcription_failed",
                                  "realtime_completed_without_deltas"}));
    EXPECT_EQ(h.logs[0].title, "原文转写失败（译文不受影响）");
    EXPECT_EQ(h.logs[1].details, "type: session.input_transcript.failed\naudio unclear");
    EXPECT_EQ(h.logs[2].details.substr(0, 14), "stream: 原文");
}

TEST(RealtimeClientHandle, TheTranscriptionModelFallsBackOnceThenErrorsGoThroughConcernsTranscription) {
    Harness h;
    h.connect();
    h.server(R"({"type":"error","error":{"message":"Model GPT-TRANSCRIBE is not available","code":"model_not_found"}})");
    EXPECT_TRUE(h.events.empty());
    EXPECT_EQ(h.client.transcriptionModel(), "gpt-4o-mini-transcribe");
    EXPECT_EQ(h.sent().back(),
              parsed(R"({"type":"session.update","session":{"audio":{"input":{"transcription":{"model":"gpt-4o-mini-transcribe"}}}}})"));
    ASSERT_EQ(h.logs.size(), 1u);
    EXPECT_EQ(h.logs[0].title, "原文转写模型回退");
    EXPECT_EQ(h.logs[0].code, "realtime_transcription_model_fallback");
    EXPECT_EQ(h.logs[0].details, "gpt-transcribe 不可用，已改用 gpt-4o-mini-transcribe。译文不受影响。");

    const std::size_t sentBefore = h.sent().size();
    h.server(R"({"type":"error","error":{"message":"gpt-4o-mini-transcribe failed to transcribe","type":"server_error"}})");
    EXPECT_EQ(h.sent().size(), sentBefore);  // not retried
    EXPECT_EQ(h.events, (std::vector<Event>{Event::sourceStreamFailed("gpt-4o-mini-transcribe failed to transcribe")}));
    EXPECT_EQ(h.logs[1].title, "原文转写报错（会话继续）");
    EXPECT_EQ(h.logs[1].code, "server_error");
    EXPECT_EQ(h.logs[1].details, "gpt-4o-mini-transcribe failed to transcribe");

    // The code alone may tell that the error is the transcription's.
    h.server(R"({"type":"error","error":{"message":"bad input","code":"input_transcription_error"}})");
    EXPECT_EQ(h.events.back(), Event::sourceStreamFailed("bad input"));
}

TEST(RealtimeClientHandle, OtherErrorsFailTheSessionButDoNotEndTheReading) {
    Harness h;
    h.connect();
    h.server(R"({"type":"error","error":{"message":"Rate limit reached","type":"rate_limit"}})");
    h.server(R"({"type":"session.output_transcript.failed"})");
    h.server(R"({"type":"session.output_transcript.delta","delta":"还在"})");
    EXPECT_EQ(h.events, (std::vector<Event>{Event::failed("Rate limit reached", "rate_limit"),
                                            Event::failed("Realtime 返回未知错误。", "realtime_error"),
                                            Event::outputTranscriptDelta("还在")}));
    ASSERT_EQ(h.logs.size(), 2u);
    EXPECT_EQ(h.logs[0].title, "Realtime 同传错误");
    EXPECT_EQ(h.logs[0].level, Level::error);
    EXPECT_EQ(h.logs[0].details, "Rate limit reached\n本次会话事件统计：\nerror ×1");
    EXPECT_EQ(h.logs[1].code, "realtime_error");

    // While closing the failure is not delivered, but still logged.
    h.events.clear();
    h.client.markClosing();
    h.server(R"({"type":"error","error":{"message":"late","code":"c"}})");
    EXPECT_TRUE(h.events.empty());
    EXPECT_EQ(h.logs.back().details.substr(0, 5), "late\n");
}

TEST(RealtimeClientHandle, UnknownTypesAreLoggedOnceEachAndAtMostEightTimes) {
    Harness h;
    h.connect();
    for (int i = 1; i <= 9; ++i) {
        h.server(R"({"type":"novel.event.)" + std::to_string(i) + R"("})");
        h.server(R"({"type":"novel.event.)" + std::to_string(i) + R"("})");
    }
    ASSERT_EQ(h.logs.size(), 8u);
    EXPECT_EQ(h.logs[0].title, "收到未识别的 Realtime 事件");
    EXPECT_EQ(h.logs[0].code, "realtime_unknown_event");
    EXPECT_EQ(h.logs[0].details, "type: novel.event.1");
    EXPECT_EQ(h.client.eventTypeCounts().at("novel.event.9"), 2);
    // Ignorable events are counted and say nothing.
    h.server(R"({"type":"session.output_audio.delta","delta":"AAAA"})");
    EXPECT_EQ(h.logs.size(), 8u);
    EXPECT_TRUE(h.events.empty());
}

TEST(RealtimeClientReceive, BinaryFramesAreReadAsUTF8AndUndecodableOnesSkipped) {
    Harness h;
    h.connect();
    h.transport.last().binary(R"({"type":"session.output_transcript.delta","delta":"二进制"})");
    h.transport.last().binary(std::string("{\"type\":\"session.output_transcript.delta\",\"delta\":\"\xff\"}"));
    EXPECT_EQ(h.events, (std::vector<Event>{Event::outputTranscriptDelta("二进制")}));
    EXPECT_TRUE(h.logs.empty());

    // A text frame that is no event is noted with its first 400 characters.
    std::string raw = "[";
    for (int i = 0; i < 500; ++i) raw += "字";
    h.server(raw);
    h.server("also not json");
    ASSERT_EQ(h.logs.size(), 1u);
    std::string expected = "type: <undecodable>\n[";
    for (int i = 0; i < 399; ++i) expected += "字";
    EXPECT_EQ(h.logs[0].details, expected);
    EXPECT_EQ(h.client.eventTypeCounts().size(), 1u);  // undecodable text is not an event
}

TEST(RealtimeClientReceive, TheServersCloseDeliversClosedAndEndsTheReading) {
    Harness h;
    h.connect();
    h.server(R"({"type":"session.output_transcript.delta","delta":"好"})");
    h.server(R"({"type":"session.closed"})");
    EXPECT_EQ(h.events.back(), Event::closed());
    EXPECT_EQ(h.logs.back().title, "Realtime 同传已关闭");
    EXPECT_EQ(h.logs.back().details, "本次会话事件统计：\nsession.output_transcript.delta ×1\nsession.closed ×1");
    EXPECT_FALSE(h.client.hasSocket());
    EXPECT_EQ(h.transport.last().closeCode, 1000);
    // What the socket does afterwards is nobody's concern.
    const std::size_t events = h.events.size();
    h.server(R"({"type":"session.output_transcript.delta","delta":"晚"})");
    h.transport.last().end(WebSocketEnd::Reason::closedByUs, "Closed");
    h.scheduler.runUntilIdle();
    EXPECT_EQ(h.events.size(), events);
    EXPECT_TRUE(h.transport.isDestroyed(0));
}

TEST(RealtimeClientReceive, ALostSocketFailsTheSessionUnlessTheClientIsClosing) {
    Harness h;
    h.connect();
    h.server(R"({"type":"session.created"})");
    h.transport.last().end(WebSocketEnd::Reason::failed, "The remote host closed the connection");
    EXPECT_EQ(h.events, (std::vector<Event>{Event::failed("The remote host closed the connection", "realtime_receive_failed")}));
    ASSERT_EQ(h.logs.size(), 1u);
    EXPECT_EQ(h.logs[0].title, "Realtime 接收失败");
    EXPECT_EQ(h.logs[0].level, Level::error);
    EXPECT_EQ(h.logs[0].code, "realtime_receive_failed");
    EXPECT_EQ(h.logs[0].details, "The remote host closed the connection\n本次会话事件统计：\nsession.created ×1");
    EXPECT_FALSE(h.client.hasSocket());

    Harness c;
    c.connect();
    c.client.markClosing();
    c.transport.last().end(WebSocketEnd::Reason::closedByPeer, "The server closed the connection (code 1000)");
    EXPECT_TRUE(c.events.empty());
    EXPECT_TRUE(c.logs.empty());
    EXPECT_FALSE(c.client.hasSocket());
}

TEST(RealtimeClientClose, ClosingDuringAPendingReceiveSendsGoingAwayAndReportsNothing) {
    Harness h;
    h.connect();
    bool whenClosed = false;
    h.client.close([&] { whenClosed = true; });
    EXPECT_TRUE(h.client.isClosing());
    EXPECT_FALSE(h.client.hasSocket());
    EXPECT_EQ(h.transport.last().closeCode, 1001);
    EXPECT_EQ(h.transport.last().closeReason, "");
    EXPECT_FALSE(h.transport.isDestroyed(0));  // kept until the socket is gone
    h.transport.last().end(WebSocketEnd::Reason::failed, "Operation canceled");
    h.scheduler.runUntilIdle();
    EXPECT_TRUE(whenClosed);
    EXPECT_TRUE(h.events.empty());
    EXPECT_TRUE(h.logs.empty());
    EXPECT_TRUE(h.transport.isDestroyed(0));

    // Sending afterwards is refused, audio dropped without complaint.
    EXPECT_EQ(h.client.sendJSON(Json::object({{"type", "x"}})).error().message,
              "OpenAI API 错误：Realtime WebSocket 未连接。");
    EXPECT_TRUE(h.client.sendAudio({1, 2}).ok());

    // Start again on the same instance: every per-session field is fresh.
    h.start();
    h.transport.last().accept();
    EXPECT_FALSE(h.client.isClosing());
    EXPECT_EQ(h.client.eventTypeReport(), "（未收到任何事件）");
}

TEST(RealtimeClientClose, ASocketThatEndsInsideCloseStillReleasesItsWaiter) {
    Harness h;
    h.connect();
    h.transport.last().endsInsideClose = true;
    bool whenClosed = false;
    h.client.close([&] { whenClosed = true; });
    h.scheduler.runUntilIdle();
    EXPECT_TRUE(whenClosed);
    EXPECT_TRUE(h.transport.isDestroyed(0));
    EXPECT_TRUE(h.events.empty());
}

TEST(RealtimeClientClose, ClosingWhileConnectingFailsTheStartQuietly) {
    Harness h;
    h.start();
    h.client.close();
    h.scheduler.runUntilIdle();
    ASSERT_TRUE(h.started);
    EXPECT_FALSE(h.started->ok());
    for (const auto& e : h.events) EXPECT_NE(e.kind, Event::Kind::failed);
}

TEST(RealtimeClientSend, AudioGoesAsOneAppendPerChunkAndSendFailuresReachTheCaller) {
    Harness h;
    h.connect();
    const std::vector<std::uint8_t> chunk{0x01, 0x00, 0xff, 0x7f, 0x00, 0x80};
    ASSERT_TRUE(h.client.sendAudio(chunk).ok());
    ASSERT_TRUE(h.client.sendAudio({}).ok());
    const Json append = h.sent().back();
    EXPECT_EQ(h.sent().size(), 3u);
    EXPECT_EQ(append["type"], "session.input_audio_buffer.append");
    EXPECT_EQ(base64Decode(append["audio"].get<std::string>()), chunk);

    EXPECT_EQ(h.client.sendJSON(Json::array()).error().code, "json_serialization_failed");
    EXPECT_EQ(h.client.sendJSON(Json::object({{"text", std::string("\xff")}})).error().message,
              "OpenAI API 错误：Realtime JSON 编码失败。");
    h.transport.last().failSends = true;
    EXPECT_EQ(h.client.sendJSON(Json::object({{"type", "x"}})).error().code, "websocket_send_failed");

    h.client.markClosing();
    h.transport.last().failSends = false;
    ASSERT_TRUE(h.client.sendAudio(chunk).ok());
    EXPECT_EQ(h.sent().size(), 3u);  // dropped while closing
    // session.close still goes out after the client is marked closing.
    ASSERT_TRUE(h.client.sendJSON(Json::object({{"type", "session.close"}})).ok());
    EXPECT_EQ(h.sent().back(), parsed(R"({"type":"session.close"})"));
}

TEST(RealtimeClientRearm, ChangesToTheFallbackOnceThenOnlyResendsTheConfiguration) {
    Harness h;
    EXPECT_EQ(h.client.rearmTranscription(h.onDebug()), std::nullopt);  // no socket
    h.connect();
    EXPECT_EQ(h.client.rearmTranscription(h.onDebug()), "gpt-4o-mini-transcribe");
    EXPECT_EQ(h.logs.back().title, "原文流静默，换用更稳的转写模型");
    EXPECT_EQ(h.logs.back().details,
              "gpt-transcribe → gpt-4o-mini-transcribe\n译文仍在返回，说明音频送达正常，只有转写这一路停了。");
    EXPECT_EQ(h.client.rearmTranscription(h.onDebug()), std::nullopt);
    EXPECT_EQ(h.logs.back().title, "原文流静默，重下转写配置");
    EXPECT_EQ(h.logs.back().details, "model: gpt-4o-mini-transcribe\n已经是备用模型，只能重下一次配置。");
    EXPECT_EQ(h.codes(), (Strings{"realtime_transcription_rearmed", "realtime_transcription_rearmed"}));
    EXPECT_EQ(h.sent().size(), 4u);
    // After a rearm an error naming the model is no longer retried.
    h.server(R"({"type":"error","error":{"message":"gpt-4o-mini-transcribe unavailable"}})");
    EXPECT_EQ(h.sent().size(), 4u);

    h.transport.last().failSends = true;
    EXPECT_EQ(h.client.rearmTranscription(h.onDebug()), std::nullopt);
    h.client.markClosing();
    const std::size_t logs = h.logs.size();
    EXPECT_EQ(h.client.rearmTranscription(h.onDebug()), std::nullopt);
    EXPECT_EQ(h.logs.size(), logs);
}

TEST(RealtimeClientReport, MostFrequentFirstAndTheGreaterTypeFirstOnATie) {
    Harness h;
    h.connect();
    for (const char* type : {"b", "a", "c", "a", "c", "c", "d"}) h.server(std::string(R"({"type":")") + type + "\"}");
    EXPECT_EQ(h.client.eventTypeReport(), "c ×3\na ×2\nd ×1\nb ×1");
}

TEST(RealtimeClientRetry, OnlyAnErrorNamingTheCurrentModelTriggersTheFallback) {
    Harness h;
    h.settings.models.set("gpt-4o-mini-transcribe", ModelJob::realtimeTranscribe, std::nullopt);
    h.connect();  // the fallback equals the current model
    EXPECT_FALSE(h.client.retryWithFallbackTranscriptionIfNeeded("gpt-4o-mini-transcribe is down", h.onDebug()));
    EXPECT_TRUE(OpenAIRealtimeTranslationClient::concernsTranscription("WHISPER overloaded"));
    EXPECT_FALSE(OpenAIRealtimeTranslationClient::concernsTranscription("translation overloaded"));

    Harness other;
    other.connect();
    EXPECT_FALSE(other.client.retryWithFallbackTranscriptionIfNeeded("some other model is down", other.onDebug()));
    other.transport.last().failSends = true;
    // A failed send swallows the error and reports no retry; the change is kept.
    EXPECT_FALSE(other.client.retryWithFallbackTranscriptionIfNeeded("gpt-transcribe is down", other.onDebug()));
    EXPECT_EQ(other.client.transcriptionModel(), "gpt-4o-mini-transcribe");
    EXPECT_TRUE(other.logs.empty());
}

}  // namespace
}  // namespace osv
