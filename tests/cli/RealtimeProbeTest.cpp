// The probe's pacing, drain and ending, in virtual time over the in-memory transport.

#include <gtest/gtest.h>

#include <sstream>

#include "cli/Cli.h"
#include "cli/RealtimeProbe.h"
#include "core/Json.h"
#include "core/ManualScheduler.h"
#include "services/FakeWebSocketTransport.h"
#include "settings/TranslatorSettings.h"

namespace osv::cli {
namespace {

using json::Json;

struct ProbeHarness {
    testing::FakeWebSocketTransport transport;  // outlives the scheduler's queue
    ManualScheduler scheduler;
    std::ostringstream out, err;
    RealtimeProbe probe{scheduler, transport, "http://127.0.0.1:9/v1", out, err};
    std::optional<int> status;

    void run(std::size_t bytes, bool realTime = true, std::string key = "sk-test") {
        TranslatorSettings settings;
        settings.apiKey = std::move(key);
        std::vector<std::uint8_t> pcm(bytes);
        for (std::size_t i = 0; i < bytes; ++i) pcm[i] = std::uint8_t(i % 251);
        probe.run(settings, std::move(pcm), {realTime, "zh"}, [this](int s) { status = s; });
        if (!transport.connections.empty()) {
            connection().endsInsideClose = true;
            connection().accept();
        }
    }
    testing::FakeWebSocketConnection& connection() { return transport.last(); }
    std::vector<std::string> types() {
        std::vector<std::string> result;
        for (const auto& s : connection().sent) result.push_back((*json::parse(s))["type"].get<std::string>());
        return result;
    }
    std::size_t appends() {
        const auto t = types();
        return std::size_t(std::count(t.begin(), t.end(), "session.input_audio_buffer.append"));
    }
    bool closed() { return connection().closeCode.has_value(); }
    std::vector<Json> lines() {
        std::vector<Json> result;
        std::istringstream in(out.str());
        std::string line;
        while (std::getline(in, line)) result.push_back(*json::parse(line));
        return result;
    }
};

TEST(RealtimeProbe, StreamsFortyMillisecondChunksInRealTimeThenClosesAsAStopDoes) {
    ProbeHarness h;
    h.run(RealtimeProbe::kChunkBytes * 5 + 100);
    EXPECT_EQ(h.appends(), 1u);
    h.scheduler.advance(0.039);
    EXPECT_EQ(h.appends(), 1u);
    h.scheduler.advance(0.002);
    EXPECT_EQ(h.appends(), 2u);
    h.scheduler.advance(0.12);
    EXPECT_EQ(h.appends(), 5u);
    EXPECT_FALSE(h.closed());
    h.scheduler.advance(0.08);  // the short last chunk and its time, then no delta to wait for
    EXPECT_EQ(h.types(), (std::vector<std::string>{"session.update", "session.update",
                                                   "session.input_audio_buffer.append",
                                                   "session.input_audio_buffer.append",
                                                   "session.input_audio_buffer.append",
                                                   "session.input_audio_buffer.append",
                                                   "session.input_audio_buffer.append",
                                                   "session.input_audio_buffer.append", "session.close"}));
    EXPECT_EQ(h.connection().closeCode, 1001);
    EXPECT_EQ(h.status, kOk);
    EXPECT_EQ(h.probe.bytesSent(), RealtimeProbe::kChunkBytes * 5 + 100);
    const auto lines = h.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], *json::parse(R"({"debug":{"level":"info","category":"openAI","title":"连接 Realtime 同传",
        "details":"endpoint: /v1/realtime/translations\nmodel: gpt-realtime-translate\ntranscription: gpt-transcribe\ntargetLanguage: zh","code":null}})"));
    EXPECT_EQ(lines[1], *json::parse(R"({"event":"connected"})"));
    EXPECT_EQ(lines[2]["debug"]["level"], "success");
}

TEST(RealtimeProbe, TheDrainEndsAfterSixQuietTenthsAndIsCutAtTwoAndAHalfSeconds) {
    ProbeHarness quiet;
    quiet.run(RealtimeProbe::kChunkBytes * 3);  // last chunk at 0.08, stream over at 0.12
    quiet.scheduler.advance(0.1);
    quiet.connection().text(R"({"type":"session.output_transcript.delta","delta":"你好"})");
    quiet.scheduler.advance(0.58);  // 0.68: the delta is 0.58 old
    EXPECT_FALSE(quiet.closed());
    quiet.scheduler.advance(0.14);  // the next look finds 0.6 passed
    EXPECT_TRUE(quiet.closed());
    EXPECT_EQ(quiet.status, kOk);
    EXPECT_EQ(quiet.lines()[3], *json::parse(R"({"event":"outputTranscriptDelta","text":"你好"})"));

    ProbeHarness talking;
    talking.run(RealtimeProbe::kChunkBytes);  // stream over at 0.04
    for (int i = 0; i < 30 && !talking.closed(); ++i) {
        talking.connection().text(R"({"type":"session.input_transcript.delta","delta":"あ"})");
        talking.scheduler.advance(0.1);
    }
    EXPECT_TRUE(talking.closed());
    EXPECT_GE(talking.scheduler.now().seconds, 0.04 + 2.5 - 1e-9);
    EXPECT_LE(talking.scheduler.now().seconds, 0.04 + 2.5 + 0.12 + 0.1);
}

TEST(RealtimeProbe, AtFullSpeedEverythingGoesWithoutWaiting) {
    ProbeHarness h;
    h.run(RealtimeProbe::kChunkBytes * 50, false);
    h.scheduler.runUntilIdle();
    EXPECT_EQ(h.appends(), 50u);
    EXPECT_EQ(h.status, kOk);
    EXPECT_EQ(h.scheduler.now().seconds, 0.0);
}

TEST(RealtimeProbe, EndsEarlyWhenTheSessionIsOverFromTheOtherSide) {
    ProbeHarness closedByServer;
    closedByServer.run(RealtimeProbe::kChunkBytes * 100);
    closedByServer.scheduler.advance(0.1);
    closedByServer.connection().text(R"({"type":"session.closed"})");
    closedByServer.scheduler.advance(0.1);
    EXPECT_EQ(closedByServer.status, kOk);
    EXPECT_LT(closedByServer.appends(), 10u);
    EXPECT_EQ(closedByServer.types().back(), "session.input_audio_buffer.append");  // no session.close
    EXPECT_EQ(closedByServer.lines().back()["debug"]["title"], "Realtime 同传已关闭");

    ProbeHarness lost;
    lost.run(RealtimeProbe::kChunkBytes * 100);
    lost.scheduler.advance(0.1);
    lost.connection().end(WebSocketEnd::Reason::failed, "The remote host closed the connection");
    lost.scheduler.advance(0.1);
    EXPECT_EQ(lost.status, kFailed);
    EXPECT_EQ(lost.lines()[3], *json::parse(R"({"event":"failed","message":"The remote host closed the connection","code":"realtime_receive_failed"})"));
}

TEST(RealtimeProbe, AStartThatFailsSaysWhyAndFails) {
    ProbeHarness h;
    h.run(RealtimeProbe::kChunkBytes, true, " ");
    h.scheduler.runUntilIdle();
    EXPECT_EQ(h.status, kFailed);
    EXPECT_EQ(h.err.str(), "ossevra-cli: 缺少 OpenAI API Key。请在设置里粘贴，或用 OPENAI_API_KEY 启动应用。\n");
}

}  // namespace
}  // namespace osv::cli
