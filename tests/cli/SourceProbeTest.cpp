// The source probe's model choice, pacing, resampling and ending, in virtual time.

#include <gtest/gtest.h>

#include <sstream>

#include "cli/Cli.h"
#include "cli/SourceProbe.h"
#include "core/Json.h"
#include "core/ManualScheduler.h"
#include "services/FakeWebSocketTransport.h"
#include "services/ScriptedHttpTransport.h"

namespace osv::cli {
namespace {

using json::Json;

TEST(SourceProbeModel, AskedElseConfiguredForThatVendorElseTheVendorsDefault) {
    TranslatorSettings s;
    EXPECT_EQ(sourceProbeModel(SourceVendor::openAI, std::nullopt, s), "gpt-transcribe");
    EXPECT_EQ(sourceProbeModel(SourceVendor::gemini, std::nullopt, s), "gemini-3.5-transcribe-live");
    EXPECT_EQ(sourceProbeModel(SourceVendor::gemini, std::string("gemini-x-live"), s), "gemini-x-live");
    s.models.set("gemini-2-live", ModelJob::realtimeTranscribe, std::nullopt);
    EXPECT_EQ(sourceProbeModel(SourceVendor::gemini, std::nullopt, s), "gemini-2-live");
    EXPECT_EQ(sourceProbeModel(SourceVendor::openAI, std::nullopt, s), "gpt-transcribe");
    s.models.set("gpt-live-transcribe", ModelJob::realtimeTranscribe, AppMode::interpret);
    EXPECT_EQ(sourceProbeModel(SourceVendor::openAI, std::nullopt, s), "gpt-live-transcribe");
}

struct Harness {
    testing::FakeWebSocketTransport sockets;
    testing::ScriptedHttpTransport http;
    ManualScheduler scheduler;
    std::ostringstream out, err;
    ServiceEndpoints endpoints{"http://127.0.0.1:9/v1", "http://127.0.0.1:9", "", "", ""};
    SourceProbe probe{scheduler, sockets, http, endpoints, out, err};
    std::optional<int> status;

    void run(SourceVendor vendor, std::vector<std::uint8_t> pcm, bool realTime = true) {
        TranslatorSettings settings;
        settings.apiKey = "sk-test";
        settings.geminiAPIKey = "g-test";
        SourceProbe::Options options;
        options.vendor = vendor;
        options.model = vendor == SourceVendor::gemini ? "gemini-3.5-transcribe-live" : "gpt-transcribe";
        options.realTime = realTime;
        probe.run(settings, std::move(pcm), options, [this](int s) { status = s; });
        sockets.last().accept();
    }
    std::vector<std::string> sent() { return sockets.last().sent; }
    std::vector<Json> lines() {
        std::vector<Json> result;
        std::istringstream in(out.str());
        std::string line;
        while (std::getline(in, line)) result.push_back(*json::parse(line));
        return result;
    }
};

std::vector<std::uint8_t> loud(std::size_t bytes) {
    std::vector<std::uint8_t> pcm(bytes);
    for (std::size_t i = 0; i + 1 < bytes; i += 2) pcm[i + 1] = (i / 2) % 2 ? 0x40 : 0xC0;
    return pcm;
}

TEST(SourceProbe, GeminiGetsSixteenKilohertzChunksInRealTimeAndDrainsAfterTheEndOfAudio) {
    Harness h;
    h.run(SourceVendor::gemini, loud(SourceProbe::kChunkBytes * 3));
    h.sockets.last().text(R"({"setupComplete":{}})");
    h.scheduler.runUntilIdle();
    ASSERT_EQ(h.sent().size(), 2u);  // the setup, the first chunk
    EXPECT_EQ(Json::parse(h.sent()[1])["realtimeInput"]["audio"]["data"].get<std::string>().size(), 1708u);  // 1,280 bytes
    h.scheduler.advance(0.04);
    EXPECT_EQ(h.sent().size(), 3u);
    h.scheduler.advance(0.08);
    ASSERT_EQ(h.sent().size(), 5u);
    EXPECT_EQ(Json::parse(h.sent()[4]), Json::parse(R"({"realtimeInput":{"audioStreamEnd":true}})"));
    // Words after the end keep the drain open; 0.6 s of quiet ends it.
    h.scheduler.advance(0.5);
    h.sockets.last().text(R"({"serverContent":{"inputTranscription":{"text":"おわり"}}})");
    h.scheduler.advance(0.5);
    EXPECT_FALSE(h.status);
    h.scheduler.advance(0.25);  // the next poll after 0.6 s of quiet
    ASSERT_EQ(h.status, kOk);
    EXPECT_EQ(h.sockets.last().closeCode, 1001);
    EXPECT_EQ(h.probe.bytesSent(), 3u * 1280u);
    EXPECT_EQ(h.lines().back(), Json::parse(R"({"event":"final","text":"おわり"})"));
}

TEST(SourceProbe, OpenAIWaitsForTheLastTranscriptThenClosesNormally) {
    Harness h;
    h.run(SourceVendor::openAI, loud(SourceProbe::kChunkBytes * 3), false);
    h.sockets.last().text(R"({"type":"session.updated"})");
    h.scheduler.runUntilIdle();
    const auto sent = h.sent();
    ASSERT_EQ(sent.size(), 5u);  // configuration, three chunks, the final commit
    EXPECT_EQ(Json::parse(sent[4])["type"], "input_audio_buffer.commit");
    EXPECT_FALSE(h.status);
    h.sockets.last().text(R"({"type":"input_audio_buffer.committed","item_id":"a"})");
    h.sockets.last().text(R"({"type":"conversation.item.input_audio_transcription.completed","item_id":"a","transcript":"好"})");
    h.scheduler.advance(0.04);
    ASSERT_EQ(h.status, kOk);
    EXPECT_EQ(h.sockets.last().closeCode, 1000);
    std::vector<Json> events;
    for (auto& l : h.lines())
        if (l.contains("event")) events.push_back(l);
    EXPECT_EQ(events, (std::vector<Json>{Json::parse(R"({"event":"delta","text":"好"})"),
                                         Json::parse(R"({"event":"turnEnded"})")}));
}

TEST(SourceProbe, AStartThatFailsEndsWithTheUsersText) {
    Harness h;
    h.run(SourceVendor::gemini, loud(100));
    h.sockets.last().text("not json");
    h.scheduler.runUntilIdle();
    EXPECT_EQ(h.status, kFailed);
    EXPECT_EQ(h.err.str(), "ossevra-cli: OpenAI API 错误：Gemini 实时会话没有返回可解析的握手响应。\n");
    EXPECT_EQ(h.sockets.last().closeCode, 1001);
}

}  // namespace
}  // namespace osv::cli
