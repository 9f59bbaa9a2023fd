#pragma once

// The recorder of a session: takes the frame sources of the sides a capture mode wants,
// turns their frames into the working format, and makes of them two products at once:
// realtime PCM for the wire clients, and chunk files on disk for keeping the recording.
//
// The rules live here, on the main thread, over the Scheduler: when a chunk is cut, which
// small chunk is dropped, the 40 ms mixing drain, and keeping the recording as long as the
// session on the wall clock (a side that delivers nothing, such as an idle sink's
// monitor, is recorded as silence). Capture threads only convert and queue; file writes go
// to the ChunkFileWriter.
//
// Thread contract: main thread only. Callbacks run on the main thread.

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "audio/FrameSource.h"
#include "audio/LiveAudioMixer.h"
#include "audio/RealtimePCMEncoder.h"
#include "core/Scheduler.h"

namespace osv {

class CaptureRecorder {
public:
    enum class Mode { mixed, systemAudio, microphone };

    struct Options {
        Mode mode = Mode::mixed;
        double chunkSeconds = 10.0;
        // A chunk of at most this many bytes is no chunk: no file, no onChunk.
        std::size_t minimumChunkBytes = 256;
        // Mixed only: chunks keep both sides as stereo (left the computer, right the microphone).
        bool preserveRecordingChannels = false;
        // Where chunks go, named "{chunkPrefix}{UUID}.wav". Empty: no chunk files.
        std::filesystem::path chunkDirectory;
        // Silence the recording begins with: the pause before a resume, so that offsets in the
        // recording stay offsets in the session.
        double leadingSilenceSeconds = 0;
        std::string chunkPrefix = "osv-";
    };

    struct Callbacks {
        std::function<void(double level)> onLevel;
        std::function<void(const std::filesystem::path& chunk)> onChunk;
        std::function<void(const PCMBytes& pcm)> onRealtimePCM;  // the one side, or the mono mix
        std::function<void(const PCMBytes& pcm)> onSystemPCM;    // mixed: each side by itself
        std::function<void(const PCMBytes& pcm)> onMicrophonePCM;
        FrameSource::OnEvent onEvent;  // device changes and losses, on the main thread
    };

    struct StartReport {
        bool systemStarted = false;
        bool microphoneStarted = false;
        std::optional<std::string> systemFailure;
        std::optional<std::string> microphoneFailure;
    };

    static constexpr double kDrainSeconds = 0.040;
    // A recording lagging the wall clock by more than this gets silence...
    static constexpr double kPadAfterLagSeconds = 0.5;
    // ...up to this far behind, leaving room for audio still on its way.
    static constexpr double kPadToLagSeconds = 0.25;

    CaptureRecorder(Scheduler& scheduler, FrameSourceFactory& sources, ChunkFileWriter& writer);
    ~CaptureRecorder();
    CaptureRecorder(const CaptureRecorder&) = delete;
    CaptureRecorder& operator=(const CaptureRecorder&) = delete;

    // Starts the sides of the mode. Fails only when no side starts: in mixed mode with
    // "录音失败：系统声音和麦克风都不可用。系统：…；麦克风：…", otherwise with the side's own
    // error. A running recorder reports both sides as they are and changes nothing.
    Expected<StartReport> start(Options options, Callbacks callbacks);
    // Stops capture, delivers what is left, pads the recording to the wall clock and writes
    // the last chunk. `done` gets the last chunk's file (none when there was too little),
    // once it is on disk. A recorder that is not running calls `done` with none at once.
    void stop(std::function<void(std::optional<std::filesystem::path>)> done);
    bool isRunning() const { return running_; }

    // The downgrade notice for the user, when one side did not start.
    static std::optional<std::string> degradedCapture(const StartReport& report);

    // Samples of the recording made so far in this run (for tests and meters).
    std::size_t recordedFrames() const { return recordedFrames_; }

private:
    struct Inbox;
    struct Side;

    void takeInbox();
    void deliver(CaptureSide side, PCMBytes pcm, double level);
    void tick();
    void record(const PCMBytes& pcm);
    void padToWallClock(double lagSeconds);
    void cutChunk(bool final, std::function<void(std::optional<std::filesystem::path>)> done);
    int recordingChannels() const;

    Scheduler& scheduler_;
    FrameSourceFactory& sources_;
    ChunkFileWriter& writer_;
    Options options_;
    Callbacks callbacks_;
    std::shared_ptr<Inbox> inbox_;
    std::unique_ptr<FrameSource> system_;
    std::unique_ptr<FrameSource> microphone_;
    LiveAudioMixer mixer_;
    bool running_ = false;
    Date startedAt_;
    std::size_t recordedFrames_ = 0;
    PCMBytes accumulator_;
    TimerHandle drainTimer_;
    TimerHandle chunkTimer_;
    StartReport report_;
    Lifetime lifetime_;
};

}  // namespace osv
