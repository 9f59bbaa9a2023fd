#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "core/Base64.h"
#include "core/Json.h"
#include "core/ManualScheduler.h"
#include "core/Uuid.h"
#include "services/FakeWebSocketTransport.h"
#include "services/GeminiTranscriptionClient.h"
#include "services/ScriptedHttpTransport.h"
#include "settings/TranslatorSettings.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using json::Json;
using Kind = GeminiLiveEvent::Kind;
using Client = GeminiTranscriptionClient;
using testing::FakeWebSocketTransport;
using testing::ScriptedHttpTransport;

Json parsed(const std::string& text) { return *json::parse(text); }

GeminiLiveEvent ev(Kind kind, std::string text = {}, std::optional<double> timeLeft = {}) {
    return GeminiLiveEvent{kind, std::move(text), timeLeft};
}

TEST(GeminiWire, SetupNamesTheModelOnceAndLeavesOutWhatIsNotAsked) {
    EXPECT_EQ(parsed(Client::liveSetupPayload("gemini-3.5-transcribe-live", {})),
              parsed(R"({"setup":{"model":"models/gemini-3.5-transcribe-live","generationConfig":{"responseModalities":["TEXT"]},
                         "inputAudioTranscription":{}}})"));
    const GeminiRecognition r = GeminiRecognition::from(RecognitionLanguage::japanese, "東京\n大阪");
    EXPECT_EQ(parsed(Client::liveSetupPayload("models/x-live", r))["setup"],
              parsed(R"({"model":"models/x-live","generationConfig":{"responseModalities":["TEXT"]},
                         "inputAudioTranscription":{"language_codes":["ja-JP"],"custom_vocabulary":["東京","大阪"]}})"));
    EXPECT_TRUE(GeminiRecognition::from(RecognitionLanguage::automatic, "").languageCodes.empty());
}

TEST(GeminiWire, LiveFramesMapToEventsFirstMatchWinning) {
    EXPECT_EQ(Client::liveEvent(R"({"serverContent":{"interimInputTranscription":{"text":"こん"},"inputTranscription":{"text":"今日"}}})"),
              ev(Kind::interim, "こん"));
    EXPECT_EQ(Client::liveEvent(R"({"serverContent":{"input_transcription":{"text":"今日は"}}})"), ev(Kind::final, "今日は"));
    EXPECT_EQ(Client::liveEvent(R"({"serverContent":{"inputTranscription":{"text":""},"turnComplete":true}})"),
              ev(Kind::turnComplete));
    EXPECT_EQ(Client::liveEvent(R"({"serverContent":{"generationComplete":true}})"), ev(Kind::turnComplete));
    EXPECT_EQ(Client::liveEvent(R"({"voiceActivity":{"type":"ACTIVITY_START","audioOffset":"1.2s"}})"),
              ev(Kind::speechStarted, "1.2s"));
    EXPECT_EQ(Client::liveEvent(R"({"voiceActivity":{"type":"VOICE_ACTIVITY_END"}})"), ev(Kind::speechEnded, ""));
    EXPECT_EQ(Client::liveEvent(R"({"voiceActivity":{"type":"OTHER"}})"), std::nullopt);
    EXPECT_EQ(Client::liveEvent(R"({"error":{"message":"quota"}})"), ev(Kind::failed, "quota"));
    EXPECT_EQ(Client::liveEvent(R"({"error":{}})"), ev(Kind::failed, "未知错误"));
    EXPECT_EQ(Client::liveEvent(R"({"serverContent":{"modelTurn":{}}})"), std::nullopt);
    EXPECT_EQ(Client::liveEvent("[1]"), std::nullopt);
}

