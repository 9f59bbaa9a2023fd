#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "core/Json.h"
#include "core/ManualScheduler.h"
#include "core/Uuid.h"
#include "services/GoogleSpeechClient.h"
#include "services/JevClient.h"
#include "services/LocalModelTranscriptionClient.h"
#include "services/ModelLiveStatusClient.h"
#include "services/ScriptedHttpTransport.h"
#include "settings/TranslatorSettings.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using json::Json;
using testing::ScriptedHttpTransport;
using Tier = GoogleVoice::Tier;

Json parsed(const std::string& text) { return *json::parse(text); }

TEST(GoogleVoice, TiersByTheFirstMarkInTheNameAndLanguagesByPrefix) {
    auto tier = [](std::string name) { return GoogleVoice{std::move(name), "", {}}.tier(); };
    EXPECT_EQ(tier("ja-JP-Neural2-B"), Tier::neural2);
    EXPECT_EQ(tier("cmn-CN-Chirp3-HD-Aoede"), Tier::chirp3HD);
    EXPECT_EQ(tier("en-US-Chirp-HD-F"), Tier::chirpHD);
    EXPECT_EQ(tier("en-US-Studio-O"), Tier::studio);
    EXPECT_EQ(tier("cmn-CN-Wavenet-A"), Tier::wavenet);
    EXPECT_EQ(tier("ja-JP-Standard-A"), Tier::standard);
    EXPECT_EQ(rawValue(Tier::chirp3HD), "chirp3-hd");
    const GoogleVoice v{"x", "FEMALE", {"cmn-CN", "en-US"}};
    EXPECT_TRUE(v.speaks(SpeechLanguage::chinese));
    EXPECT_FALSE(v.speaks(SpeechLanguage::japanese));
    EXPECT_FALSE((GoogleVoice{"y", "", {"zh-CN"}}.speaks(SpeechLanguage::chinese)));
}

struct Google {
    ScriptedHttpTransport http;
    ManualScheduler scheduler;
    GoogleSpeechClient client{http, scheduler, "http://127.0.0.1:9"};
    TranslatorSettings settings;
    std::vector<OpenAIDebugLog> logs;
    Google() { settings.googleAPIKey = " gk "; }
    GoogleSpeechClient::DebugHandler onDebug() {
        return [this](const OpenAIDebugLog& l) { logs.push_back(l); };
    }
};

TEST(GoogleSpeechClient, ListsNamedVoicesAndReportsTheErrorEnvelope) {
    Google h;
    std::optional<Expected<std::vector<GoogleVoice>>> voices;
    h.client.allVoices(h.settings, h.onDebug(), [&](auto r) { voices = std::move(r); });
    EXPECT_EQ(h.http.last().url, "http://127.0.0.1:9/v1/voices");
    EXPECT_EQ(h.http.last().headers, (HeaderList{{"X-Goog-Api-Key", "gk"}}));
    h.http.reply(200, R"({"voices":[{"name":"ja-JP-Neural2-B","ssmlGender":"MALE","languageCodes":["ja-JP"]},
                                    {"ssmlGender":"FEMALE"},{"name":"cmn-CN-Wavenet-A"}]})");
    ASSERT_TRUE(voices && voices->ok());
    EXPECT_EQ(**voices, (std::vector<GoogleVoice>{{"ja-JP-Neural2-B", "MALE", {"ja-JP"}}, {"cmn-CN-Wavenet-A", "", {}}}));

    h.client.allVoices(h.settings, h.onDebug(), [&](auto r) { voices = std::move(r); });
    h.http.reply(403, R"({"error":{"code":403,"message":"API key not valid.","status":"PERMISSION_DENIED"}})");
    ASSERT_FALSE(voices->ok());
    EXPECT_EQ(voices->error().message, "OpenAI API 错误：取不到 Google 音色列表（API key not valid.）。");
    EXPECT_EQ(h.logs.back().code, "google_voices_failed");
    EXPECT_EQ(h.logs.back().details.substr(0, 12), "status: 403\n");

    h.settings.googleAPIKey = "";
    h.client.allVoices(h.settings, h.onDebug(), [&](auto r) { voices = std::move(r); });
    h.scheduler.runUntilIdle();
    EXPECT_EQ(voices->error().message, "OpenAI API 错误：没有配置 Google API Key。");
    EXPECT_EQ(h.http.exchanges.size(), 2u);
}

