// ossevra-cli source probe, transcribe, voices and speak, run as a program against the fake
// server, checking what the fake received.

#include <gtest/gtest.h>

#include <QProcess>
#include <QElapsedTimer>
#include <QProcessEnvironment>

#include <cmath>
#include <fstream>

#include "LoopbackServers.h"
#include "audio/PCM16WavWriter.h"
#include "audio/PCM16Resampler.h"
#include "audio/RealtimePCMEncoder.h"
#include "core/Base64.h"
#include "platform/ffmpeg/AudioFileDecoder.h"
#include "services/OpenAIRealtimeTranscriptionClient.h"
#include "settings/TranslatorSettings.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using json::Json;
using testing::FakeRealtimeServer;

struct CliRun {
    int status = -1;
    std::vector<std::string> lines;
    std::string err;
    std::vector<Json> json() const {
        std::vector<Json> out;
        for (const auto& l : lines) out.push_back(json::parse(l).value_or(Json("unparsable: " + l)));
        return out;
    }
    // The event lines, without the debug records.
    std::vector<Json> events() const {
        std::vector<Json> out;
        for (auto& j : json())
            if (j.contains("event")) out.push_back(j);
        return out;
    }
};

std::string scenario(const std::string& name) {
    std::ifstream in(fs::path(OSV_SOURCE_DIR) / "tools" / "fake-realtime" / "scenarios" / name);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The OpenAI audio scenario, its clip named by an absolute path: the fake reads the
// scenario from a folder of its own.
std::string openAIAudioScenario() {
    std::string text = scenario("openai-audio.jsonl");
    const std::string clip = (fs::path(OSV_SOURCE_DIR) / "tools" / "fake-realtime" / "scenarios" / "clip.wav").string();
    text.replace(text.find("\"clip.wav\""), 10, "\"" + clip + "\"");
    return text;
}

std::vector<Json> recorded(const FakeRealtimeServer& server, const std::string& event) {
    std::vector<Json> out;
    for (auto& l : server.record())
        if (l.value("event", "") == event) out.push_back(l);
    return out;
}

std::string recordText(const FakeRealtimeServer& server) {
    std::ifstream in(server.recordPath());
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class SpeechCli : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(home); }
    void TearDown() override { fs::remove_all(home); }

    CliRun cli(const QStringList& args, const std::map<std::string, std::string>& extraEnv = {},
               const std::string& input = {}) {
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", QString::fromStdString(home.string()));
        env.insert("XDG_CONFIG_HOME", QString::fromStdString((home / "config").string()));
        env.insert("XDG_DATA_HOME", QString::fromStdString((home / "data").string()));
        env.insert("OSV_SUPPORT_DIR", QString::fromStdString((home / "support").string()));
        env.insert("OSV_TEST_RUN", "1");
        env.insert("OPENAI_API_KEY", "sk-fake");
        for (const auto& [k, v] : extraEnv) env.insert(QString::fromStdString(k), QString::fromStdString(v));
        p.setProcessEnvironment(env);
        p.start(OSV_CLI, args);
        p.write(QByteArray::fromStdString(input));
        p.closeWriteChannel();
        CliRun run;
        if (!p.waitForFinished(60'000)) {
            p.kill();
            return run;
        }
        run.status = p.exitCode();
        run.err = p.readAllStandardError().toStdString();
        for (const QByteArray& line : p.readAllStandardOutput().split('\n'))
            if (!line.isEmpty()) run.lines.push_back(line.toStdString());
        return run;
    }
    void storeKey(const std::string& vendor, const std::string& key) {
        ASSERT_EQ(cli({"keys", "set", QString::fromStdString(vendor)}, {}, key + "\n").status, 0);
    }
    static std::map<std::string, std::string> at(const FakeRealtimeServer& server) {
        const std::string host = "http://127.0.0.1:" + std::to_string(server.port());
        return {{"OSV_OPENAI_BASE_URL", host + "/v1"},
                {"OSV_GEMINI_BASE_URL", host},
                {"OSV_GOOGLE_TTS_BASE_URL", host},
                {"OSV_LOCAL_MODEL_URL", host}};
    }

    // A 24 kHz mono WAV of tones and silences, each given in seconds (positive: a tone).
    fs::path wav(std::initializer_list<double> parts, const std::string& name = "speech.wav") {
        PCMBytes pcm;
        for (double part : parts) {
            const int frames = int(24'000 * std::fabs(part));
            for (int i = 0; i < frames; ++i) {
                const auto s = part > 0 ? std::int16_t(std::lround(9000 * std::sin(2 * M_PI * 300 * i / 24'000))) : 0;
                pcm.push_back(std::uint8_t(s & 0xff));
                pcm.push_back(std::uint8_t((s >> 8) & 0xff));
            }
        }
        const PCMBytes file = PCM16WavWriter::data(pcm, 24'000, 1);
        const fs::path path = home / name;
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(file.data()), std::streamsize(file.size()));
        return path;
    }

    fs::path home = fs::temp_directory_path() / ("osv-speech-cli-" + Uuid::random().text());
};

Json j(const char* text) { return *json::parse(text); }

TEST_F(SpeechCli, SourceProbeOpenAICommitsItsOwnTurnsAndPutsOutOfOrderTranscriptsInSpokenOrder) {
    FakeRealtimeServer server(scenario("transcription.jsonl"));
    ASSERT_GT(server.port(), 0);
    const fs::path audio = wav({0.5, -0.8, 0.5, -0.8});
    const CliRun run = cli({"source", "probe", "--audio", QString::fromStdString(audio.string()), "--vendor", "openai",
                            "--language", "japanese", "--speed", "max"},
                           at(server));
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.events(), (std::vector<Json>{j(R"({"event":"delta","text":"今日わ"})"),
                                               j(R"({"event":"revised","previous":"今日わ","text":"今日はいい天気ですね。"})"),
                                               j(R"({"event":"turnEnded"})"),
                                               j(R"({"event":"delta","text":"散歩に行きましょう。"})"),
                                               j(R"({"event":"turnEnded"})")}));
    EXPECT_EQ(run.json().front()["debug"]["title"], "连接实时原文");

    ASSERT_TRUE(testing::waitFor([&] { return server.hasClosedLine(); }));
    const auto connects = recorded(server, "connect");
    ASSERT_EQ(connects.size(), 1u);
    EXPECT_EQ(connects[0]["path"], "/v1/realtime");
    EXPECT_EQ(connects[0]["query"], "intent=transcription");
    EXPECT_EQ(connects[0]["authorization"], "ok");
    std::vector<std::string> types;
    PCMBytes sent;
    std::vector<Json> messages;
    for (auto& m : recorded(server, "message")) {
        messages.push_back(m["message"]);
        types.push_back(m["message"]["type"].get<std::string>());
        if (types.back() == "input_audio_buffer.append") {
            const auto bytes = base64Decode(m["message"]["audio"].get<std::string>()).value();
            sent.insert(sent.end(), bytes.begin(), bytes.end());
        }
    }
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages[0], *json::parse(OpenAIRealtimeTranscriptionClient::configuration(
                               "gpt-transcribe", RecognitionLanguage::japanese, "")));
    EXPECT_EQ(std::count(types.begin(), types.end(), "input_audio_buffer.commit"), 2);
    EXPECT_EQ(std::count(types.begin(), types.end(), "input_audio_buffer.append"), 65);  // 2.6 s in 40 ms chunks
    EXPECT_EQ(sent, decodePCM16Mono24k(audio).value());  // 24 kHz, as decoded
    const auto closed = recorded(server, "closed");
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_EQ(closed[0]["code"], 1000);
    EXPECT_EQ(recordText(server).find("sk-fake"), std::string::npos);
}

TEST_F(SpeechCli, SourceProbeOpenAIGivesUpWhenTheConfigurationIsNeverConfirmed) {
    FakeRealtimeServer server("# never confirms\n");
    QElapsedTimer clock;
    clock.start();
    const CliRun run = cli({"source", "probe", "--audio", QString::fromStdString(wav({0.2}).string())}, at(server));
    EXPECT_EQ(run.status, 1);
    EXPECT_GE(clock.elapsed(), 7'900);
    EXPECT_NE(run.err.find("ossevra-cli: OpenAI API 错误：实时原文连接超时"), std::string::npos) << run.err;
    ASSERT_TRUE(testing::waitFor([&] { return server.hasClosedLine(); }));
    EXPECT_EQ(recorded(server, "closed").at(0)["code"], 1001);
}

TEST_F(SpeechCli, SourceProbeOpenAIEndsWithTheServersErrorAndExitsOne) {
    FakeRealtimeServer server(scenario("transcription-errors.jsonl"));
    const CliRun run = cli({"source", "probe", "--audio", QString::fromStdString(wav({0.5, -0.8}).string()),
                            "--speed", "max"},
                           at(server));
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_EQ(run.events(), (std::vector<Json>{j(R"({"event":"failed","message":"OpenAI API 错误：Audio format not supported"})")}));
}

TEST_F(SpeechCli, SourceProbeGeminiSendsTheSetupAnd16kAudioAndPrintsEveryKindOfEvent) {
    storeKey("gemini", "g-fake");
    FakeRealtimeServer server(scenario("gemini-live.jsonl"), "g-fake");
    const fs::path audio = wav({0.4});
    const CliRun run = cli({"source", "probe", "--audio", QString::fromStdString(audio.string()), "--vendor", "gemini",
                            "--language", "auto", "--speed", "max"},
                           at(server));
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.events(), (std::vector<Json>{j(R"({"event":"speechStarted","offset":"0.04s"})"),
                                               j(R"({"event":"interim","text":"今日は"})"),
                                               j(R"({"event":"final","text":"今日はいい天気ですね。"})"),
                                               j(R"({"event":"speechEnded","offset":"0.4s"})"),
                                               j(R"({"event":"turnComplete"})"),
                                               j(R"({"event":"goingAway","timeLeft":30.0})")}));
    std::vector<std::string> codes;
    for (auto& l : run.json())
        if (l.contains("debug")) codes.push_back(l["debug"]["code"].get<std::string>());
    EXPECT_EQ(codes, (std::vector<std::string>{"gemini_live_connected", "gemini_live_unknown_frame"}));

    ASSERT_TRUE(testing::waitFor([&] { return server.hasClosedLine(); }));
    const auto connects = recorded(server, "connect");
    ASSERT_EQ(connects.size(), 1u);
    EXPECT_EQ(connects[0]["path"], "/ws/google.ai.generativelanguage.v1beta.GenerativeService.BidiGenerateContent");
    EXPECT_EQ(connects[0]["authorization"], "ok");
    const auto messages = recorded(server, "message");
    ASSERT_EQ(messages.size(), 12u);  // setup, ten chunks, the end of audio
    EXPECT_EQ(messages[0]["message"], j(R"({"setup":{"model":"models/gemini-3.5-transcribe-live",
        "generationConfig":{"responseModalities":["TEXT"]},"inputAudioTranscription":{}}})"));
    PCMBytes sent, expected;
    const PCMBytes pcm24 = decodePCM16Mono24k(audio).value();
    for (std::size_t at = 0; at < pcm24.size(); at += 1920) {
        const auto part = PCM16Resampler::to16kFrom24k(PCMBytes(pcm24.begin() + std::ptrdiff_t(at),
                                                                pcm24.begin() + std::ptrdiff_t(std::min(at + 1920, pcm24.size()))));
        expected.insert(expected.end(), part.begin(), part.end());
    }
    for (std::size_t i = 1; i + 1 < messages.size(); ++i) {
        const Json& a = messages[i]["message"]["realtimeInput"]["audio"];
        EXPECT_EQ(a["mimeType"], "audio/pcm;rate=16000");
        const auto bytes = base64Decode(a["data"].get<std::string>()).value();
        sent.insert(sent.end(), bytes.begin(), bytes.end());
    }
    EXPECT_EQ(sent.size(), 12'800u);  // two thirds of 0.4 s at 24 kHz
    EXPECT_EQ(sent, expected);
    EXPECT_EQ(messages.back()["message"], j(R"({"realtimeInput":{"audioStreamEnd":true}})"));
    EXPECT_EQ(recorded(server, "closed").at(0)["code"], 1001);
    EXPECT_EQ(recordText(server).find("g-fake"), std::string::npos);
}

TEST_F(SpeechCli, SourceProbeGeminiSurvivesBadFramesUntilTheConnectionDrops) {
    storeKey("gemini", "g-fake");
    FakeRealtimeServer server(scenario("gemini-failures.jsonl"), "g-fake");
    const CliRun run = cli({"source", "probe", "--audio", QString::fromStdString(wav({0.4}).string()), "--vendor",
                            "gemini", "--speed", "1"},
                           at(server));
    EXPECT_EQ(run.status, 1) << run.err;
    const auto events = run.events();
    ASSERT_EQ(events.size(), 3u) << run.err;
    EXPECT_EQ(events[0]["event"], "interim");
    EXPECT_EQ(events[0]["text"], "大きい");
    EXPECT_EQ(events[1], j(R"({"event":"goingAway","timeLeft":null})"));
    EXPECT_EQ(events[2]["event"], "failed");
    bool undecodable = false;
    for (auto& l : run.json())
        if (l.contains("debug") && l["debug"]["details"].get<std::string>().rfind("shape: <undecodable>\n<html>", 0) == 0)
            undecodable = true;
    EXPECT_TRUE(undecodable);

    FakeRealtimeServer refusing(R"({"path": "/ws/*", "on": "setup", "send": {"error": {"message": "bad model"}}})", "g-fake");
    const CliRun refused = cli({"source", "probe", "--audio", QString::fromStdString(wav({0.2}).string()), "--vendor",
                                "gemini", "--model", "gemini-x-live"},
                               at(refusing));
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("Gemini 实时会话未确认配置：{\"error\":{\"message\":\"bad model\"}}"), std::string::npos)
        << refused.err;
    ASSERT_TRUE(testing::waitFor([&] { return refusing.hasClosedLine(); }));
    EXPECT_EQ(recorded(refusing, "message").at(0)["message"]["setup"]["model"], "models/gemini-x-live");
}

TEST_F(SpeechCli, TranscribeGeminiUploadsWaitsForTheFileAndPrintsTheSpeakers) {
    storeKey("gemini", "g-fake");
    FakeRealtimeServer server(scenario("gemini-files.jsonl"), "g-fake");
    const fs::path audio = wav({0.3});
    const CliRun run = cli({"transcribe", QString::fromStdString(audio.string()), "--vendor", "gemini", "--language",
                            "japanese", "--json"},
                           at(server));
    ASSERT_EQ(run.status, 0) << run.err;
    ASSERT_EQ(run.lines.size(), 1u);
    EXPECT_EQ(run.json()[0], j(R"({"vendor":"gemini","model":"gemini-3.5-transcribe",
        "text":"今日はいい天気ですね。散歩に行きましょう。","speakers":["speaker_1","speaker_2"]})"));

    const auto requests = recorded(server, "http");
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[0]["path"], "/upload/v1beta/files");
    EXPECT_EQ(requests[0]["authorization"], "ok");
    EXPECT_EQ(requests[0]["headers"]["x-goog-upload-protocol"], "raw");
    EXPECT_EQ(requests[0]["headers"]["x-goog-upload-file-name"], "speech.wav");
    EXPECT_EQ(requests[0]["headers"]["content-type"], "audio/wav");
    EXPECT_EQ(requests[0]["bytes"], fs::file_size(audio));
    EXPECT_EQ(requests[1]["method"], "GET");
    EXPECT_EQ(requests[1]["path"], "/v1beta/files/abc123");
    EXPECT_EQ(requests[2]["path"], "/v1beta/files/abc123");
    EXPECT_GE(requests[2]["ms"].get<int>() - requests[1]["ms"].get<int>(), 950);  // one second between polls
    EXPECT_EQ(requests[3]["json"], j(R"({"model":"gemini-3.5-transcribe","input":[{"type":"audio",
        "uri":"https://generativelanguage.googleapis.com/v1beta/files/abc123","mime_type":"audio/wav"}],
        "generation_config":{"transcription_config":{"language_codes":["ja-JP"],
        "mode":{"type":"verbatim","diarization_mode":"speaker","timestamp_granularities":["word"]}}}})"));
    EXPECT_EQ(recordText(server).find("g-fake"), std::string::npos);
}

TEST_F(SpeechCli, TranscribeGeminiReportsRateLimitsWithTheirRetryTimes) {
    storeKey("gemini", "g-fake");
    FakeRealtimeServer server(scenario("gemini-rate-limits.jsonl"), "g-fake");
    const QString audio = QString::fromStdString(wav({0.2}).string());
    const CliRun limited = cli({"transcribe", audio, "--vendor", "gemini"}, at(server));
    EXPECT_EQ(limited.status, 1);
    EXPECT_NE(limited.err.find("rate limited, retry after 17 s"), std::string::npos) << limited.err;
    const CliRun daily = cli({"transcribe", audio, "--vendor", "gemini"}, at(server));
    EXPECT_EQ(daily.status, 1);
    EXPECT_NE(daily.err.find("ossevra-cli: generativelanguage.googleapis.com/generate_requests_per_model_per_day, limit: 50\n"),
              std::string::npos)
        << daily.err;
    EXPECT_NE(daily.err.find("rate limited (daily quota), retry after 33.8 s"), std::string::npos) << daily.err;
    EXPECT_NE(daily.err.find("\"code\":\"gemini_daily_quota\""), std::string::npos);
    const CliRun broken = cli({"transcribe", audio, "--vendor", "gemini"}, at(server));
    EXPECT_NE(broken.err.find("Gemini 转写失败（HTTP 500）。"), std::string::npos) << broken.err;
}

TEST_F(SpeechCli, TranscribeLocalSendsTheMultipartFormAndNamesTheModel) {
    FakeRealtimeServer server(scenario("local-model.jsonl"));
    const fs::path audio = wav({0.3});
    const CliRun run = cli({"transcribe", QString::fromStdString(audio.string()), "--vendor", "local", "--language",
                            "japanese", "--json"},
                           at(server));
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.json().at(0), j(R"({"vendor":"local","text":"こんにちは、ローカルです。","model":"sensevoice-small","revision":"2026.10"})"));
    const auto requests = recorded(server, "http");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0]["headers"]["x-model-live"], "ossevra");
    EXPECT_EQ(requests[0]["headers"]["content-type"].get<std::string>().rfind("multipart/form-data; boundary=ModelLive-", 0), 0u);
    EXPECT_EQ(requests[0]["multipart"], j((R"([{"name":"model","size":6,"value":"active"},{"name":"language","size":8,"value":"Japanese"},
        {"name":"response_format","size":4,"value":"json"},{"name":"file","filename":"audio.wav","content_type":"audio/wav","size":)" +
                                          std::to_string(fs::file_size(audio)) + "}]")
                                             .c_str()));

    const CliRun refused = cli({"transcribe", QString::fromStdString(audio.string()), "--vendor", "local", "--language",
                                "chinese"},
                               at(server));
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("本地模型返回 HTTP 413"), std::string::npos) << refused.err;
}

TEST_F(SpeechCli, TranscribeOpenAIPostsTheFileToTheAudioEndpoint) {
    FakeRealtimeServer server(openAIAudioScenario());
    const fs::path audio = wav({0.3});
    const CliRun run = cli({"transcribe", QString::fromStdString(audio.string()), "--language", "chinese"}, at(server));
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.lines, (std::vector<std::string>{"今日はいい天気ですね。"}));
    const auto requests = recorded(server, "http");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0]["authorization"], "ok");
    EXPECT_EQ(requests[0]["multipart"][0]["value"], "gpt-4o-mini-transcribe");
    EXPECT_EQ(requests[0]["multipart"][2], j(R"({"name":"language","size":2,"value":"zh"})"));
    EXPECT_EQ(requests[0]["multipart"][3]["filename"], "speech.wav");
}

TEST_F(SpeechCli, VoicesListsGoogleVoicesWithTiersAndOpenAIVoices) {
    storeKey("google", "gk-fake");
    FakeRealtimeServer server(scenario("google-tts.jsonl"), "gk-fake");
    const CliRun run = cli({"voices", "--vendor", "google", "--json"}, at(server));
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.json().at(0), j(R"([{"name":"ja-JP-Neural2-B","gender":"FEMALE","tier":"neural2","languageCodes":["ja-JP"]},
        {"name":"cmn-CN-Wavenet-A","gender":"FEMALE","tier":"wavenet","languageCodes":["cmn-CN"]},
        {"name":"cmn-CN-Chirp3-HD-Aoede","gender":"FEMALE","tier":"chirp3-hd","languageCodes":["cmn-CN"]}])"));
    const auto requests = recorded(server, "http");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0]["path"], "/v1/voices");
    EXPECT_EQ(requests[0]["authorization"], "ok");
    EXPECT_EQ(recordText(server).find("gk-fake"), std::string::npos);

    const CliRun plain = cli({"voices", "--vendor", "google"}, at(server));
    EXPECT_EQ(plain.lines.at(0), "ja-JP-Neural2-B\tFEMALE\tneural2\tja-JP");
    const CliRun openai = cli({"voices", "--vendor", "openai"});
    EXPECT_EQ(openai.status, 0);
    EXPECT_NE(std::find_if(openai.lines.begin(), openai.lines.end(),
                           [](const std::string& l) { return l.rfind("shimmer\t", 0) == 0; }),
              openai.lines.end());
}

TEST_F(SpeechCli, SpeakWritesTheAudioAndPrintsItsDurationOrTheVendorsReason) {
    storeKey("google", "gk-fake");
    FakeRealtimeServer server(scenario("google-tts.jsonl"), "gk-fake");
    const fs::path out = home / "speech.mp3";
    const CliRun run = cli({"speak", "你好", "--language", "chinese", "--vendor", "google", "--out",
                            QString::fromStdString(out.string())},
                           at(server));
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.lines, (std::vector<std::string>{out.string() + "\t2044 bytes\t0.250 s"}));
    EXPECT_EQ(fs::file_size(out), 2044u);
    const auto requests = recorded(server, "http");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0]["json"], j(R"({"input":{"text":"你好"},"voice":{"languageCode":"cmn-CN","name":"cmn-CN-Wavenet-A"},
        "audioConfig":{"audioEncoding":"MP3","speakingRate":1.0}})"));

    const CliRun missing = cli({"speak", "こんにちは", "--language", "japanese", "--vendor", "google", "--voice",
                                "ja-JP-Missing", "--out", QString::fromStdString((home / "x.mp3").string())},
                               at(server));
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("Google 语音合成失败（Voice 'ja-JP-Missing' does not exist.）。"), std::string::npos)
        << missing.err;

    FakeRealtimeServer openai(openAIAudioScenario());
    const CliRun spoken = cli({"speak", "こんにちは", "--language", "japanese", "--vendor", "openai", "--voice", "coral",
                               "--out", QString::fromStdString(out.string())},
                              at(openai));
    ASSERT_EQ(spoken.status, 0) << spoken.err;
    EXPECT_EQ(spoken.lines, (std::vector<std::string>{out.string() + "\t2044 bytes\t0.250 s"}));
    const auto speech = recorded(openai, "http");
    ASSERT_EQ(speech.size(), 1u);
    EXPECT_EQ(speech[0]["path"], "/v1/audio/speech");
    Json body = speech[0]["json"];
    EXPECT_EQ(body["instructions"].get<std::string>().rfind("标准东京口音的日语。", 0), 0u);
    body.erase("instructions");
    EXPECT_EQ(body, j(R"({"model":"gpt-4o-mini-tts","input":"こんにちは","voice":"coral","response_format":"mp3"})"));
    EXPECT_EQ(speech[0]["authorization"], "ok");
}

TEST_F(SpeechCli, BadArgumentsAreUsageErrors) {
    EXPECT_EQ(cli({"source", "probe"}).status, 2);
    EXPECT_EQ(cli({"source", "probe", "--audio", "x.wav", "--vendor", "azure"}).status, 2);
    EXPECT_EQ(cli({"transcribe", "x.wav", "--language", "korean"}).status, 2);
    EXPECT_EQ(cli({"speak", "hi", "--language", "english", "--out", "x.mp3"}).status, 2);
    EXPECT_EQ(cli({"speak", "hi", "--language", "chinese"}).status, 2);
    EXPECT_EQ(cli({"voices", "--vendor", "azure"}).status, 2);
    const CliRun missing = cli({"transcribe", (home / "none.wav").string().c_str(), "--vendor", "local"});
    EXPECT_EQ(missing.status, 1);
}

}  // namespace
}  // namespace osv
