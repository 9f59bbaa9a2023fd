#pragma once

// The port between capture and the recorders: something that delivers interleaved float
// frames on a thread of its own. PulseAudio is one source; a file played at real time is
// another, so that tests, the demo and benchmarks run the same recorders as live capture.

#include <functional>
#include <memory>
#include <string>

#include "core/Expected.h"

namespace osv {

struct FrameFormat {
    int sampleRate = 48'000;
    int channels = 2;
};

enum class CaptureSide { system, microphone };

class FrameSource {
public:
    // Frames, on the source's thread. Must not block.
    using OnFrames = std::function<void(const float* interleaved, std::size_t frames, const FrameFormat& format)>;
    // Device changes and losses, on the source's thread: a title, details and a code.
    using OnEvent = std::function<void(const std::string& title, const std::string& details, const std::string& code)>;

    virtual ~FrameSource() = default;
    // Starts delivering. Error codes as the source knows them ("microphone_unavailable",
    // "sound_server_unreachable", "capture_failed", ...), with a user text.
    virtual Expected<void> start(OnFrames onFrames, OnEvent onEvent) = 0;
    // Once it returns, no callback runs any more.
    virtual void stop() = 0;
};

// Makes the source of one side for each recorder start.
class FrameSourceFactory {
public:
    virtual ~FrameSourceFactory() = default;
    virtual std::unique_ptr<FrameSource> make(CaptureSide side) = 0;
};

// Writes a finished chunk file away from capture and the main thread. `done` runs on the
// main thread with whether the file is complete on disk; files are written in the order
// given, so their modification times order them.
class ChunkFileWriter {
public:
    virtual ~ChunkFileWriter() = default;
    virtual void write(std::string path, std::string bytes, std::function<void(bool ok)> done) = 0;
};

}  // namespace osv
