#pragma once

// Frame sources a test plays by hand, and a chunk writer that keeps chunks in memory: the
// recorders' rules run in virtual time, without capture hardware or a disk.

#include <map>
#include <string>
#include <vector>

#include "audio/FrameSource.h"
#include "core/Scheduler.h"

namespace osv::testing {

class ScriptedFrameSource final : public FrameSource {
public:
    explicit ScriptedFrameSource(std::optional<Error> failure) : failure_(std::move(failure)) {}
    Expected<void> start(OnFrames onFrames, OnEvent onEvent) override {
        if (failure_) return *failure_;
        onFrames_ = std::move(onFrames);
        onEvent_ = std::move(onEvent);
        running = true;
        return {};
    }
    void stop() override { running = false; }

    // `seconds` of a constant sample at `rate`, mono.
    void play(double seconds, float value, int rate = 24'000) {
        if (!running) return;
        std::vector<float> frames(std::size_t(seconds * rate), value);
        onFrames_(frames.data(), frames.size(), FrameFormat{rate, 1});
    }
    void event(const std::string& code) {
        if (running) onEvent_("title", "details", code);
    }
    bool running = false;

private:
    std::optional<Error> failure_;
    OnFrames onFrames_;
    OnEvent onEvent_;
};

class ScriptedFrameSources final : public FrameSourceFactory {
public:
    std::unique_ptr<FrameSource> make(CaptureSide side) override {
        auto source = std::make_unique<ScriptedFrameSource>(failures.count(side) ? std::optional<Error>(failures[side])
                                                                                  : std::nullopt);
        made[side] = source.get();
        return source;
    }
    ScriptedFrameSource& operator[](CaptureSide side) { return *made.at(side); }
    std::map<CaptureSide, Error> failures;
    std::map<CaptureSide, ScriptedFrameSource*> made;
};

class MemoryChunkWriter final : public ChunkFileWriter {
public:
    explicit MemoryChunkWriter(Scheduler& scheduler) : scheduler_(scheduler) {}
    void write(std::string path, std::string bytes, std::function<void(bool)> done) override {
        chunks.push_back({path, bytes});
        if (done) scheduler_.post([done, ok = !failWrites] { done(ok); });
    }
    struct Chunk {
        std::string path;
        std::string bytes;
        // Seconds of 24 kHz 16-bit audio in the WAV, for `channels` channels.
        double seconds(int channels = 1) const { return double(bytes.size() - 44) / (48'000.0 * channels); }
    };
    std::vector<Chunk> chunks;
    bool failWrites = false;

private:
    Scheduler& scheduler_;
};

}  // namespace osv::testing
