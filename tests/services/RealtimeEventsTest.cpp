#include <gtest/gtest.h>

#include "services/RealtimeServerEvent.h"
#include "services/ServiceEndpoints.h"
#include "settings/UserDefaults.h"

namespace osv {
namespace {

using Route = RealtimeEventRoute::Route;
using Stream = RealtimeEventRoute::Stream;
using Text = RealtimeStreamReader::Text;

TEST(ServiceEndpoints, WebSocketEndpointsKeepHostAndPrefixAndSwapTheScheme) {
    EXPECT_EQ(webSocketEndpointURL("https://api.openai.com/v1", "/realtime/translations", {{"model", "gpt-x"}}),
              "wss://api.openai.com/v1/realtime/translations?model=gpt-x");
    EXPECT_EQ(webSocketEndpointURL("http://127.0.0.1:8123/v1/", "/realtime/translations"),
              "ws://127.0.0.1:8123/v1/realtime/translations");
    EXPECT_EQ(webSocketEndpointURL("HTTP://[::1]:9/v1", "realtime"), "ws://[::1]:9/v1/realtime");
    EXPECT_EQ(httpEndpointURL("https://api.openai.com/v1", "/responses"), "https://api.openai.com/v1/responses");
    EXPECT_EQ(httpEndpointURL("https://texttospeech.googleapis.com", "/v1/text:synthesize"),
              "https://texttospeech.googleapis.com/v1/text:synthesize");
    // Query values are percent-encoded, so a model name can't inject another item.
    EXPECT_EQ(httpEndpointURL("http://h/v1", "/x", {{"model", "a b&c=d/é"}}), "http://h/v1/x?model=a%20b%26c%3Dd%2F%C3%A9");
}

TEST(ServiceEndpoints, BasesThatAreNoHttpURLWithAHostAreRefused) {
    for (const char* bad : {"", "api.openai.com/v1", "ftp://h/v1", "wss://h/v1", "https:///v1", "https://:80/v1",
                            "https://h/v1?x=1", "https://h h/v1"})
        EXPECT_EQ(webSocketEndpointURL(bad, "/realtime/translations"), std::nullopt) << bad;
}

TEST(ServiceEndpoints, TheEnvironmentThenTheSettingsThenTheDefault) {
    MemoryUserDefaults settings;
    settings.set("openai_base_url", std::string("http://127.0.0.1:1/v1"));
    settings.set("gemini_base_url", std::string(" http://127.0.0.1:2 "));
    settings.set("jev_base_url", std::string("ftp://edited-by-hand"));  // passed over
    ServiceEndpoints::Sources sources{};
    const auto e = ServiceEndpoints::resolve(
        settings,
        [](const char* name) -> std::optional<std::string> {
            if (std::string(name) == "OSV_OPENAI_BASE_URL") return "http://127.0.0.1:3/v1";
            return std::nullopt;
        },
        &sources);
    EXPECT_EQ(e.openAI, "http://127.0.0.1:3/v1");
    EXPECT_EQ(e.gemini, "http://127.0.0.1:2");
    EXPECT_EQ(e.googleTTS, ServiceEndpoints().googleTTS);
    EXPECT_EQ(e.jev, ServiceEndpoints().jev);
    using S = ServiceEndpoints::Source;
    EXPECT_EQ(sources, (ServiceEndpoints::Sources{S::environment, S::settings, S::builtIn, S::builtIn}));
    EXPECT_TRUE(isServiceBaseURL("https://api.openai.com/v1"));
    EXPECT_FALSE(isServiceBaseURL("wss://api.openai.com/v1"));
}

TEST(ServiceEndpoints, EachVariableOverridesItsServiceAndBlankMeansUnset) {
    const auto e = ServiceEndpoints::fromEnvironment([](const char* name) -> std::optional<std::string> {
        if (std::string(name) == "OSV_OPENAI_BASE_URL") return " http://127.0.0.1:5000/v1\n";
        if (std::string(name) == "OSV_JEV_BASE_URL") return "  ";
        return std::nullopt;
    });
    EXPECT_EQ(e.openAI, "http://127.0.0.1:5000/v1");
    EXPECT_EQ(e.jev, ServiceEndpoints().jev);
    EXPECT_EQ(e.gemini, "https://generativelanguage.googleapis.com");
    const auto all = ServiceEndpoints::fromEnvironment([](const char* name) -> std::optional<std::string> {
        return std::string("http://") + name;
    });
    EXPECT_EQ(all.gemini, "http://OSV_GEMINI_BASE_URL");
    EXPECT_EQ(all.googleTTS, "http://OSV_GOOGLE_TTS_BASE_URL");
    EXPECT_EQ(all.jev, "http://OSV_JEV_BASE_URL");
    EXPECT_EQ(all.localModel, "http://OSV_LOCAL_MODEL_URL");
    EXPECT_EQ(e.localModel, "http://127.0.0.1:18082");
}

TEST(RealtimeServerEvent, DecodesTheWireShapeStrictlyButIgnoresUnknownFields) {
    auto e = RealtimeServerEvent::decode(
        R"({"type":"error","event_id":"x","error":{"message":"boom","type":"invalid_request_error","code":null,"param":1}})");
    ASSERT_TRUE(e);
    EXPECT_EQ(e->type, "error");
    EXPECT_EQ(e->error, (RealtimeServerEvent::ErrorPayload{"boom", "invalid_request_error", std::nullopt}));

    EXPECT_FALSE(RealtimeServerEvent::decode(R"({"delta":"x"})"));                   // no type
    EXPECT_FALSE(RealtimeServerEvent::decode(R"({"type":7})"));
    EXPECT_FALSE(RealtimeServerEvent::decode(R"({"type":"a.delta","delta":5})"));    // wrong type of a field
    EXPECT_FALSE(RealtimeServerEvent::decode(R"({"type":"error","error":{"code":"c"}})"));  // message required
    EXPECT_FALSE(RealtimeServerEvent::decode(R"({"type":"error","error":"boom"})"));
    EXPECT_FALSE(RealtimeServerEvent::decode(R"(["type"])"));
    EXPECT_FALSE(RealtimeServerEvent::decode("not json"));
    EXPECT_TRUE(RealtimeServerEvent::decode(R"({"type":"x","delta":null,"error":null})"));
}

TEST(RealtimeServerEvent, WholeTextIsTheFirstNonEmptyOfTranscriptTextDelta) {
    RealtimeServerEvent e;
    EXPECT_EQ(e.wholeText(), std::nullopt);
    e.delta = "d";
    EXPECT_EQ(e.wholeText(), "d");
    e.text = "t";
    EXPECT_EQ(e.wholeText(), "t");
    e.transcript = "";
    EXPECT_EQ(e.wholeText(), "t");
    e.transcript = "whole";
    EXPECT_EQ(e.wholeText(), "whole");
}

TEST(RealtimeEventRoute, RoutesBySubstringAndSuffix) {
    const std::vector<std::pair<std::string, Route>> cases{
        {"error", Route::error},
        {"session.closed", Route::closed},
        {"closed", Route::closed},
        {"session.input_transcript.delta", Route::sourceDelta},
        {"conversation.item.input_audio_transcription.delta", Route::sourceDelta},
        {"session.input_transcript.completed", Route::sourceCompleted},
        {"session.input_transcript.done", Route::sourceCompleted},
        {"conversation.item.input_audio_transcription.failed", Route::sourceFailed},
        {"session.output_transcript.delta", Route::translationDelta},
        {"response.output_audio_transcript.done", Route::translationCompleted},
        // No failure route of its own: a translation failure fails the session.
        {"session.output_transcript.failed", Route::error},
        {"session.input_transcript.started", Route::unknown},
        {"session.output_audio.delta", Route::ignorable},
        {"session.output_audio.anything.failed", Route::ignorable},
        {"session.created", Route::ignorable},
        {"session.input_audio_buffer.speech_stopped", Route::ignorable},
        {"rate_limits.updated", Route::ignorable},
        {"session.error", Route::unknown},
        {"response.done", Route::unknown},
    };
    for (const auto& [type, route] : cases) EXPECT_EQ(RealtimeEventRoute::route(type), route) << type;
}

TEST(RealtimeStreamReader, TheFirstSpellingOfAStreamWinsAndEchoesAreDropped) {
    RealtimeStreamReader r;
    EXPECT_EQ(r.read("session.input_transcript.delta", "こんにちは", std::nullopt),
              (Text{Stream::source, "こんにちは", false}));
    EXPECT_EQ(r.read("conversation.item.input_audio_transcription.delta", "こんにちは", std::nullopt), std::nullopt);
    EXPECT_EQ(r.read("conversation.item.input_audio_transcription.completed", std::nullopt, "こんにちは"), std::nullopt);
    // The echo's completion did not end the turn of the winning spelling.
    EXPECT_EQ(r.deltaCharsThisTurn(Stream::source), 5u);
    EXPECT_EQ(r.read("session.input_transcript.completed", std::nullopt, "こんにちは"), std::nullopt);
    EXPECT_EQ(r.deltaCharsThisTurn(Stream::source), 0u);
    // The translation stream has a spelling of its own.
    EXPECT_EQ(r.read("response.output_audio_transcript.delta", "你好", std::nullopt),
              (Text{Stream::translation, "你好", false}));
    EXPECT_EQ(r.spelling(Stream::translation), "response.output_audio_transcript");
    EXPECT_EQ(r.spelling(Stream::source), "session.input_transcript");
}

TEST(RealtimeStreamReader, ATurnIsToldOnceByDeltasOrElseByItsCompletion) {
    RealtimeStreamReader r;
    EXPECT_EQ(r.read("session.output_transcript.delta", "", std::nullopt), std::nullopt);
    EXPECT_EQ(r.spelling(Stream::translation), std::nullopt);  // an empty delta records nothing
    EXPECT_EQ(r.read("session.output_transcript.done", std::nullopt, "整句"), (Text{Stream::translation, "整句", true}));
    EXPECT_EQ(r.read("session.output_transcript.delta", "后", std::nullopt), (Text{Stream::translation, "后", false}));
    EXPECT_EQ(r.read("session.output_transcript.done", std::nullopt, "后面"), std::nullopt);
    EXPECT_EQ(r.read("session.output_transcript.done", std::nullopt, std::nullopt), std::nullopt);
    // Routes that carry no text touch nothing.
    EXPECT_EQ(r.read("error", "x", "x"), std::nullopt);
    EXPECT_EQ(r.read("session.created", "x", "x"), std::nullopt);
    EXPECT_EQ(r.spelling(Stream::source), std::nullopt);
}

TEST(RealtimeStreamReader, ASourceFailureResetsTheTurnWhateverItsSpelling) {
    RealtimeStreamReader r;
    ASSERT_TRUE(r.read("session.input_transcript.delta", "はい", std::nullopt));
    EXPECT_EQ(r.read("conversation.item.input_audio_transcription.failed", std::nullopt, "x"), std::nullopt);
    EXPECT_EQ(r.deltaCharsThisTurn(Stream::source), 0u);
    EXPECT_EQ(r.read("session.input_transcript.completed", std::nullopt, "そうです"),
              (Text{Stream::source, "そうです", true}));
}

TEST(RealtimeStreamReader, CountsCharactersNotBytes) {
    RealtimeStreamReader r;
    ASSERT_TRUE(r.read("session.input_transcript.delta", "が👍🏽e\u0301", std::nullopt));
    EXPECT_EQ(r.deltaCharsThisTurn(Stream::source), 3u);
}

}  // namespace
}  // namespace osv