TEST(GeminiWire, GoAwayReadsSecondsInEveryFormAndStillArrivesWithoutThem) {
    for (const char* t : {R"("30s")", "30", "30.0", R"("30")"})
        EXPECT_EQ(Client::liveEvent(std::string(R"({"goAway":{"timeLeft":)") + t + "}}"), ev(Kind::goingAway, "", 30.0)) << t;
    EXPECT_EQ(Client::liveEvent(R"({"goAway":{"timeLeft":"12.5s"}})"), ev(Kind::goingAway, "", 12.5));
    EXPECT_EQ(Client::liveEvent(R"({"goAway":{"timeLeft":"soon"}})"), ev(Kind::goingAway));
    EXPECT_EQ(Client::liveEvent(R"({"goAway":{}})"), ev(Kind::goingAway));
}

TEST(GeminiWire, ShapesAreSortedKeyPaths) {
    EXPECT_EQ(Client::shapeKey(R"({"usageMetadata":{"b":1,"a":[1]},"serverContent":{"turnComplete":true}})"),
              "serverContent.turnComplete+usageMetadata.a+usageMetadata.b");
    EXPECT_EQ(Client::shapeKey("{}"), "<empty>");
    EXPECT_EQ(Client::shapeKey("nope"), std::nullopt);
}

TEST(GeminiWire, RetryDelaysAndQuotaSummariesAreReadFromTheBody) {
    EXPECT_EQ(Client::retryDelay("... Please retry in 33.8s. ..."), 33.8);
    EXPECT_EQ(Client::retryDelay("Please retry in 1h2m3.5s"), 3723.5);
    EXPECT_EQ(Client::retryDelay("Please retry in 2m then"), 120.0);
    EXPECT_EQ(Client::retryDelay("Please retry in soon"), std::nullopt);
    EXPECT_EQ(Client::retryDelay("nothing"), std::nullopt);
    EXPECT_EQ(Client::quotaSummary(R"({"message":"Quota exceeded for metric: generate_requests_per_model_per_day, limit: 50\nPlease"})"),
              "generate_requests_per_model_per_day, limit: 50");
    EXPECT_EQ(Client::quotaSummary("Quota exceeded for metric:  x \nmore"), "x");
    EXPECT_EQ(Client::quotaSummary("other"), std::nullopt);
}

TEST(GeminiWire, RateLimitsAndFailuresAreLoggedAndReturnedByForm) {
    std::vector<OpenAIDebugLog> logs;
    auto onDebug = [&](const OpenAIDebugLog& l) { logs.push_back(l); };
    HttpResponse ok;
    ok.status = 204;
    EXPECT_FALSE(Client::check(ok, "上传", onDebug));

    HttpResponse limited;
    limited.status = 429;
    limited.headers = {{"retry-after", "17"}};
    limited.body = R"({"error":{"message":"Please retry in 33.8s"}})";
    auto f = Client::check(limited, "转写", onDebug);
    ASSERT_TRUE(f && f->rateLimited);
    EXPECT_EQ(f->rateLimited->retryAfter, 17.0);
    EXPECT_FALSE(f->rateLimited->isDailyQuota);
    EXPECT_EQ(f->error.code, "gemini_rate_limited");
    EXPECT_EQ(f->rateLimited->detail, limited.body);
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].details, "HTTP 429\n" + limited.body);
    EXPECT_EQ(logs[0].level, DebugEvent::Level::warning);

    limited.headers.clear();
    limited.body = R"({"error":{"message":"Quota exceeded for metric: requests_per_day\nPlease retry in 33.8s"}})";
    f = Client::check(limited, "转写", onDebug);
    ASSERT_TRUE(f && f->rateLimited);
    EXPECT_EQ(f->rateLimited->retryAfter, 33.8);
    EXPECT_TRUE(f->rateLimited->isDailyQuota);
    EXPECT_EQ(f->rateLimited->detail, "requests_per_day");
    EXPECT_EQ(f->error.code, "gemini_daily_quota");
    EXPECT_EQ(logs.back().title, "Gemini 当日配额已用完");

    HttpResponse broken;
    broken.status = 500;
    broken.body = "boom";
    f = Client::check(broken, "上传", onDebug);
    ASSERT_TRUE(f);
    EXPECT_FALSE(f->rateLimited);
    EXPECT_EQ(f->error.message, "OpenAI API 错误：Gemini 上传失败（HTTP 500）。");
    EXPECT_EQ(logs.back().code, "gemini_upload_failed");
    EXPECT_EQ(logs.back().details, "HTTP 500\nboom");
    Client::check(broken, "转写", onDebug);
    EXPECT_EQ(logs.back().code, "gemini_transcribe_failed");
    EXPECT_EQ(logs.back().title, "Gemini 转写失败");
}

