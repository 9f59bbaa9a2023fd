#pragma once

// Capture over PulseAudio (also PipeWire through pipewire-pulse). The computer's sound is
// the monitor of the default sink, taken by its name; the microphone is the default source,
// or an echo-cancelling source where the server offers one. A capture follows the server's
// default of its own kind when the user switches devices, and never falls over to the
// other kind.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Expected.h"

namespace osv {

struct AudioDevice {
    std::string name;
    std::string description;
    bool isDefault = false;
    bool isMonitor = false;     // a sink's monitor (the sound it plays)
    bool isEchoCancel = false;  // an echo-cancelling source: stands for voice processing
    int sampleRate = 0;
    int channels = 0;
    std::string monitoredSink;  // the sink a monitor listens to
};

struct AudioDevices {
    std::vector<AudioDevice> sources;
    std::vector<AudioDevice> sinks;
    std::string defaultSink;
    std::string defaultSource;
    bool hasEchoCancelSource() const;
};

// Asks the sound server once. Error code "sound_server_unreachable" when none answers.
Expected<AudioDevices> listAudioDevices();

class PulseCapture {
public:
    enum class Follow { defaultSinkMonitor, defaultSource };
    struct Format {
        int sampleRate = 48'000;
        int channels = 2;
    };
    // Interleaved float frames, on the capture thread.
    using OnFrames = std::function<void(const float* interleaved, std::size_t frames, const Format& format)>;
    // Device changes and losses, on the capture thread: a title, details and a code.
    // "capture_device_lost": the device went away; the capture waits for the server's new
    // default. "capture_device_followed": it moved to that default.
    // "capture_default_is_monitor": a microphone capture whose new default source is a
    // sink's monitor, which it does not take; it waits for a real source.
    using OnEvent = std::function<void(const std::string& title, const std::string& details, const std::string& code)>;

    PulseCapture();
    ~PulseCapture();
    PulseCapture(const PulseCapture&) = delete;
    PulseCapture& operator=(const PulseCapture&) = delete;

    // `format` none: the device's own rate and channels. Error codes:
    // "sound_server_unreachable", "no_capture_device", "capture_failed".
    Expected<void> start(Follow follow, std::optional<Format> format, OnFrames onFrames, OnEvent onEvent);
    void stop();
    bool isRunning() const;
    // The device captured now.
    std::string currentDevice() const;
    Format format() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace osv
