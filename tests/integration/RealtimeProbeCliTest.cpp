// ossevra-cli realtime probe, run as a program against the fake realtime server.

#include <gtest/gtest.h>

#include <QProcess>
#include <QProcessEnvironment>
#include <QTcpServer>

#include <cmath>
#include <fstream>

#include "LoopbackServers.h"
#include "audio/PCM16WavWriter.h"
#include "audio/RealtimePCMEncoder.h"
#include "core/Base64.h"
#include "platform/ffmpeg/AudioFileDecoder.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using json::Json;
using testing::FakeRealtimeServer;

struct CliRun {
    int status = -1;
    std::vector<Json> lines;
    std::string err;
};

class RealtimeProbeCli : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(home); }
    void TearDown() override { fs::remove_all(home); }

    // A stereo 44.1 kHz WAV of `seconds` of two tones, so that the probe has to convert it.
    fs::path wav(double seconds) {
        PCMBytes pcm;
        const int frames = int(44'100 * seconds);
        for (int i = 0; i < frames; ++i)
            for (double f : {220.0, 330.0}) {
                const auto s = std::int16_t(std::lround(8000 * std::sin(2 * M_PI * f * i / 44'100)));
                pcm.push_back(std::uint8_t(s & 0xff));
                pcm.push_back(std::uint8_t((s >> 8) & 0xff));
            }
        const PCMBytes file = PCM16WavWriter::data(pcm, 44'100, 2);
        const fs::path path = home / "speech.wav";
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(file.data()), std::streamsize(file.size()));
        return path;
    }

    CliRun probe(const std::string& base, const fs::path& audio, const std::string& speed, bool withKey = true) {
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", QString::fromStdString(home.string()));
        env.insert("XDG_CONFIG_HOME", QString::fromStdString((home / "config").string()));
        env.insert("XDG_DATA_HOME", QString::fromStdString((home / "data").string()));
        env.insert("OSV_SUPPORT_DIR", QString::fromStdString((home / "support").string()));
        env.insert("OSV_TEST_RUN", "1");  // the user's Secret Service stays untouched
        env.insert("OSV_OPENAI_BASE_URL", QString::fromStdString(base));
        if (withKey) env.insert("OPENAI_API_KEY", "sk-fake");
        else env.remove("OPENAI_API_KEY");
        p.setProcessEnvironment(env);
        p.start(OSV_CLI, {"realtime", "probe", "--audio", QString::fromStdString(audio.string()), "--speed",
                          QString::fromStdString(speed)});
        CliRun run;
        if (!p.waitForFinished(60'000)) {
            p.kill();
            return run;
        }
        run.status = p.exitCode();
        run.err = p.readAllStandardError().toStdString();
        for (const QByteArray& line : p.readAllStandardOutput().split('\n'))
            if (!line.isEmpty()) run.lines.push_back(json::parse(line.toStdString()).value_or(Json("unparsable")));
        return run;
    }

    fs::path home = fs::temp_directory_path() / ("osv-probe-" + Uuid::random().text());
};

std::string scenario(const std::string& name) {
    std::ifstream in(fs::path(OSV_SOURCE_DIR) / "tools" / "fake-realtime" / "scenarios" / name);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST_F(RealtimeProbeCli, PrintsTheScriptedDeltasAndTheServerGetsExactlyTheMessagesOfAStop) {
    FakeRealtimeServer server(scenario("translation.jsonl"));
    ASSERT_GT(server.port(), 0);
    // 30 chunks of 40 ms, in real time: the scripted replies come while audio still flows,
    // as they would from a real service. (At full speed the file may end before the first
    // reply, and a drain that has seen no delta does not wait.)
    const fs::path audio = wav(1.2);
    const CliRun run = probe(server.base(), audio, "1");
    ASSERT_EQ(run.status, 0) << run.err;

    std::vector<Json> events;
    std::vector<Json> debug;
    for (const auto& l : run.lines) (l.contains("event") ? events : debug).push_back(l);
    EXPECT_EQ(events, (std::vector<Json>{
                          *json::parse(R"({"event":"connected"})"),
                          *json::parse(R"({"event":"inputTranscriptDelta","text":"今日は"})"),
                          *json::parse(R"({"event":"inputTranscriptDelta","text":"いい天気ですね。"})"),
                          *json::parse(R"({"event":"outputTranscriptDelta","text":"今天"})"),
                          *json::parse(R"({"event":"outputTranscriptDelta","text":"天气真好啊。"})"),
                          *json::parse(R"({"event":"inputTranscriptDelta","text":"散歩に行きましょう。"})"),
                          *json::parse(R"({"event":"outputTranscriptDelta","text":"我们去散步吧。"})"),
                      }));
    ASSERT_EQ(debug.size(), 3u);
    EXPECT_EQ(debug[0]["debug"]["title"], "连接 Realtime 同传");
    EXPECT_EQ(debug[1]["debug"]["title"], "Realtime 同传已连接");
    EXPECT_EQ(debug[2], *json::parse(R"({"debug":{"level":"warning","category":"openAI","title":"整轮文本补回",
        "details":"stream: 译文\ntype: session.output_transcript.done\n本轮没有收到任何 delta，改用整轮文本。",
        "code":"realtime_completed_without_deltas"}})"));

    ASSERT_TRUE(testing::waitFor([&] { return server.hasClosedLine(); }));
    auto record = server.record();
    ASSERT_GE(record.size(), 3u);
    EXPECT_EQ(record.front()["authorization"], "ok");
    EXPECT_EQ(record.front()["path"], "/v1/realtime/translations");
    std::vector<std::string> types;
    std::vector<std::uint8_t> audioSent;
    for (auto& line : record) {
        if (line["event"] != "message") continue;
        EXPECT_EQ(line["kind"], "text");
        types.push_back(line["message"]["type"].get<std::string>());
        if (types.back() == "session.input_audio_buffer.append") {
            const auto bytes = base64Decode(line["message"]["audio"].get<std::string>());
            ASSERT_TRUE(bytes);
            audioSent.insert(audioSent.end(), bytes->begin(), bytes->end());
        }
    }
    std::vector<std::string> expected{"session.update", "session.update"};
    expected.insert(expected.end(), 30, "session.input_audio_buffer.append");
    expected.push_back("session.close");
    EXPECT_EQ(types, expected);
    EXPECT_EQ(record[1]["message"], *json::parse(R"({"type":"session.update","session":{"audio":{"output":{"language":"zh"}}}})"));
    EXPECT_EQ(audioSent, decodePCM16Mono24k(audio).value());
    EXPECT_EQ(record.back()["event"], "closed");
    EXPECT_EQ(record.back()["by"], "client");
    EXPECT_EQ(record.back()["code"], 1001);
}

TEST_F(RealtimeProbeCli, RealTimeTakesAtLeastTheLengthOfTheAudio) {
    FakeRealtimeServer server("");
    const CliRun run = probe(server.base(), wav(0.4), "1");
    ASSERT_EQ(run.status, 0) << run.err;
    ASSERT_TRUE(testing::waitFor([&] { return server.hasClosedLine(); }));
    std::vector<std::int64_t> appendTimes;
    for (auto& line : server.record())
        if (line["event"] == "message" && line["message"]["type"] == "session.input_audio_buffer.append")
            appendTimes.push_back(line["ms"].get<std::int64_t>());
    ASSERT_EQ(appendTimes.size(), 10u);
    // The tenth chunk leaves 360 ms after the first; a probe can't be faster than that.
    EXPECT_GE(appendTimes.back() - appendTimes.front(), 355);
}

TEST_F(RealtimeProbeCli, AConnectionThatCannotOpenOrAMissingKeyFailsWithTheUserText) {
    QTcpServer vacant;
    ASSERT_TRUE(vacant.listen(QHostAddress::LocalHost));
    const std::string base = "http://127.0.0.1:" + std::to_string(vacant.serverPort()) + "/v1";
    vacant.close();
    const CliRun refused = probe(base, wav(0.2), "max");
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("ossevra-cli: Connection refused"), std::string::npos) << refused.err;

    const CliRun keyless = probe(base, wav(0.2), "max", false);
    EXPECT_EQ(keyless.status, 1);
    EXPECT_NE(keyless.err.find("缺少 OpenAI API Key。"), std::string::npos) << keyless.err;
}

}  // namespace
}  // namespace osv