TEST(GeminiWire, InteractionsAskForSpeakersAndAnswerTextWithSortedSpeakers) {
    GeminiRecognition r{{"zh-CN"}, {"東京"}};
    EXPECT_EQ(parsed(Client::interactionPayload("gemini-3.5-transcribe", "files/u", "audio/mp4", r, true)),
              parsed(R"({"model":"gemini-3.5-transcribe","input":[{"type":"audio","uri":"files/u","mime_type":"audio/mp4"}],
                 "generation_config":{"transcription_config":{"language_codes":["zh-CN"],"custom_vocabulary":["東京"],
                 "mode":{"type":"verbatim","diarization_mode":"speaker","timestamp_granularities":["word"]}}}})"));
    EXPECT_FALSE(parsed(Client::interactionPayload("m", "u", "t", {}, false))["generation_config"]["transcription_config"].contains("mode"));

    auto result = Client::readInteraction(R"({"steps":[{"content":[{"text":"你好","annotations":[{"speaker":"B"},{"speaker":"A"}]}]},
        {"content":[{"text":"。"},{"image":1}]},{"other":1}]})");
    ASSERT_TRUE(result) << result.error().message;
    EXPECT_EQ(result->text, "你好。");
    EXPECT_EQ(result->speakers, (std::vector<std::string>{"A", "B"}));
    EXPECT_EQ(Client::readInteraction(R"({"status":"failed","steps":[]})").error().message,
              "OpenAI API 错误：Gemini 转写没有返回文本（status: failed）。");
    EXPECT_EQ(Client::readInteraction(R"({})").error().message, "OpenAI API 错误：Gemini 转写没有返回文本（status: ?）。");
    EXPECT_EQ(Client::readInteraction("<html>").error().message, "OpenAI API 错误：Gemini 转写返回的不是 JSON。");
    EXPECT_EQ(Client::mimeType("a.M4A"), "audio/mp4");
    EXPECT_EQ(Client::mimeType("a.aif"), "audio/aiff");
    EXPECT_EQ(Client::mimeType("a.ogg"), "audio/mp4");
}

struct Live {
    FakeWebSocketTransport sockets;
    ScriptedHttpTransport http;
    ManualScheduler scheduler;
    Client client{sockets, http, scheduler, "http://127.0.0.1:9"};
    std::vector<GeminiLiveEvent> events;
    std::vector<OpenAIDebugLog> logs;
    std::optional<Expected<void>> started;

    void start(std::string key = "g-key", GeminiRecognition r = {}) {
        client.startLive(
            "gemini-3.5-transcribe-live", std::move(r), std::move(key),
            [this](const GeminiLiveEvent& e) { events.push_back(e); },
            [this](const OpenAIDebugLog& l) { logs.push_back(l); }, [this](Expected<void> x) { started = x; });
    }
    void connect() {
        start();
        sockets.last().accept();
        server(R"({"setupComplete":{}})");
        scheduler.runUntilIdle();
        ASSERT_TRUE(started && started->ok());
        logs.clear();
    }
    void server(const std::string& t) { sockets.last().text(t); }
    std::vector<std::string> codes() const {
        std::vector<std::string> out;
        for (const auto& l : logs) out.push_back(l.code.value_or("-"));
        return out;
    }
};

