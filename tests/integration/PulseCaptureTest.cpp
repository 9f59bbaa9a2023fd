// Runs beside a private PulseAudio daemon (with-pulseaudio.sh): plays speech made with
// espeak-ng into its sinks and checks what the captures deliver.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>

#include "audio/ChannelGates.h"
#include "audio/RealtimePCMEncoder.h"
#include "core/Uuid.h"
#include "platform/pulse/PulseCapture.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// What one capture delivered, through the same gates live audio goes through.
struct Listener {
    std::mutex lock;
    std::size_t frames = 0;
    SpeechWitness witness;
    ChannelWakeup wakeup;
    bool woke = false;
    float loudestPeak = 0;

    PulseCapture::OnFrames sink() {
        return [this](const float* data, std::size_t count, const PulseCapture::Format& f) {
            const PCMBufferView view{data, nullptr, count, f.channels, double(f.sampleRate),
                                     PCMBufferView::SampleFormat::float32, true, false};
            PCMBytes pcm = RealtimePCMEncoder::pcm16Mono24k(view);
            const float peak = pcm16Peak(pcm);
            std::lock_guard guard(lock);
            frames += count;
            loudestPeak = std::max(loudestPeak, peak);
            witness.observe(peak, Date::now());
            if (wakeup.consider(std::move(pcm))) woke = true;
        };
    }
    void reset() {
        std::lock_guard guard(lock);
        frames = 0;
        witness = {};
        wakeup = {};
        woke = false;
        loudestPeak = 0;
    }
    bool heardSpeech() {
        std::lock_guard guard(lock);
        return witness.lastSpeechAt.has_value() && woke;
    }
};

class PulseCaptureTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        speech = fs::temp_directory_path() / ("osv-speech-" + Uuid::random().text());
        fs::create_directories(speech);
        ASSERT_EQ(std::system(("espeak-ng -v cmn -w " + (speech / "zh.wav").string() + " '你好，我们开始开会吧。'").c_str()), 0);
        ASSERT_EQ(std::system(("espeak-ng -v ja -w " + (speech / "ja.wav").string() + " 'こんにちは、よろしくお願いします。'").c_str()), 0);
    }
    static void TearDownTestSuite() { fs::remove_all(speech); }

    static void play(const std::string& file, const std::string& device) {
        ASSERT_EQ(std::system(("paplay --device=" + device + " " + (speech / file).string()).c_str()), 0);
    }
    // Real audio takes real time: waits until `done` or a few seconds have passed.
    template <class Done>
    static bool waitFor(Done done, std::chrono::milliseconds limit = 5000ms) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < end) {
            if (done()) return true;
            std::this_thread::sleep_for(20ms);
        }
        return done();
    }

    static fs::path speech;
};
fs::path PulseCaptureTest::speech;

TEST_F(PulseCaptureTest, ListsDevicesWithTheDefaults) {
    const auto devices = listAudioDevices();
    ASSERT_TRUE(devices) << devices.error().message;
    EXPECT_EQ(devices->defaultSink, "speakers");
    EXPECT_EQ(devices->defaultSource, "mic");
    EXPECT_EQ(devices->sinks.size(), 3u);
    bool monitorSeen = false;
    for (const auto& s : devices->sources) monitorSeen |= s.name == "speakers.monitor" && s.isMonitor;
    EXPECT_TRUE(monitorSeen);
    EXPECT_FALSE(devices->hasEchoCancelSource());
}

TEST_F(PulseCaptureTest, SystemSoundIsTheDefaultSinksMonitorAndFollowsASwitch) {
    Listener system, microphone;
    PulseCapture systemCapture, micCapture;
    std::vector<std::string> events;
    std::mutex eventsLock;
    auto onEvent = [&](const std::string&, const std::string&, const std::string& code) {
        std::lock_guard guard(eventsLock);
        events.push_back(code);
    };
    ASSERT_TRUE(systemCapture.start(PulseCapture::Follow::defaultSinkMonitor, PulseCapture::Format{48'000, 2},
                                    system.sink(), onEvent));
    ASSERT_TRUE(micCapture.start(PulseCapture::Follow::defaultSource, std::nullopt, microphone.sink(), onEvent));
    EXPECT_EQ(systemCapture.currentDevice(), "speakers.monitor");
    EXPECT_EQ(micCapture.currentDevice(), "mic");

    play("zh.wav", "speakers");
    EXPECT_TRUE(waitFor([&] { return system.heardSpeech(); }));
    // Nobody spoke in the room: the microphone delivers audio but never wakes.
    EXPECT_TRUE(waitFor([&] {
        std::lock_guard guard(microphone.lock);
        return microphone.frames > 24'000;
    }));
    EXPECT_FALSE(microphone.heardSpeech());

    // Headphones plugged in: the default sink changes and the capture follows within a second.
    const auto switchedAt = std::chrono::steady_clock::now();
    ASSERT_EQ(std::system("pactl set-default-sink headphones"), 0);
    EXPECT_TRUE(waitFor([&] { return systemCapture.currentDevice() == "headphones.monitor"; }, 1000ms));
    EXPECT_LT(std::chrono::steady_clock::now() - switchedAt, 1000ms);
    system.reset();
    play("zh.wav", "headphones");
    EXPECT_TRUE(waitFor([&] { return system.heardSpeech(); }));
    {
        std::lock_guard guard(eventsLock);
        EXPECT_NE(std::find(events.begin(), events.end(), "capture_device_followed"), events.end());
    }

    // Speech in the room reaches the microphone, and only the microphone.
    system.reset();
    play("ja.wav", "room");
    EXPECT_TRUE(waitFor([&] { return microphone.heardSpeech(); }));
    EXPECT_FALSE(system.heardSpeech());
    systemCapture.stop();
    micCapture.stop();
    ASSERT_EQ(std::system("pactl set-default-sink speakers"), 0);
}

}  // namespace
}  // namespace osv