TEST(GoogleSpeechClient, SpeaksInTheSettingsVoiceAndDecodesTheAudio) {
    Google h;
    h.settings.speechRate = 1.25;
    std::optional<Expected<std::vector<std::uint8_t>>> audio;
    h.client.speak("你好", SpeechLanguage::chinese, h.settings, h.onDebug(), [&](auto x) { audio = std::move(x); });
    const HttpRequest& r = h.http.last();
    EXPECT_EQ(r.url, "http://127.0.0.1:9/v1/text:synthesize");
    EXPECT_EQ(r.method, "POST");
    EXPECT_EQ(r.timeoutSeconds, 60.0);
    EXPECT_EQ(parsed(r.body), parsed(R"({"input":{"text":"你好"},"voice":{"languageCode":"cmn-CN","name":"cmn-CN-Wavenet-A"},
                                         "audioConfig":{"audioEncoding":"MP3","speakingRate":1.25}})"));
    EXPECT_EQ(h.logs.back().details, "language: cmn-CN\nvoice: cmn-CN-Wavenet-A\nrate: 1.25\nchars: 2");
    h.http.reply(200, R"({"audioContent":"SUQz"})");
    ASSERT_TRUE(audio && audio->ok());
    EXPECT_EQ(**audio, (std::vector<std::uint8_t>{'I', 'D', '3'}));

    h.client.speak("x", SpeechLanguage::japanese, h.settings, h.onDebug(), [&](auto x) { audio = std::move(x); });
    EXPECT_EQ(parsed(h.http.last().body)["voice"]["name"], "ja-JP-Neural2-B");
    h.http.reply(200, R"({"audioContent":"!!!"})");
    EXPECT_EQ(audio->error().message, "OpenAI API 错误：Google 语音返回的内容无法解码。");

    h.client.speak("x", SpeechLanguage::japanese, h.settings, h.onDebug(), [&](auto x) { audio = std::move(x); });
    h.http.reply(500, "");
    EXPECT_EQ(audio->error().message, "OpenAI API 错误：Google 语音合成失败（（没有返回内容））。");
    EXPECT_EQ(h.logs.back().code, "google_speech_failed");
}

struct Jev {
    ScriptedHttpTransport http;
    ManualScheduler scheduler;
    JevClient client{http, scheduler, "http://127.0.0.1:9"};
    std::vector<OpenAIDebugLog> logs;
    std::optional<Expected<JevClient::Probabilities>> result;
    std::vector<JevClient::Question> questions{{"finished", "The speaker finished a question.", "done", "not yet"},
                                               {"asked", "It was a question.", "yes", "no"}};
    void ask(std::string key = "jk") {
        client.probabilities("A: 你好吗？", questions, std::move(key),
                             [this](const OpenAIDebugLog& l) { logs.push_back(l); },
                             [this](Expected<JevClient::Probabilities> r) { result = std::move(r); });
        scheduler.runUntilIdle();
    }
};

TEST(JevClient, AsksEveryQuestionAtOnceWithAShortTimeout) {
    Jev h;
    h.ask();
    const HttpRequest& r = h.http.last();
    EXPECT_EQ(r.url, "http://127.0.0.1:9/v1/systemone");
    EXPECT_EQ(r.timeoutSeconds, 2.0);
    EXPECT_EQ(r.headers, (HeaderList{{"Authorization", "Bearer jk"}, {"Content-Type", "application/json"}}));
    EXPECT_EQ(parsed(r.body), parsed(R"({"model":"jev-latest","state":"A: 你好吗？","questions":{
        "finished":{"type":"noul","instructions":"The speaker finished a question.","criteria":{"true":"done","false":"not yet"}},
        "asked":{"type":"noul","instructions":"It was a question.","criteria":{"true":"yes","false":"no"}}}})"));
    h.http.reply(200, R"({"answers":{"finished":{"noul":0.8},"asked":{"noul":1}}})");
    ASSERT_TRUE(h.result && h.result->ok());
    EXPECT_EQ(**h.result, (JevClient::Probabilities{{"finished", 0.8}, {"asked", 1.0}}));

    Jev keyless;
    keyless.ask(" ");
    ASSERT_TRUE(keyless.result && keyless.result->ok());
    EXPECT_TRUE((*keyless.result)->empty());
    EXPECT_TRUE(keyless.http.exchanges.empty());
}

