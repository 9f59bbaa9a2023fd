#pragma once

// The recorders: the machine's audio as realtime PCM for the wire clients and as chunk
// files for the fallback pipeline and the recording. Callbacks run on capture threads;
// the controller hands what it needs to the main thread through the Scheduler.

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "audio/LiveAudioMixer.h"
#include "audio/RealtimePCMEncoder.h"
#include "core/Expected.h"
#include "platform/pulse/PulseCapture.h"

namespace osv {

class AacFileWriter;

struct RecorderCallbacks {
    std::function<void(double level)> onLevel;
    std::function<void(const std::filesystem::path& chunk)> onChunk;
    std::function<void(const PCMBytes& pcm)> onRealtimePCM;  // 24 kHz mono 16-bit
    PulseCapture::OnEvent onEvent;                           // device followed or lost
};

// The microphone: WAV chunks "osv-{UUID}.wav" in the input's own rate and channels.
class AudioChunkRecorder {
public:
    struct Preflight {
        int channels = 0;
        int sampleRate = 0;
        std::string device;
    };
    // The input a session would use; error text "没有可用的麦克风输入设备。" when there is none.
    static Expected<Preflight> preflight();

    ~AudioChunkRecorder();
    Expected<void> start(double chunkSeconds, RecorderCallbacks callbacks, bool produceChunkFiles);
    // The last chunk, when asked for and not empty.
    std::optional<std::filesystem::path> stop(bool emitFinalChunk);
    bool isRunning() const { return running_; }

private:
    void onFrames(const float* data, std::size_t frames, const PulseCapture::Format& format);
    std::optional<std::filesystem::path> finishChunk(bool emit);

    PulseCapture capture_;
    std::mutex lock_;
    RecorderCallbacks callbacks_;
    bool produceChunkFiles_ = false;
    std::size_t framesPerChunk_ = 0;
    std::size_t framesInChunk_ = 0;
    PCMBytes chunk_;
    PulseCapture::Format format_;
    std::atomic<bool> running_{false};
};

// The computer's sound: the default sink's monitor at 48,000 samples a second, 2 channels;
// chunks "osv-system-{UUID}.m4a", AAC at 128 kbit/s. A chunk of at most `minimumChunkBytes`
// (or with no audio at all) is deleted and emits nothing.
class SystemAudioChunkRecorder {
public:
    SystemAudioChunkRecorder();
    ~SystemAudioChunkRecorder();
    Expected<void> start(double chunkSeconds, std::size_t minimumChunkBytes, RecorderCallbacks callbacks,
                         bool produceChunkFiles);
    std::optional<std::filesystem::path> stop(bool emitFinalChunk);
    bool isRunning() const { return running_; }

private:
    void onFrames(const float* data, std::size_t frames, const PulseCapture::Format& format);
    std::optional<std::filesystem::path> finishChunk(bool emit);

    PulseCapture capture_;
    std::mutex lock_;
    RecorderCallbacks callbacks_;
    bool produceChunkFiles_ = false;
    std::size_t minimumChunkBytes_ = 0;
    std::size_t framesPerChunk_ = 0;
    std::size_t framesInChunk_ = 0;
    std::unique_ptr<AacFileWriter> writer_;
    std::filesystem::path currentPath_;
    std::atomic<bool> running_{false};
};

// Both sides, mixed by arrival order: live audio in pieces of about 40 ms, and WAV chunks
// "osv-mixed-{UUID}.wav" at 24 kHz, mono or (preserving the channels) stereo.
class MixedAudioChunkRecorder {
public:
    struct StartReport {
        bool systemStarted = false;
        bool microphoneStarted = false;
        std::optional<std::string> systemFailure;
        std::optional<std::string> microphoneFailure;
    };
    struct Callbacks {
        std::function<void(double level)> onLevel;
        std::function<void(const std::filesystem::path& chunk)> onChunk;
        std::function<void(const PCMBytes& pcm)> onRealtimePCM;    // the mono mix
        std::function<void(const PCMBytes& pcm)> onSystemPCM;      // each side by itself
        std::function<void(const PCMBytes& pcm)> onMicrophonePCM;
        PulseCapture::OnEvent onEvent;
    };

    ~MixedAudioChunkRecorder();
    // Fails only when neither side starts: "系统声音和麦克风都不可用。系统：…；麦克风：…".
    Expected<StartReport> start(double chunkSeconds, std::size_t minimumChunkBytes, Callbacks callbacks,
                                bool preserveRecordingChannels);
    std::optional<std::filesystem::path> stop(bool emitFinalChunk);
    bool isRunning() const { return running_; }

    // The downgrade notice for the user, when one side did not start.
    static std::optional<std::string> degradedCapture(const StartReport& report);

    static constexpr double kDrainSeconds = 0.040;

private:
    void drainOnce(bool flush);
    std::optional<std::filesystem::path> finishChunk(bool emit);
    void run(double chunkSeconds);

    SystemAudioChunkRecorder system_;
    AudioChunkRecorder microphone_;
    LiveAudioMixer mixer_;
    Callbacks callbacks_;
    std::mutex lock_;  // chunkAccumulator and the callbacks' use by the worker
    PCMBytes chunkAccumulator_;
    std::size_t minimumChunkBytes_ = 0;
    bool preserveRecordingChannels_ = false;
    std::thread worker_;
    std::mutex wakeLock_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::atomic<bool> running_{false};
};

}  // namespace osv
