// ossevra-cli live, run as a program with speech files as the channels, against the fake
// realtime server: the whole pipeline from file-fed capture to the filed recording.

#include <gtest/gtest.h>

#include <QProcess>
#include <QProcessEnvironment>

#include <csignal>
#include <fstream>
#include <map>
#include <set>

#include "LoopbackServers.h"
#include "audio/PCM16WavWriter.h"
#include "audio/RealtimePCMEncoder.h"
#include "platform/ffmpeg/AacFileWriter.h"
#include "platform/ffmpeg/AudioFileDecoder.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using json::Json;
using testing::FakeRealtimeServer;

// Speaker 1 is the computer (Japanese), speaker 2 the microphone (Chinese).
constexpr const char* kScenario = R"(
{"on": "connect", "send": {"type": "session.created", "session": {"id": "sess_test"}}}
{"on": "append", "nth": 1, "speaker": 1, "after_ms": 700, "send": {"type": "session.input_transcript.delta", "delta": "今日はいい天気ですね。"}}
{"on": "append", "nth": 1, "speaker": 1, "after_ms": 900, "send": {"type": "session.output_transcript.delta", "delta": "今天天气很好。"}}
{"on": "append", "nth": 1, "speaker": 2, "after_ms": 700, "send": {"type": "session.input_transcript.delta", "delta": "我们去散步吧。"}}
{"on": "session.close", "send": {"type": "session.closed"}}
{"on": "session.close", "after_ms": 50, "close": {"code": 1000, "reason": "bye"}}
{"http": {"method": "POST", "path": "/v1/responses", "match": "待处理的原句：\n今日はいい天気ですね。"}, "reply": {"json": {"output": [{"type": "message", "content": [{"type": "output_text", "text": "今天天气真好。"}]}], "usage": {"input_tokens": 150, "output_tokens": 8}}}}
{"http": {"method": "POST", "path": "/v1/responses", "match": "待处理的原句：\n我们去散步吧。"}, "reply": {"json": {"output": [{"type": "message", "content": [{"type": "output_text", "text": "散歩に行きましょう。"}]}], "usage": {"input_tokens": 150, "output_tokens": 8}}}}
)";

struct Line {
    double at;  // seconds since the program started
    Json value;
};

struct LiveRun {
    int status = -1;
    std::vector<Line> lines;
    std::string err;

    std::vector<Json> all(const std::string& key) const {
        std::vector<Json> out;
        for (const auto& l : lines)
            if (l.value.is_object() && l.value.contains(key)) out.push_back(l.value[key]);
        return out;
    }
    std::optional<double> firstStateWith(const std::string& field, const Json& value) const {
        for (const auto& l : lines)
            if (l.value.contains("state") && l.value["state"].value(field, Json()) == value) return l.at;
        return std::nullopt;
    }
    std::vector<std::string> debugCodes() const {
        std::vector<std::string> codes;
        for (const auto& d : all("debug"))
            if (d["code"].is_string()) codes.push_back(d["code"].get<std::string>());
        return codes;
    }
};

class LiveCli : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(home); }
    void TearDown() override { fs::remove_all(home); }

    // `text` spoken by espeak-ng at `start` seconds of an otherwise silent file.
    fs::path speech(const std::string& name, const std::string& voice, const std::string& text, double start,
                    double length) {
        const fs::path spoken = home / (name + "-espeak.wav");
        QProcess espeak;
        espeak.start("espeak-ng", {"-v", QString::fromStdString(voice), "-w", QString::fromStdString(spoken.string()),
                                   QString::fromStdString(text)});
        EXPECT_TRUE(espeak.waitForFinished(30'000));
        auto pcm = decodePCM16Mono24k(spoken);
        EXPECT_TRUE(pcm.ok());
        PCMBytes track(std::size_t(length * kWorkingSampleRate) * 2, 0);
        const auto at = std::size_t(start * kWorkingSampleRate) * 2;
        for (std::size_t i = 0; pcm && i < pcm->size() && at + i < track.size(); ++i) track[at + i] = (*pcm)[i];
        return write(name, track);
    }
    fs::path silence(const std::string& name, double length) {
        return write(name, PCMBytes(std::size_t(length * kWorkingSampleRate) * 2, 0));
    }
    fs::path write(const std::string& name, const PCMBytes& pcm) {
        const PCMBytes file = PCM16WavWriter::data(pcm, kWorkingSampleRate, 1);
        const fs::path path = home / (name + ".wav");
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(file.data()), std::streamsize(file.size()));
        return path;
    }

    QProcessEnvironment environment(const std::string& base, bool withKey = true) const {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", QString::fromStdString(home.string()));
        env.insert("XDG_CONFIG_HOME", QString::fromStdString((home / "config").string()));
        env.insert("XDG_DATA_HOME", QString::fromStdString((home / "data").string()));
        env.insert("OSV_SUPPORT_DIR", QString::fromStdString(support().string()));
        env.insert("OSV_TEST_RUN", "1");
        env.insert("OSV_OPENAI_BASE_URL", QString::fromStdString(base));
        if (withKey) env.insert("OPENAI_API_KEY", "sk-fake");
        else env.remove("OPENAI_API_KEY");
        return env;
    }

    // Runs the command, time-stamping each line as it comes; `whenLine` may act on the process.
    LiveRun live(const std::string& base, const QStringList& args, bool withKey = true,
                 const std::function<void(QProcess&, const Json&)>& whenLine = {}) {
        QProcess p;
        p.setProcessEnvironment(environment(base, withKey));
        QElapsedTimer clock;
        clock.start();
        LiveRun run;
        QByteArray buffer;
        QObject::connect(&p, &QProcess::readyReadStandardOutput, [&] {
            buffer += p.readAllStandardOutput();
            for (qsizetype at = buffer.indexOf('\n'); at >= 0; at = buffer.indexOf('\n')) {
                const QByteArray line = buffer.left(at);
                buffer.remove(0, at + 1);
                if (line.isEmpty()) continue;
                Line parsed{double(clock.elapsed()) / 1000.0, json::parse(line.toStdString()).value_or(Json("bad"))};
                run.lines.push_back(parsed);
                if (whenLine) whenLine(p, parsed.value);
            }
        });
        p.start(OSV_CLI, QStringList{"live"} + args);
        const bool finished = testing::waitFor([&] { return p.state() == QProcess::NotRunning; }, 90.0);
        if (!finished) {
            p.kill();
            p.waitForFinished();
            return run;
        }
        run.status = p.exitCode();
        run.err = p.readAllStandardError().toStdString();
        return run;
    }

    fs::path support() const { return home / "support"; }
    fs::path home = fs::temp_directory_path() / ("osv-live-cli-" + Uuid::random().text());
};

