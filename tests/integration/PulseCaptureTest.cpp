// Runs beside a private PulseAudio daemon (with-pulseaudio.sh): plays speech made with
// espeak-ng into its sinks and checks what the captures deliver.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <stdexcept>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>

#include "audio/ChannelGates.h"
#include "audio/RealtimePCMEncoder.h"
#include "audio/AudioLevel.h"
#include "core/EntryGuard.h"
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

// Collects a capture's events from the capture thread.
struct Events {
    std::mutex lock;
    std::vector<std::pair<std::string, std::string>> seen;  // code, details
    PulseCapture::OnEvent sink() {
        return [this](const std::string&, const std::string& details, const std::string& code) {
            std::lock_guard guard(lock);
            seen.emplace_back(code, details);
        };
    }
    std::optional<std::string> details(const std::string& code) {
        std::lock_guard guard(lock);
        for (const auto& [c, d] : seen)
            if (c == code) return d;
        return std::nullopt;
    }
};

// Unloads the module that made a device, by the argument that named it.
void unloadModuleWith(const std::string& argument) {
    const std::string command = "pactl unload-module $(pactl list short modules | awk '/" + argument + " /{print $1}')";
    ASSERT_EQ(std::system(command.c_str()), 0);
}

TEST_F(PulseCaptureTest, AVanishedSinkIsFollowedToTheNewDefault) {
    Listener system;
    Events events;
    PulseCapture capture;
    ASSERT_TRUE(capture.start(PulseCapture::Follow::defaultSinkMonitor, std::nullopt, system.sink(), events.sink()));
    ASSERT_EQ(capture.currentDevice(), "speakers.monitor");

    unloadModuleWith("sink_name=speakers");
    EXPECT_TRUE(waitFor([&] { return events.details("capture_device_followed").has_value(); }));
    const auto lost = events.details("capture_device_lost");
    ASSERT_TRUE(lost);
    EXPECT_NE(lost->find("speakers.monitor"), std::string::npos);
    const std::string now = capture.currentDevice();
    EXPECT_TRUE(now == "headphones.monitor" || now == "room.monitor") << now;
    system.reset();
    play("zh.wav", now.substr(0, now.size() - 8));
    EXPECT_TRUE(waitFor([&] { return system.heardSpeech(); }));
    capture.stop();

    ASSERT_EQ(std::system("pactl load-module module-null-sink sink_name=speakers "
                          "sink_properties=device.description=Speakers >/dev/null && pactl set-default-sink speakers"),
              0);
}

// With the microphone gone the server makes a sink's monitor the default source: the
// capture does not take the computer's sound for the microphone, says why, and comes back
// when a microphone does.
TEST_F(PulseCaptureTest, AVanishedMicrophoneIsNotReplacedByAMonitor) {
    Listener microphone;
    Events events;
    PulseCapture capture;
    ASSERT_TRUE(capture.start(PulseCapture::Follow::defaultSource, std::nullopt, microphone.sink(), events.sink()));
    ASSERT_EQ(capture.currentDevice(), "mic");

    unloadModuleWith("source_name=mic");
    EXPECT_TRUE(waitFor([&] { return events.details("capture_default_is_monitor").has_value(); }));
    EXPECT_TRUE(events.details("capture_device_lost"));
    EXPECT_FALSE(events.details("capture_device_followed"));
    const auto notice = events.details("capture_default_is_monitor");
    ASSERT_TRUE(notice);
    const auto devices = listAudioDevices();
    ASSERT_TRUE(devices);
    EXPECT_NE(notice->find(devices->defaultSource), std::string::npos) << *notice;
    EXPECT_NE(notice->find("监听源"), std::string::npos) << *notice;

    PulseCapture another;
    const auto refused = another.start(PulseCapture::Follow::defaultSource, std::nullopt, {}, {});
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, "no_capture_device");
    EXPECT_NE(refused.error().message.find(devices->defaultSource + " 是输出设备"), std::string::npos)
        << refused.error().message;

    ASSERT_EQ(std::system("pactl load-module module-remap-source master=room.monitor source_name=mic "
                          "source_properties=device.description=Microphone >/dev/null && pactl set-default-source mic"),
              0);
    EXPECT_TRUE(waitFor([&] { return capture.currentDevice() == "mic" && events.details("capture_device_followed"); }));
    play("ja.wav", "room");
    EXPECT_TRUE(waitFor([&] { return microphone.heardSpeech(); }));
    capture.stop();
}

// An exception from the frames callback stays in the capture thread's guard.
TEST_F(PulseCaptureTest, AThrowingFramesCallbackDoesNotEndTheCapture) {
    std::vector<std::string> caught;
    std::mutex lock;
    setEscapedExceptionHandler([&](std::string_view where, std::string_view) {
        std::lock_guard guard(lock);
        caught.emplace_back(where);
    });
    std::atomic<std::size_t> calls{0};
    PulseCapture capture;
    ASSERT_TRUE(capture.start(PulseCapture::Follow::defaultSinkMonitor, std::nullopt,
                              [&](const float*, std::size_t, const PulseCapture::Format&) {
                                  if (calls++ < 3) throw std::runtime_error("temp_directory_path: no folder");
                              },
                              {}));
    EXPECT_TRUE(waitFor([&] { return calls > 20; }));
    EXPECT_TRUE(capture.isRunning());
    capture.stop();
    setEscapedExceptionHandler({});
    std::lock_guard guard(lock);
    EXPECT_EQ(caught, (std::vector<std::string>{"PulseCapture frames"}));
}

}  // namespace
}  // namespace osv
