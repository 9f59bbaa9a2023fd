// The recorders beside a private PulseAudio daemon (with-pulseaudio.sh): a tone plays into
// the sinks while they record, and the chunk files must decode with FFmpeg to the audio
// that went in, within 5 %.

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>

#include "audio/RealtimePCMEncoder.h"
#include "core/AtomicFile.h"
#include "core/Uuid.h"
#include "platform/ffmpeg/AacFileWriter.h"
#include "platform/pulse/ChunkRecorders.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class ChunkRecordersTest : public ::testing::Test {
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
        players.emplace_back([this, device] { std::system(("paplay --device=" + device + " " + (dir / "tone.wav").string()).c_str()); });
    }

    // Real audio takes real time (and a player a moment to start): waits for `done`.
    template <class Done>
    static bool waitFor(Done done, std::chrono::milliseconds limit = 10'000ms) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < end) {
            if (done()) return true;
            std::this_thread::sleep_for(20ms);
        }
        return done();
    }

    fs::path dir = fs::temp_directory_path() / ("osv-recorders-" + Uuid::random().text());
    std::vector<std::thread> players;
    std::mutex lock;
    std::vector<fs::path> chunks;
};

TEST_F(ChunkRecordersTest, SystemChunksAreAacOfTheirLengthAndTheMicrophoneWritesWav) {
    SystemAudioChunkRecorder system;
    AudioChunkRecorder microphone;
    std::size_t systemPCM = 0;
    RecorderCallbacks systemCallbacks;
    systemCallbacks.onChunk = [&](const fs::path& p) {
        std::lock_guard guard(lock);
        chunks.push_back(p);
    };
    systemCallbacks.onRealtimePCM = [&](const PCMBytes& pcm) {
        std::lock_guard guard(lock);
        systemPCM += pcm.size();
    };
    RecorderCallbacks micCallbacks = systemCallbacks;
    micCallbacks.onRealtimePCM = nullptr;
    ASSERT_TRUE(system.start(1.0, 1024, systemCallbacks, true));
    ASSERT_TRUE(microphone.start(1.0, micCallbacks, true));
    playInBackground("speakers");
    playInBackground("room");
    ASSERT_TRUE(waitFor([&] {
        std::lock_guard guard(lock);
        return systemPCM >= 3u * 48'000u && chunks.size() >= 5;
    }));
    const auto lastSystem = system.stop(true);
    const auto lastMicrophone = microphone.stop(true);

    std::lock_guard guard(lock);
    int m4a = 0, wav = 0;
    for (const auto& c : chunks) {
        const auto seconds = mediaDurationSeconds(c);
        ASSERT_TRUE(seconds) << c;
        EXPECT_NEAR(*seconds, 1.0, 0.05) << c;  // full chunks: one second of audio each
        (c.extension() == ".m4a" ? m4a : wav) += 1;
        EXPECT_EQ(c.filename().string().rfind(c.extension() == ".m4a" ? "osv-system-" : "osv-", 0), 0u);
        fs::remove(c);
    }
    EXPECT_GE(m4a, 2);
    EXPECT_GE(wav, 2);
    for (const auto& last : {lastSystem, lastMicrophone})
        if (last) fs::remove(*last);
}

TEST_F(ChunkRecordersTest, MixedChunksHoldWhatBothSidesDelivered) {
    MixedAudioChunkRecorder mixed;
    std::size_t systemBytes = 0, microphoneBytes = 0;
    MixedAudioChunkRecorder::Callbacks callbacks;
    callbacks.onChunk = [&](const fs::path& p) {
        std::lock_guard guard(lock);
        chunks.push_back(p);
    };
    callbacks.onSystemPCM = [&](const PCMBytes& pcm) {
        std::lock_guard guard(lock);
        systemBytes += pcm.size();
    };
    callbacks.onMicrophonePCM = [&](const PCMBytes& pcm) {
        std::lock_guard guard(lock);
        microphoneBytes += pcm.size();
    };
    auto report = mixed.start(1.0, 1024, callbacks, true);
    ASSERT_TRUE(report) << report.error().message;
    EXPECT_TRUE(report->systemStarted);
    EXPECT_TRUE(report->microphoneStarted);
    EXPECT_EQ(MixedAudioChunkRecorder::degradedCapture(*report), std::nullopt);
    playInBackground("speakers");
    playInBackground("room");
    ASSERT_TRUE(waitFor([&] {
        std::lock_guard guard(lock);
        return systemBytes >= 3u * 48'000u && microphoneBytes >= 3u * 48'000u;
    }));
    const auto last = mixed.stop(true);
    std::lock_guard guard(lock);
    if (last) chunks.push_back(*last);
    double total = 0;
    for (const auto& c : chunks) total += mediaDurationSeconds(c).value();
    // Stereo chunks pair the sides by arrival: their length is the longer side's.
    const double delivered = double(std::max(systemBytes, microphoneBytes)) / 48'000.0;
    EXPECT_GT(delivered, 2.0);
    EXPECT_NEAR(total, delivered, delivered * 0.05);
    for (const auto& c : chunks) fs::remove(c);
}

}  // namespace
}  // namespace osv