TEST(GeminiLive, SendsTheSetupAndStartsOnSetupComplete) {
    Live h;
    h.start(" g-key ", GeminiRecognition{{"ja-JP"}, {"東京", "大阪"}});
    ASSERT_EQ(h.sockets.requests.size(), 1u);
    EXPECT_EQ(h.sockets.requests[0].url,
              "ws://127.0.0.1:9/ws/google.ai.generativelanguage.v1beta.GenerativeService.BidiGenerateContent");
    EXPECT_EQ(h.sockets.requests[0].headers, (HeaderList{{"x-goog-api-key", "g-key"}}));
    EXPECT_EQ(h.sockets.requests[0].timeoutSeconds, 60.0);
    h.sockets.last().accept();
    ASSERT_EQ(h.sockets.last().sent.size(), 1u);
    EXPECT_EQ(parsed(h.sockets.last().sent[0])["setup"]["model"], "models/gemini-3.5-transcribe-live");
    h.sockets.last().binary(R"({"setupComplete":{}})");
    h.scheduler.runUntilIdle();
    ASSERT_TRUE(h.started && h.started->ok());
    ASSERT_EQ(h.logs.size(), 1u);
    EXPECT_EQ(h.logs[0].title, "Gemini 原文流已连接");
    EXPECT_EQ(h.logs[0].details, "model: gemini-3.5-transcribe-live\n语言: ja-JP\n术语表: 2 条");
    EXPECT_EQ(h.logs[0].code, "gemini_live_connected");
}

TEST(GeminiLive, ARefusedSetupFailsTheStartAndLeavesTheSocketToTheCaller) {
    Live notJSON;
    notJSON.start();
    notJSON.sockets.last().accept();
    notJSON.server("<html>");
    notJSON.scheduler.runUntilIdle();
    ASSERT_TRUE(notJSON.started && !notJSON.started->ok());
    EXPECT_EQ(notJSON.started->error().message, "OpenAI API 错误：Gemini 实时会话没有返回可解析的握手响应。");
    EXPECT_FALSE(notJSON.sockets.last().closeCode);
    EXPECT_TRUE(notJSON.client.hasLiveSocket());
    notJSON.client.closeLive();
    EXPECT_EQ(notJSON.sockets.last().closeCode, 1001);

    Live other;
    other.start();
    other.sockets.last().accept();
    other.server(R"({"error":{"message":"bad model"}})");
    other.scheduler.runUntilIdle();
    ASSERT_TRUE(other.started && !other.started->ok());
    EXPECT_EQ(other.started->error().message,
              R"(OpenAI API 错误：Gemini 实时会话未确认配置：{"error":{"message":"bad model"}})");

    Live keyless;
    keyless.start(" ");
    keyless.scheduler.runUntilIdle();
    EXPECT_EQ(keyless.started->error().message, "OpenAI API 错误：没有配置 Gemini API Key。");
    EXPECT_TRUE(keyless.sockets.requests.empty());
}

TEST(GeminiLive, AudioGoesAs16kBase64AndTheEndOfAudioIsOneMessage) {
    Live h;
    h.connect();
    h.sockets.last().sent.clear();
    ASSERT_TRUE(h.client.appendLivePCM16({1, 2, 3, 4}));
    ASSERT_TRUE(h.client.appendLivePCM16({}));
    ASSERT_TRUE(h.client.endLiveAudioStream());
    ASSERT_EQ(h.sockets.last().sent.size(), 2u);
    ASSERT_TRUE(h.client.sendAudio(std::vector<std::uint8_t>(1920, 0)));  // 40 ms at 24 kHz
    EXPECT_EQ(base64Decode(parsed(h.sockets.last().sent[2])["realtimeInput"]["audio"]["data"].get<std::string>())->size(),
              1280u);
    EXPECT_EQ(parsed(h.sockets.last().sent[0]),
              parsed(R"({"realtimeInput":{"audio":{"data":"AQIDBA==","mimeType":"audio/pcm;rate=16000"}}})"));
    EXPECT_EQ(parsed(h.sockets.last().sent[1]), parsed(R"({"realtimeInput":{"audioStreamEnd":true}})"));
}

