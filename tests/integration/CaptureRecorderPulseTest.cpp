// The recorder over PulseAudio beside a private daemon (with-pulseaudio.sh): a tone plays
// into the sinks while it records; the chunk files must decode with FFmpeg, and the
// recording must span the wall clock from start to stop, also when a sink is idle.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "audio/CaptureRecorder.h"
#include "audio/SerialChunkWriter.h"
#include "core/AtomicFile.h"
#include "core/Uuid.h"
#include "platform/ffmpeg/AacFileWriter.h"
#include "platform/pulse/PulseFrameSource.h"
#include "platform/qt/QtScheduler.h"
#include "audio/PCM16WavWriter.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

bool waitFor(const std::function<bool()>& done, double seconds = 15.0) {
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > qint64(seconds * 1000)) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
    }
    return true;
}

class CaptureRecorderPulseTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(dir);
        // Eight seconds of a 440 Hz tone, loud enough to count as speech.
        PCMBytes pcm;
        for (int i = 0; i < 8 * 24'000; ++i) {
            const auto v = std::int16_t(8000 * std::sin(2 * M_PI * 440 * i / 24'000.0));
            pcm.push_back(std::uint8_t(std::uint16_t(v) & 0xFF));
            pcm.push_back(std::uint8_t(std::uint16_t(v) >> 8));
        }
        const PCMBytes wav = PCM16WavWriter::data(pcm, 24'000, 1);
        ASSERT_TRUE(writeFileAtomically(dir / "tone.wav", std::string(wav.begin(), wav.end())));
    }
    void TearDown() override {
        for (auto& t : players)
            if (t.joinable()) t.join();
        fs::remove_all(dir);
    }
    void playInBackground(const std::string& device) {
        players.emplace_back(
            [this, device] { std::system(("paplay --device=" + device + " " + (dir / "tone.wav").string()).c_str()); });
    }
    CaptureRecorder::Options options(CaptureRecorder::Mode mode) {
        CaptureRecorder::Options o;
        o.mode = mode;
        o.chunkSeconds = 1.0;
        o.minimumChunkBytes = 1024;
        o.chunkDirectory = dir;
        o.chunkPrefix = "rec-chunk-";
        return o;
    }
    std::optional<fs::path> stop(CaptureRecorder& recorder) {
        std::optional<std::optional<fs::path>> last;
        recorder.stop([&](std::optional<fs::path> p) { last = p; });
        EXPECT_TRUE(waitFor([&] { return last.has_value(); }));
        return last.value_or(std::nullopt);
    }
    double totalSeconds() const {
        double total = 0;
        for (const auto& c : chunks)
            if (auto seconds = mediaDurationSeconds(c)) total += *seconds;
        return total;
    }

    fs::path dir = fs::temp_directory_path() / ("osv-capture-" + Uuid::random().text());
    std::vector<std::thread> players;
    std::vector<fs::path> chunks;
    QtScheduler scheduler;
    PulseFrameSourceFactory sources;
    SerialChunkWriter writer{scheduler};
};

TEST_F(CaptureRecorderPulseTest, SeparateSidesMakeStereoChunksAsLongAsTheSession) {
    CaptureRecorder recorder(scheduler, sources, writer);
    std::size_t systemBytes = 0, microphoneBytes = 0;
    CaptureRecorder::Callbacks callbacks;
    callbacks.onChunk = [&](const fs::path& p) { chunks.push_back(p); };
    callbacks.onSystemPCM = [&](const PCMBytes& pcm) { systemBytes += pcm.size(); };
    callbacks.onMicrophonePCM = [&](const PCMBytes& pcm) { microphoneBytes += pcm.size(); };
    auto opts = options(CaptureRecorder::Mode::mixed);
    opts.preserveRecordingChannels = true;
    QElapsedTimer clock;
    clock.start();
    auto report = recorder.start(opts, callbacks);
    ASSERT_TRUE(report) << report.error().message;
    EXPECT_TRUE(report->systemStarted && report->microphoneStarted);
    playInBackground("speakers");
    playInBackground("room");
    ASSERT_TRUE(waitFor([&] { return systemBytes >= 3u * 48'000u && microphoneBytes >= 3u * 48'000u; }));
    const auto last = stop(recorder);
    const double wall = double(clock.elapsed()) / 1000.0;
    if (last) chunks.push_back(*last);
    ASSERT_GE(chunks.size(), 3u);
    for (const auto& c : chunks) EXPECT_EQ(c.filename().string().rfind("rec-chunk-", 0), 0u) << c;
    EXPECT_NEAR(totalSeconds(), wall, 0.3);
}

TEST_F(CaptureRecorderPulseTest, AnIdleSinkIsRecordedAsSilenceForTheWholeSession) {
    CaptureRecorder recorder(scheduler, sources, writer);
    std::size_t sent = 0;
    CaptureRecorder::Callbacks callbacks;
    callbacks.onChunk = [&](const fs::path& p) { chunks.push_back(p); };
    callbacks.onRealtimePCM = [&](const PCMBytes& pcm) { sent += pcm.size(); };
    QElapsedTimer clock;
    clock.start();
    ASSERT_TRUE(recorder.start(options(CaptureRecorder::Mode::systemAudio), callbacks));
    waitFor([] { return false; }, 3.0);  // nothing plays
    const auto last = stop(recorder);
    const double wall = double(clock.elapsed()) / 1000.0;
    if (last) chunks.push_back(*last);
    EXPECT_NEAR(totalSeconds(), wall, 0.3);
}

}  // namespace
}  // namespace osv
