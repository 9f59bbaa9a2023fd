// Every fault scenario of the fake realtime server (tools/fake-realtime/scenarios/faults),
// replayed through ossevra-cli live with a speech file: the session stays on air to the
// end, the notices and codes come in order, captions come back after the fault, the audio
// said during an outage reaches the service, and the recording is saved complete with its
// merged audio. The sessions run side by side, each against a server of its own.

#include <gtest/gtest.h>

#include <QProcess>
#include <QProcessEnvironment>

#include <fstream>
#include <map>

#include "LoopbackServers.h"
#include "audio/PCM16WavWriter.h"
#include "audio/RealtimePCMEncoder.h"
#include "core/Base64.h"
#include "platform/ffmpeg/AudioFileDecoder.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using json::Json;

struct Case {
    std::string scenario;        // file name in the faults folder
    double seconds;              // length of the speech file
    std::vector<std::string> codes;  // debug codes that must appear, in this order
    std::string rotateAfter;     // OSV_REALTIME_ROTATE_AFTER, if set
    std::string name() const { return scenario + (rotateAfter.empty() ? "" : "+rotation"); }
};

struct Session {
    Case c;
    fs::path dir;
    QProcess server;
    QProcess cli;
    int port = 0;
    std::vector<Json> lines;
    int status = -1;
    std::string err;
};

std::vector<Json> jsonLines(const fs::path& path) {
    std::vector<Json> out;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line))
        if (auto j = json::parse(line)) out.push_back(std::move(*j));
    return out;
}