TEST(GeminiLive, EventsFlowInterimReplacedByFinalAndUnknownShapesAreReportedOnceEach) {
    Live h;
    h.connect();
    h.server(R"({"serverContent":{"interimInputTranscription":{"text":"今日"}}})");
    h.server(R"({"serverContent":{"inputTranscription":{"text":"今日は"}}})");
    h.server(R"({"goAway":{"timeLeft":"50s"}})");
    h.server(R"({"usageMetadata":{"totalTokenCount":3}})");
    h.server(R"({"usageMetadata":{"totalTokenCount":4}})");
    h.server("garbage");
    h.server("garbage again");
    for (int i = 0; i < 10; ++i) h.server("{\"k" + std::to_string(i) + "\":1}");
    h.server(R"({"serverContent":{"turnComplete":true}})");
    EXPECT_EQ(h.events, (std::vector<GeminiLiveEvent>{ev(Kind::interim, "今日"), ev(Kind::final, "今日は"),
                                                      ev(Kind::goingAway, "", 50.0), ev(Kind::turnComplete)}));
    ASSERT_EQ(h.logs.size(), 8u);
    EXPECT_EQ(h.logs[0].details, "shape: usageMetadata.totalTokenCount\n{\"usageMetadata\":{\"totalTokenCount\":3}}");
    EXPECT_EQ(h.logs[0].code, "gemini_live_unknown_frame");
    EXPECT_EQ(h.logs[1].details, "shape: <undecodable>\ngarbage");
    EXPECT_EQ(h.client.liveShapeReport().find("usageMetadata.totalTokenCount ×2\n"), 0u);
}

TEST(GeminiLive, ALostSocketFailsWithTheFrameReportButAClosedOneIsSilent) {
    Live h;
    h.connect();
    h.server(R"({"serverContent":{"turnComplete":true}})");
    h.sockets.last().end(WebSocketEnd::Reason::failed, "Connection reset");
    EXPECT_EQ(h.events.back(), ev(Kind::failed, "Connection reset"));
    ASSERT_EQ(h.codes(), (std::vector<std::string>{"gemini_live_receive_failed"}));
    EXPECT_EQ(h.logs[0].details, "Connection reset\n本次帧统计：\nserverContent.turnComplete ×1");

    Live closed;
    closed.connect();
    closed.client.closeLive();
    EXPECT_EQ(closed.sockets.last().closeCode, 1001);
    EXPECT_TRUE(closed.client.appendLivePCM16({1, 2}));
    EXPECT_EQ(closed.sockets.last().sent.size(), 1u);  // the setup alone
    closed.sockets.last().end(WebSocketEnd::Reason::closedByUs, "Closed");
    closed.scheduler.runUntilIdle();
    EXPECT_TRUE(closed.events.empty());
    EXPECT_TRUE(closed.logs.empty());

    Live errored;
    errored.connect();
    errored.server(R"({"error":{"message":"RESOURCE_EXHAUSTED"}})");
    errored.server(R"({"serverContent":{"turnComplete":true}})");
    EXPECT_EQ(errored.events, (std::vector<GeminiLiveEvent>{ev(Kind::failed, "RESOURCE_EXHAUSTED")}));
}

struct Files {
    ScriptedHttpTransport http;
    FakeWebSocketTransport sockets;
    ManualScheduler scheduler;
    Client client{sockets, http, scheduler, "http://127.0.0.1:9"};
    std::vector<OpenAIDebugLog> logs;
    fs::path file = fs::temp_directory_path() / ("osv-gemini-" + Uuid::random().text() + ".wav");
    std::optional<GeminiOutcome<Client::Uploaded>> uploaded;

    Files() { std::ofstream(file, std::ios::binary) << "RIFFdata"; }
    ~Files() { fs::remove(file); }
    void upload() {
        client.upload(file, "g-key", [this](const OpenAIDebugLog& l) { logs.push_back(l); },
                      [this](GeminiOutcome<Client::Uploaded> o) { uploaded = std::move(o); });
        scheduler.runUntilIdle();
    }
};

