#pragma once

// What stands between a capture callback and the network, per channel: the wake-up gate
// that keeps a silent channel off the wire, the witness of when speech was last heard,
// and the byte-rate meter of the monitor. Main thread; plain values.

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "audio/AudioLevel.h"
#include "core/Date.h"

namespace osv {

// A channel nobody has spoken on sends nothing; speech that wakes it loses none of its
// last two seconds.
struct ChannelWakeup {
    std::deque<PCMBytes> buffer;  // held while asleep, in arrival order
    std::size_t bufferedBytes = 0;
    int loudFrames = 0;  // consecutive loud chunks
    bool isAwake = false;
    std::size_t bytesPerSecond = kWorkingBytesPerSecond;

    static float peak(const PCMBytes& bytes) { return pcm16Peak(bytes); }
    // The bytes to send now: these at once when awake; on the second consecutive loud
    // chunk, everything held (at most two seconds, the newest chunk whole); else none.
    std::optional<PCMBytes> consider(PCMBytes bytes);
};

// When audible speech last passed on a channel, fed before the wake-up gate, so that a
// recogniser's words with nobody speaking can be told apart.
struct SpeechWitness {
    std::optional<Date> lastSpeechAt;
    bool isObserving = false;

    static constexpr double kMaximumSilenceSeconds = 14.0;

    void observe(float peak, Date now);
    // A delta arriving now is dropped: the witness observes and no speech was heard within
    // the last 14 seconds.
    bool shouldDrop(Date now) const;
};

// Bytes a second over the last three seconds.
struct ThroughputMeter {
    struct Sample {
        Date at;
        std::int64_t bytes;
    };
    std::deque<Sample> samples;
    std::int64_t totalBytes = 0;

    static constexpr double kWindowSeconds = 3.0;

    void add(Date at, std::int64_t bytes);
    void prune(Date before);
    std::int64_t bytesPerSecond(Date now) const;
    static std::string rateText(std::int64_t bytes);
    static std::string sizeText(std::int64_t bytes);
};

}  // namespace osv