class LiveFaults : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(home); }
    void TearDown() override { fs::remove_all(home); }

    // A Japanese sentence every three seconds, for `seconds`.
    fs::path speech(double seconds) {
        const fs::path path = home / ("speech-" + std::to_string(int(seconds)) + ".wav");
        if (fs::exists(path)) return path;
        const fs::path spoken = home / "line.wav";
        QProcess espeak;
        espeak.start("espeak-ng", {"-v", "ja", "-w", QString::fromStdString(spoken.string()), "きょうは いい てんき ですね。"});
        EXPECT_TRUE(espeak.waitForFinished(30'000));
        const auto pcm = decodePCM16Mono24k(spoken).value();
        PCMBytes track(std::size_t(seconds * kWorkingSampleRate) * 2, 0);
        for (std::size_t at = std::size_t(0.3 * kWorkingSampleRate) * 2; at + pcm.size() < track.size();
             at += std::size_t(3.0 * kWorkingSampleRate) * 2)
            std::copy(pcm.begin(), pcm.end(), track.begin() + std::ptrdiff_t(at));
        const PCMBytes file = PCM16WavWriter::data(track, kWorkingSampleRate, 1);
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(file.data()), std::streamsize(file.size()));
        return path;
    }

    void start(Session& s) {
        s.dir = home / s.c.name();
        fs::create_directories(s.dir);
        s.server.setProgram(OSV_FAKE_REALTIME);
        s.server.setArguments({"--scenario",
                               QString::fromStdString((fs::path(OSV_SOURCE_DIR) / "tools/fake-realtime/scenarios/faults" /
                                                       s.c.scenario).string()),
                               "--record", QString::fromStdString((s.dir / "received.jsonl").string())});
        s.server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        s.server.start();
        ASSERT_TRUE(s.server.waitForReadyRead(10'000));
        s.port = s.server.readLine().trimmed().toInt();
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", QString::fromStdString(s.dir.string()));
        env.insert("XDG_CONFIG_HOME", QString::fromStdString((s.dir / "config").string()));
        env.insert("OSV_SUPPORT_DIR", QString::fromStdString((s.dir / "support").string()));
        env.insert("OSV_TEST_RUN", "1");
        env.insert("OPENAI_API_KEY", "sk-fake");
        env.insert("OSV_OPENAI_BASE_URL", QString::fromStdString("http://127.0.0.1:" + std::to_string(s.port) + "/v1"));
        if (!s.c.rotateAfter.empty()) env.insert("OSV_REALTIME_ROTATE_AFTER", QString::fromStdString(s.c.rotateAfter));
        s.cli.setProcessEnvironment(env);
        s.cli.start(OSV_CLI, {"live", "--system", QString::fromStdString(speech(s.c.seconds).string()), "--json",
                              "--tail", "1"});
    }

    static void finish(Session& s) {
        s.status = s.cli.exitCode();
        s.err = s.cli.readAllStandardError().toStdString();
        for (const QByteArray& line : s.cli.readAllStandardOutput().split('\n'))
            if (!line.isEmpty()) s.lines.push_back(json::parse(line.toStdString()).value_or(Json("bad")));
        s.server.kill();
        s.server.waitForFinished();
    }

    fs::path home = fs::temp_directory_path() / ("osv-live-faults-" + Uuid::random().text());
};

TEST_F(LiveFaults, EveryFaultEndsInACompleteRecordingWithCaptionsAfterIt) {
    const std::vector<Case> cases = {
        {"drop.jsonl", 25, {"realtime_reconnect_scheduled", "outage_audio_flushed", "realtime_reconnected"}, ""},
        // People keep talking, so only the 25-second rule can judge the silent socket.
        {"stall.jsonl", 45, {"recognition_stalled", "realtime_reconnect_scheduled", "realtime_reconnected"}, ""},
        {"source-failure.jsonl", 26,
         {"source_stream_failed", "source_stream_rearm", "source_stream_degraded", "source_stream_recovered"}, ""},
        {"refuse.jsonl", 28, {"realtime_reconnect_scheduled", "realtime_reconnect_scheduled", "realtime_reconnect_scheduled",
                              "realtime_reconnect_scheduled", "outage_audio_flushed"}, ""},
        {"server-close.jsonl", 20, {"realtime_reconnect_scheduled", "realtime_reconnected"}, ""},
        {"rate-limit.jsonl", 20, {"realtime_reconnect_scheduled", "realtime_reconnected"}, ""},
        {"binary.jsonl", 10, {}, ""},
        {"expire-unannounced.jsonl", 45, {"realtime_reconnect_scheduled", "realtime_reconnected"}, ""},
        {"expire.jsonl", 45, {"realtime_rotation_started", "realtime_rotation_succeeded"}, ""},
        {"expire.jsonl", 60, {"realtime_rotation_started", "realtime_rotation_succeeded", "realtime_rotation_started",
                              "realtime_rotation_succeeded"}, "20"},
    };
    std::vector<std::unique_ptr<Session>> sessions;
    for (const Case& c : cases) {
        sessions.push_back(std::make_unique<Session>());
        sessions.back()->c = c;
        start(*sessions.back());
    }
    ASSERT_TRUE(testing::waitFor(
        [&] {
            for (const auto& s : sessions)
                if (s->cli.state() != QProcess::NotRunning) return false;
            return true;
        },
        150.0));
    for (auto& s : sessions) finish(*s);

    for (const auto& s : sessions) {
        SCOPED_TRACE(s->c.name());
        ASSERT_EQ(s->status, 0) << s->err;
        // On air to the end: the session ended by the user's stop (the files' end), never by a fault.
        std::vector<std::string> codes;
        bool longNotice = false;
        for (const auto& line : s->lines) {
            if (line.contains("debug") && line["debug"]["code"].is_string())
                codes.push_back(line["debug"]["code"].get<std::string>());
            if (line.contains("state") &&
                line["state"]["liveNotice"].get<std::string>().find("字幕已中断，仍在重连（第 4 次）") != std::string::npos)
                longNotice = true;
        }
        EXPECT_EQ(std::count(codes.begin(), codes.end(), "live_start_failed"), 0);
        auto at = codes.begin();
        std::string all;
        for (const auto& code : codes) all += code + " ";
        for (const auto& expected : s->c.codes) {
            at = std::find(at, codes.end(), expected);
            EXPECT_NE(at, codes.end()) << "missing, in order: " << expected << "\nall: " << all;
            if (at == codes.end()) break;
            ++at;
        }
        if (s->c.scenario == "refuse.jsonl") {
            EXPECT_TRUE(longNotice);
        }

        ASSERT_TRUE(s->lines.back().contains("recording"));
        const Json& entry = s->lines.back()["recording"];
        EXPECT_EQ(entry["status"], "complete");
        ASSERT_TRUE(entry.contains("relativeAudioPath"));
        EXPECT_GE(entry["duration"].get<double>(), s->c.seconds - 0.5);

        // Captions came back after the fault: sentences from the last quarter of the session.
        const std::string id = entry["id"].get<std::string>();
        const auto filed = jsonLines(s->dir / "support" / "transcripts" / (id + ".jsonl"));
        const double createdAt = entry["createdAt"].get<double>();
        double lastSource = 0;
        std::vector<double> sourceTimes;
        for (const auto& e : filed)
            if (e.contains("payload") && e["payload"].contains("sourceDelta")) {
                const double t = e.value("receivedAt", e.value("at", 0.0)) - createdAt;
                lastSource = std::max(lastSource, t);
                sourceTimes.push_back(t);
            }
        EXPECT_GT(lastSource, s->c.seconds * 0.75);

        // What was said during an outage reached the service: audio across all connections
        // covers the file, less at most the first seconds before the first connection.
        std::size_t bytes = 0;
        int connections = 0;
        for (const auto& line : jsonLines(s->dir / "received.jsonl")) {
            if (line.value("event", "") == "connect") ++connections;
            if (line.value("event", "") == "message" && line.contains("message") &&
                line["message"].value("type", "") == "session.input_audio_buffer.append")
                if (auto pcm = base64Decode(line["message"].value("audio", ""))) bytes += pcm->size();
        }
        const double sentSeconds = double(bytes) / kWorkingBytesPerSecond;
        if (s->c.scenario != "stall.jsonl") {  // a stalled socket swallows what it was sent
            EXPECT_GT(sentSeconds, s->c.seconds - 1.0) << connections << " connections";
        }

        if (s->c.scenario == "expire.jsonl") {
            EXPECT_GE(connections, 3);
            EXPECT_EQ(std::count(codes.begin(), codes.end(), "realtime_reconnect_scheduled"), 0);
            // No caption gap longer than the normal boundary delay across the rotations.
            std::sort(sourceTimes.begin(), sourceTimes.end());
            double longest = 0;
            for (std::size_t i = 1; i < sourceTimes.size(); ++i)
                if (sourceTimes[i] < s->c.seconds) longest = std::max(longest, sourceTimes[i] - sourceTimes[i - 1]);
            EXPECT_LE(longest, 2.6 + 0.5);
        }
    }
}

}  // namespace
}  // namespace osv
