#pragma once

// Pairs the computer's sound and the microphone by arrival order (their clocks are
// unrelated) into a mono mix and a stereo recording. Thread-safe: the two sides append
// from their own capture threads while a third drains; the lock covers list operations only.

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>

#include "audio/AudioLevel.h"

namespace osv {

class LiveAudioMixer {
public:
    struct Output {
        PCMBytes mono;    // the two samples summed, clamped, no gain reduction
        PCMBytes stereo;  // interleaved: left = system, right = microphone
    };

    static constexpr std::size_t kMaximumSamples = 240'000;  // ten seconds a side
    static constexpr std::size_t kStallSamples = 7'200;      // 300 ms

    void setExpected(bool system, bool microphone);
    // Empties both sides, for a new session.
    void reset();
    void appendSystem(const PCMBytes& bytes);
    void appendMicrophone(const PCMBytes& bytes);
    // What can be mixed now; with `flush`, everything.
    std::optional<Output> drain(bool flush);

    static double level(const PCMBytes& bytes) { return pcm16Level(bytes); }

private:
    void append(std::deque<std::int16_t>& side, const PCMBytes& bytes);
    static Output output(const std::deque<std::int16_t>& system, std::size_t systemCount,
                         const std::deque<std::int16_t>& microphone, std::size_t microphoneCount);

    std::mutex lock_;
    std::deque<std::int16_t> systemSamples_;
    std::deque<std::int16_t> micSamples_;
    bool expectSystem_ = true;
    bool expectMicrophone_ = true;
};

}  // namespace osv