std::string withoutSpaces(std::string s) {
    std::erase_if(s, [](char c) { return c == ' ' || c == '\n'; });
    return s;
}

TEST_F(LiveCli, TwoSeparateChannelsEndInASavedRecordingWhoseLogCaptionsAndAudioAgree) {
    FakeRealtimeServer server(kScenario);
    ASSERT_GT(server.port(), 0);
    const fs::path system = speech("system", "ja", "きょうは いい てんき ですね。", 0.3, 4.0);
    const fs::path microphone = speech("microphone", "cmn-latn-pinyin", "wo3 men5 qu4 san4 bu4 ba5.", 4.0, 7.0);
    const LiveRun run = live(server.base(), {"--system", QString::fromStdString(system.string()), "--microphone",
                                             QString::fromStdString(microphone.string()), "--separate", "--json",
                                             "--tail", "1"});
    ASSERT_EQ(run.status, 0) << run.err;

    // The last line is the saved entry.
    ASSERT_FALSE(run.lines.empty());
    const Json& last = run.lines.back().value;
    ASSERT_TRUE(last.contains("recording")) << last.dump();
    const Json& entry = last["recording"];
    EXPECT_EQ(entry["status"], "complete");
    const std::string id = entry["id"].get<std::string>();

    // Captions of both channels, as the last captions line showed them.
    const auto captions = run.all("captions");
    ASSERT_FALSE(captions.empty());
    std::set<std::string> channels;
    std::string captionText;
    for (const auto& block : captions.back()) {
        if (block["channel"].is_string()) channels.insert(block["channel"].get<std::string>());
        if (block["source"].is_string()) captionText += block["source"].get<std::string>();
    }
    EXPECT_EQ(channels, (std::set<std::string>{"system", "microphone"}));

    // The filed log folds to the same sentences.
    QProcess fold;
    fold.start(OSV_CLI, {"transcript", "fold", QString::fromStdString((support() / "transcripts" / (id + ".jsonl")).string())});
    ASSERT_TRUE(fold.waitForFinished(30'000));
    const auto snapshot = json::parse(fold.readAllStandardOutput().toStdString());
    ASSERT_TRUE(snapshot && snapshot->contains("sentences"));
    std::string foldedText;
    for (const auto& sentence : (*snapshot)["sentences"]) foldedText += sentence["text"].get<std::string>();
    EXPECT_EQ(withoutSpaces(foldedText), withoutSpaces(captionText));
    EXPECT_NE(foldedText.find("今日はいい天気ですね。"), std::string::npos);
    EXPECT_NE(foldedText.find("我们去散步吧。"), std::string::npos);

    // Every closed sentence holds a translation from the text model: refined for the other
    // side, reverse for the user; the prompts went out as a live session sends them.
    std::map<std::string, std::string> translations;
    for (const auto& sentence : (*snapshot)["sentences"]) {
        ASSERT_FALSE(sentence["translations"].empty()) << sentence.dump();
        const Json& standing = sentence["translations"].back();
        translations[sentence["text"].get<std::string>()] = standing["origin"].get<std::string>() + ":" +
                                                             standing["text"].get<std::string>();
    }
    EXPECT_EQ(translations["今日はいい天気ですね。"], "refined:今天天气真好。");
    EXPECT_EQ(translations["我们去散步吧。"], "reverseToJapanese:散歩に行きましょう。");
    std::vector<std::string> prompts;
    for (const auto& line : server.record())
        if (line.value("event", "") == "http" && line.value("path", "") == "/v1/responses" && line.contains("json"))
            prompts.push_back(line["json"].value("input", Json()).dump());
    ASSERT_GE(prompts.size(), 2u);  // and a draft of the open sentence, which is long enough for one
    const auto sent = [&](const std::string& part) {
        return std::any_of(prompts.begin(), prompts.end(), [&](const std::string& p) { return p.find(part) != std::string::npos; });
    };
    EXPECT_TRUE(sent("请把下面这句会议发言翻译成自然、准确的简体中文。"));
    EXPECT_TRUE(sent("请把下面这句中文会议发言翻译成自然、口语化的日语（です・ます体）。"));

    // The journal is gone; the merged audio spans the session from start to stop.
    EXPECT_FALSE(fs::exists(support() / "journals" / (id + ".jsonl")));
    const auto started = run.firstStateWith("isStartingSession", true);
    const auto stopped = run.firstStateWith("statusText", "同声传译已停止");
    ASSERT_TRUE(started && stopped);
    const auto duration = mediaDurationSeconds(support() / "Recordings" / (id + ".m4a"));
    ASSERT_TRUE(duration.ok());
    EXPECT_NEAR(*duration, *stopped - *started, 0.3);
    // No chunk is left once the merge is in the index.
    for (const auto& f : fs::directory_iterator(support() / "Recordings"))
        EXPECT_EQ(f.path().filename().string().find("-chunk-"), std::string::npos) << f.path();
}

TEST_F(LiveCli, ASilentMicrophoneSendsNoAudioOnItsConnection) {
    FakeRealtimeServer server(kScenario);
    const fs::path system = speech("system", "ja", "きょうは いい てんき ですね。", 0.3, 3.0);
    const fs::path microphone = silence("microphone", 3.0);
    const LiveRun run = live(server.base(), {"--system", QString::fromStdString(system.string()), "--microphone",
                                             QString::fromStdString(microphone.string()), "--separate", "--json",
                                             "--tail", "0.5"});
    ASSERT_EQ(run.status, 0) << run.err;
    std::map<int, int> appends;
    std::set<int> connections;
    for (const auto& line : server.record()) {
        if (line.value("event", "") == "connect") connections.insert(line.value("connection", 0));
        if (line.value("event", "") == "message" && line.contains("message") &&
            line["message"].value("type", "") == "session.input_audio_buffer.append")
            ++appends[line.value("connection", 0)];
    }
    ASSERT_EQ(connections.size(), 2u);  // both were connected at start
    EXPECT_EQ(appends.size(), 1u);      // only one of them was sent audio
}

TEST_F(LiveCli, SigtermInTheMiddleStillSavesTheSession) {
    FakeRealtimeServer server(kScenario);
    const fs::path system = speech("system", "ja", "きょうは いい てんき ですね。", 0.3, 30.0);
    bool sent = false;
    const LiveRun run = live(server.base(), {"--system", QString::fromStdString(system.string()), "--json"}, true,
                             [&](QProcess& p, const Json& line) {
                                 if (sent || !line.contains("captions") || line["captions"].empty()) return;
                                 sent = true;
                                 ::kill(pid_t(p.processId()), SIGTERM);
                             });
    ASSERT_TRUE(sent);
    ASSERT_EQ(run.status, 0) << run.err;
    ASSERT_TRUE(run.lines.back().value.contains("recording"));
    EXPECT_EQ(run.lines.back().value["recording"]["status"], "complete");
    EXPECT_LT(run.lines.back().at, 20.0);  // it ended on the signal, not with the file
}

TEST_F(LiveCli, WithoutAKeyNoRecordingIsMade) {
    FakeRealtimeServer server(kScenario);
    const fs::path system = silence("system", 1.0);
    const LiveRun run = live(server.base(), {"--system", QString::fromStdString(system.string())}, false);
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("缺少 OpenAI API Key"), std::string::npos) << run.err;
    std::ifstream index(support() / "recordings.json");
    const std::string text((std::istreambuf_iterator<char>(index)), std::istreambuf_iterator<char>());
    const auto entries = json::parse(text.empty() ? "[]" : text);
    ASSERT_TRUE(entries && entries->is_array());
    EXPECT_TRUE(entries->empty());
}

TEST_F(LiveCli, BadArgumentsAreRefusedWithTheUsage) {
    const LiveRun run = live("http://127.0.0.1:9/v1", {"--seconds", "soon"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("--seconds takes a number"), std::string::npos) << run.err;
}

}  // namespace
}  // namespace osv