TEST(GeminiFiles, UploadsTheRawBytesAndTakesAnActiveFileAtOnce) {
    Files h;
    h.upload();
    ASSERT_EQ(h.http.exchanges.size(), 1u);
    const HttpRequest& r = h.http.last();
    EXPECT_EQ(r.method, "POST");
    EXPECT_EQ(r.url, "http://127.0.0.1:9/upload/v1beta/files");
    EXPECT_EQ(r.body, "RIFFdata");
    EXPECT_EQ(r.headers, (HeaderList{{"x-goog-api-key", "g-key"},
                                     {"X-Goog-Upload-Protocol", "raw"},
                                     {"X-Goog-Upload-File-Name", h.file.filename().string()},
                                     {"Content-Type", "audio/wav"}}));
    h.http.reply(200, R"({"file":{"name":"files/abc","uri":"https://x/files/abc","state":"ACTIVE","mimeType":"audio/x-wav"}})");
    h.scheduler.runUntilIdle();
    ASSERT_TRUE(h.uploaded && h.uploaded->ok());
    EXPECT_EQ(*h.uploaded->value, (Client::Uploaded{"https://x/files/abc", "audio/x-wav"}));
    EXPECT_EQ(h.http.exchanges.size(), 1u);
    EXPECT_EQ(h.logs.back().details, "uri: https://x/files/abc\nstate: ACTIVE");

    Files stateless;
    stateless.upload();
    stateless.http.reply(200, R"({"uri":"u"})");
    ASSERT_TRUE(stateless.uploaded && stateless.uploaded->ok());
    EXPECT_EQ(stateless.uploaded->value->mimeType, "audio/wav");
}

TEST(GeminiFiles, AProcessingFileIsPolledEachSecondAndGivenUpAfterThirtyWaits) {
    Files h;
    h.upload();
    h.http.reply(200, R"({"file":{"name":"files/abc","uri":"u","state":"PROCESSING"}})");
    h.scheduler.advance(0.9);
    EXPECT_EQ(h.http.exchanges.size(), 1u);
    h.scheduler.advance(0.2);
    ASSERT_EQ(h.http.exchanges.size(), 2u);
    EXPECT_EQ(h.http.last().method, "GET");
    EXPECT_EQ(h.http.last().url, "http://127.0.0.1:9/v1beta/files/abc");
    h.http.reply(200, R"({"name":"files/abc","state":"ACTIVE"})");
    ASSERT_TRUE(h.uploaded && h.uploaded->ok());

    Files stuck;
    stuck.upload();
    stuck.http.reply(200, R"({"file":{"name":"files/abc","uri":"u","state":"PROCESSING"}})");
    for (int i = 0; i < 30; ++i) {
        stuck.scheduler.advance(1.0);
        stuck.http.reply(200, R"({"state":"PROCESSING"})");
    }
    ASSERT_TRUE(stuck.uploaded && !stuck.uploaded->ok());
    EXPECT_EQ(stuck.http.exchanges.size(), 31u);
    EXPECT_EQ(stuck.uploaded->failure.error.message, "OpenAI API 错误：Gemini 上传的音频 30 秒后仍未就绪（state: PROCESSING）。");
}

TEST(GeminiFiles, ARateLimitedTranscriptionCarriesItsParticulars) {
    Files h;
    std::optional<GeminiOutcome<Client::FileResult>> result;
    h.client.transcribe("gemini-3.5-transcribe", {"u", "audio/wav"}, {}, true, "g-key", {},
                        [&](GeminiOutcome<Client::FileResult> o) { result = std::move(o); });
    EXPECT_EQ(h.http.last().url, "http://127.0.0.1:9/v1beta/interactions");
    EXPECT_EQ(h.http.last().timeoutSeconds, 60.0);
    EXPECT_EQ(h.http.last().headers, (HeaderList{{"Content-Type", "application/json"}, {"x-goog-api-key", "g-key"}}));
    h.http.reply(429, "Please retry in 5s", {{"Retry-After", "x"}});
    ASSERT_TRUE(result && !result->ok());
    ASSERT_TRUE(result->failure.rateLimited);
    EXPECT_EQ(result->failure.rateLimited->retryAfter, 5.0);
    EXPECT_EQ(result->failure.error.message, "Please retry in 5s");
}

}  // namespace
}  // namespace osv