TEST(JevClient, OneMissingAnswerARefusalOrATimeoutFailsTheWholeCall) {
    Jev missing;
    missing.ask();
    missing.http.reply(200, R"({"answers":{"finished":{"noul":0.8},"asked":{"noul":"yes"}}})");
    ASSERT_FALSE(missing.result->ok());
    EXPECT_EQ(missing.result->error().message, "Jev 没有回答「asked」，或者它不是一个 noul 答案。");
    EXPECT_EQ(missing.logs.back().code, "jev_unreadable_answer");

    Jev refused;
    refused.ask();
    refused.http.reply(401, std::string(600, 'x'));
    EXPECT_EQ(refused.result->error().message, "HTTP 401");
    EXPECT_EQ(refused.logs.back().code, "jev_http 401");
    EXPECT_EQ(refused.logs.back().details, std::string(500, 'x') + "…（共 600 字，已截断）");

    Jev late;
    late.ask();
    late.http.fail("http_timeout", "The request timed out.");
    EXPECT_EQ(late.result->error().code, "http_timeout");

    EXPECT_EQ(JevClient::readable("\xff\xfe"), "2 bytes, not UTF-8");
    EXPECT_EQ(JevClient::probabilitiesFrom("{}", {}).error().message, "Jev 返回的内容里没有 answers。");
}

struct Local {
    ScriptedHttpTransport http;
    ManualScheduler scheduler;
    LocalModelTranscriptionClient client{http, scheduler, "http://127.0.0.1:18082"};
    fs::path file = fs::temp_directory_path() / ("osv-local-" + Uuid::random().text() + ".m4a");
    std::optional<Expected<LocalTranscription>> result;
    ~Local() { fs::remove(file); }
    void transcribe(std::size_t bytes) {
        std::ofstream(file, std::ios::binary) << std::string(bytes, 'a');
        client.transcribe(file, RecognitionLanguage::japanese, 30, [this](auto r) { result = std::move(r); });
        scheduler.runUntilIdle();
    }
};

TEST(LocalModelTranscriptionClient, PostsTheFileAsMultipartAndReadsTheModelHeaders) {
    Local h;
    h.transcribe(10);
    ASSERT_EQ(h.http.exchanges.size(), 1u);
    const HttpRequest& r = h.http.last();
    EXPECT_EQ(r.url, "http://127.0.0.1:18082/v1/audio/transcriptions");
    EXPECT_EQ(r.timeoutSeconds, 30.0);
    ASSERT_EQ(r.headers.size(), 2u);
    const std::string contentType = r.headers[0].second;
    ASSERT_EQ(contentType.rfind("multipart/form-data; boundary=ModelLive-", 0), 0u);
    const std::string boundary = contentType.substr(contentType.find('=') + 1);
    EXPECT_EQ(boundary.size(), 10u + 36u);
    EXPECT_EQ(r.headers[1], (std::pair<std::string, std::string>{"X-Model-Live", "ossevra"}));
    EXPECT_EQ(r.body, "--" + boundary + "\r\nContent-Disposition: form-data; name=\"model\"\r\n\r\nactive\r\n--" + boundary +
                          "\r\nContent-Disposition: form-data; name=\"language\"\r\n\r\nJapanese\r\n--" + boundary +
                          "\r\nContent-Disposition: form-data; name=\"response_format\"\r\n\r\njson\r\n--" + boundary +
                          "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"audio.m4a\"\r\nContent-Type: "
                          "audio/mp4\r\n\r\naaaaaaaaaa\r\n--" + boundary + "--\r\n");
    h.http.reply(200, R"({"text":"こんにちは"})", {{"x-model-live-model", "sensevoice"}, {"X-Model-Live-Revision", "3"}});
    ASSERT_TRUE(h.result && h.result->ok());
    EXPECT_EQ(**h.result, (LocalTranscription{"こんにちは", "sensevoice", "3"}));
}

