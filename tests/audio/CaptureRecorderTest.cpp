#include <gtest/gtest.h>

#include "audio/CaptureRecorder.h"
#include "audio/ScriptedFrameSources.h"
#include "core/ManualScheduler.h"

namespace osv {
namespace {

using testing::MemoryChunkWriter;
using testing::ScriptedFrameSources;
using Mode = CaptureRecorder::Mode;

struct Harness {
    ManualScheduler scheduler{Date(1000.0)};
    ScriptedFrameSources sources;
    MemoryChunkWriter writer{scheduler};
    CaptureRecorder recorder{scheduler, sources, writer};
    std::vector<PCMBytes> realtime, system, microphone;
    std::vector<std::filesystem::path> emitted;
    std::vector<double> levels;
    std::optional<std::optional<std::filesystem::path>> last;

    CaptureRecorder::Options options(Mode mode, double chunkSeconds = 2.0) {
        CaptureRecorder::Options o;
        o.mode = mode;
        o.chunkSeconds = chunkSeconds;
        o.chunkDirectory = "/chunks";
        o.chunkPrefix = "rec-chunk-";
        return o;
    }
    CaptureRecorder::Callbacks callbacks(bool perSide = false) {
        CaptureRecorder::Callbacks c;
        c.onLevel = [this](double l) { levels.push_back(l); };
        c.onChunk = [this](const std::filesystem::path& p) { emitted.push_back(p); };
        if (perSide) {
            c.onSystemPCM = [this](const PCMBytes& b) { system.push_back(b); };
            c.onMicrophonePCM = [this](const PCMBytes& b) { microphone.push_back(b); };
        } else {
            c.onRealtimePCM = [this](const PCMBytes& b) { realtime.push_back(b); };
        }
        return c;
    }
    void stop() {
        recorder.stop([this](std::optional<std::filesystem::path> p) { last = p; });
        scheduler.runUntilIdle();
    }
    double recordedSeconds() const {
        double total = 0;
        for (const auto& c : writer.chunks) total += c.seconds();
        return total;
    }
};

TEST(CaptureRecorderTest, OneSideDeliversWorkingFormatAndCutsChunksOnTheSchedule) {
    Harness h;
    ASSERT_TRUE(h.recorder.start(h.options(Mode::microphone), h.callbacks()));
    // 48 kHz capture arrives as 24 kHz working format on the main thread, not inside the callback.
    h.sources[CaptureSide::microphone].play(0.5, 0.5f, 48'000);
    EXPECT_TRUE(h.realtime.empty());
    h.scheduler.runUntilIdle();
    ASSERT_EQ(h.realtime.size(), 1u);
    EXPECT_EQ(h.realtime[0].size(), 24'000u);  // 0.5 s × 24,000 × 2 bytes
    EXPECT_NEAR(h.levels.back(), 1.0, 1e-9);   // RMS 0.5 × 8, capped

    for (int i = 0; i < 3; ++i) {
        h.scheduler.advance(0.5);
        h.sources[CaptureSide::microphone].play(0.5, 0.1f);
    }
    h.scheduler.advance(0.5);
    // The first chunk is cut after two seconds, named for the recording, in the working format.
    ASSERT_EQ(h.writer.chunks.size(), 1u);
    EXPECT_EQ(h.writer.chunks[0].path.rfind("/chunks/rec-chunk-", 0), 0u);
    EXPECT_NEAR(h.writer.chunks[0].seconds(), 2.0, 0.05);
    EXPECT_EQ(h.emitted.size(), 1u);
    h.sources[CaptureSide::microphone].play(0.3, 0.1f);
    h.scheduler.advance(0.3);
    h.stop();
    ASSERT_TRUE(h.last && *h.last);
    EXPECT_FALSE(h.recorder.isRunning());
}

TEST(CaptureRecorderTest, ARecordingSpansTheWallClockWhenASideDeliversNothing) {
    Harness h;
    ASSERT_TRUE(h.recorder.start(h.options(Mode::systemAudio, 100), h.callbacks()));
    // An idle sink's monitor: one second of sound, then nothing for four.
    h.sources[CaptureSide::system].play(1.0, 0.2f);
    h.scheduler.advance(1.0);
    h.scheduler.advance(4.0);
    h.stop();
    ASSERT_EQ(h.writer.chunks.size(), 1u);
    EXPECT_NEAR(h.writer.chunks[0].seconds(), 5.0, 0.01);
    // Silence was recorded; nothing of it went to the wire.
    std::size_t sent = 0;
    for (const auto& b : h.realtime) sent += b.size();
    EXPECT_EQ(sent, 48'000u);
}

TEST(CaptureRecorderTest, AudioThatKeepsUpIsNotPaddedAndALateBufferIsKept) {
    Harness h;
    ASSERT_TRUE(h.recorder.start(h.options(Mode::microphone, 100), h.callbacks()));
    for (int i = 0; i < 50; ++i) {
        h.scheduler.advance(0.1);
        h.sources[CaptureSide::microphone].play(0.1, 0.2f);
    }
    h.scheduler.runUntilIdle();
    h.stop();
    EXPECT_NEAR(h.recordedSeconds(), 5.0, 0.001);
}

TEST(CaptureRecorderTest, LeadingSilenceKeepsOffsetsAfterAPause) {
    Harness h;
    auto options = h.options(Mode::microphone, 100);
    options.leadingSilenceSeconds = 3.0;
    ASSERT_TRUE(h.recorder.start(options, h.callbacks()));
    h.sources[CaptureSide::microphone].play(1.0, 0.2f);
    h.scheduler.advance(1.0);
    h.stop();
    EXPECT_NEAR(h.recordedSeconds(), 4.0, 0.01);
}

TEST(CaptureRecorderTest, MixedSeparateKeepsStereoAndHandsEachSideOver) {
    Harness h;
    auto options = h.options(Mode::mixed, 100);
    options.preserveRecordingChannels = true;
    ASSERT_TRUE(h.recorder.start(options, h.callbacks(true)));
    h.sources[CaptureSide::system].play(1.0, 0.2f);
    h.sources[CaptureSide::microphone].play(1.0, 0.0f);
    h.scheduler.advance(1.0);
    h.stop();
    ASSERT_EQ(h.system.size(), 1u);
    ASSERT_EQ(h.microphone.size(), 1u);
    ASSERT_EQ(h.writer.chunks.size(), 1u);
    EXPECT_NEAR(h.writer.chunks[0].seconds(2), 1.0, 0.01);
    // Left is the computer, right the microphone.
    const auto& wav = h.writer.chunks[0].bytes;
    const auto left = std::int16_t(std::uint8_t(wav[44]) | std::uint8_t(wav[45]) << 8);
    const auto right = std::int16_t(std::uint8_t(wav[46]) | std::uint8_t(wav[47]) << 8);
    EXPECT_EQ(left, std::int16_t(0.2 * 32767.0));
    EXPECT_EQ(right, 0);
}

TEST(CaptureRecorderTest, MixedStartDegradesOrFailsWithTheSidesReasons) {
    {
        Harness h;
        h.sources.failures[CaptureSide::microphone] = Error{"microphone_unavailable", "没有麦克风"};
        auto report = h.recorder.start(h.options(Mode::mixed), h.callbacks());
        ASSERT_TRUE(report);
        EXPECT_TRUE(report->systemStarted);
        EXPECT_FALSE(report->microphoneStarted);
        EXPECT_EQ(CaptureRecorder::degradedCapture(*report), "仅系统声音（麦克风不可用）");
        // A lone side is not held back waiting for the other.
        h.sources[CaptureSide::system].play(0.2, 0.2f);
        h.scheduler.advance(0.1);
        EXPECT_FALSE(h.realtime.empty());
    }
    {
        Harness h;
        h.sources.failures[CaptureSide::microphone] = Error{"microphone_unavailable", "没有麦克风"};
        h.sources.failures[CaptureSide::system] = Error{"capture_failed", "没有声卡"};
        auto report = h.recorder.start(h.options(Mode::mixed), h.callbacks());
        ASSERT_FALSE(report);
        EXPECT_EQ(report.error().message, "录音失败：系统声音和麦克风都不可用。系统：没有声卡；麦克风：没有麦克风");
        EXPECT_FALSE(h.recorder.isRunning());
    }
}

TEST(CaptureRecorderTest, TooLittleAudioMakesNoChunkAndAFailedWriteEndsNothing) {
    Harness h;
    auto options = h.options(Mode::microphone, 1.0);
    options.minimumChunkBytes = 4'800;  // 0.1 s
    ASSERT_TRUE(h.recorder.start(options, h.callbacks()));
    h.writer.failWrites = true;
    h.sources[CaptureSide::microphone].play(0.05, 0.2f);
    h.scheduler.advance(0.04);
    // Stop at 0.04 s: 0.05 s delivered is 2,400 bytes, at most the minimum: no chunk.
    h.stop();
    EXPECT_TRUE(h.writer.chunks.empty());
    ASSERT_TRUE(h.last.has_value());
    EXPECT_FALSE(h.last->has_value());
}

TEST(CaptureRecorderTest, DeviceEventsArriveOnTheMainThreadAndALateRecorderIsQuiet) {
    Harness h;
    std::vector<std::string> codes;
    auto callbacks = h.callbacks();
    callbacks.onEvent = [&](const std::string&, const std::string&, const std::string& code) { codes.push_back(code); };
    ASSERT_TRUE(h.recorder.start(h.options(Mode::systemAudio), callbacks));
    h.sources[CaptureSide::system].event("capture_device_lost");
    EXPECT_TRUE(codes.empty());
    h.scheduler.runUntilIdle();
    EXPECT_EQ(codes, std::vector<std::string>{"capture_device_lost"});
}

}  // namespace
}  // namespace osv