TEST(LocalModelTranscriptionClient, TooLargeAudioNeverReachesTheNetworkAndFailuresHaveTheirTexts) {
    Local big;
    big.transcribe(20'100'000);
    EXPECT_TRUE(big.http.exchanges.empty());
    EXPECT_EQ(big.result->error().message, "本地模型单次最多接收 20 MB 音频");

    Local status;
    status.transcribe(5);
    status.http.reply(503, "");
    EXPECT_EQ(status.result->error().message, "本地模型返回 HTTP 503");
    Local silent;
    silent.transcribe(5);
    silent.http.fail("http_failed", "Connection refused");
    EXPECT_EQ(silent.result->error().message, "本地模型没有返回 HTTP 响应");
    EXPECT_EQ(LocalModelTranscriptionClient::mimeType("WAV"), "audio/wav");
    EXPECT_EQ(LocalModelTranscriptionClient::mimeType("flac"), "application/octet-stream");
}

TEST(ModelLiveStatusClient, ReadsTheStateForgivingly) {
    ScriptedHttpTransport http;
    ManualScheduler scheduler;
    ModelLiveStatusClient client(http, scheduler, "http://127.0.0.1:18082");
    EXPECT_EQ(client.consoleURL(), "http://127.0.0.1:18082/");
    std::optional<Expected<ModelLiveStatus>> status;
    client.fetch([&](auto r) { status = std::move(r); });
    EXPECT_EQ(http.last().url, "http://127.0.0.1:18082/api/state");
    EXPECT_EQ(http.last().timeoutSeconds, 3.0);
    http.reply(200, R"({"services":{"audio":true},"profiles":{"active":{"audio":"sensevoice","bad":1}}})");
    ASSERT_TRUE(status && status->ok());
    EXPECT_TRUE((*status)->audio);
    EXPECT_EQ((*status)->activeProfiles, (std::map<std::string, std::string>{{"audio", "sensevoice"}}));
    EXPECT_EQ(ModelLiveStatus::decode(R"({"services":"x"})"), ModelLiveStatus{});
    EXPECT_EQ(ModelLiveStatus::decode("[]"), std::nullopt);
}

}  // namespace
}  // namespace osv

namespace osv {
namespace {

// The local model is a fallback only under "onCloudFailure"; anything else stored is off.
TEST(LocalASRPolicy, ReadsItsStoredNameAndTakesAnythingElseAsDisabled) {
    const fs::path support = fs::temp_directory_path() / ("osv-asr-" + Uuid::random().text());
    SecretStore secrets(nullptr, support);
    for (const auto& [stored, expected] : std::vector<std::pair<std::optional<std::string>, osv::LocalASRPolicy>>{
             {"onCloudFailure", osv::LocalASRPolicy::onCloudFailure},
             {"disabled", osv::LocalASRPolicy::disabled},
             {"sometimes", osv::LocalASRPolicy::disabled},
             {std::nullopt, osv::LocalASRPolicy::disabled}}) {
        MemoryUserDefaults defaults;
        if (stored) defaults.set("local_asr_policy", *stored);
        SettingsStore store(defaults, secrets);
        TranslatorSettings settings = store.load(std::nullopt);
        EXPECT_EQ(settings.localASRPolicy, expected) << stored.value_or("(absent)");
        store.save(settings);
        EXPECT_EQ(defaults.string("local_asr_policy"), std::string(rawValue(expected)));
    }
    fs::remove_all(support);
}

}  // namespace
}  // namespace osv
