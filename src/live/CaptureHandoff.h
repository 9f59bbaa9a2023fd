#pragma once

// The main-thread half of the realtime PCM path: per channel, the witness of when speech
// was last heard, the wake-up gate that keeps a silent channel off the network, the input
// meters, and the audio held while a channel's connection is not up. It decides what to
// send; the connections send it. Main thread only.

#include <map>
#include <optional>
#include <set>
#include <vector>

#include "audio/ChannelGates.h"
#include "audio/RealtimePCMEncoder.h"
#include "core/Date.h"
#include "transcript/CaptureChannel.h"

namespace osv {

class CaptureHandoff {
public:
    // Six seconds of working-format audio: what a handshake may hold.
    static constexpr std::size_t kMaximumPendingBytes = 288'000;
    // Twenty seconds: what a channel holds from a lost connection until the next is up, so
    // that a short outage delays captions instead of losing what was said.
    static constexpr std::size_t kMaximumOutageBytes = 960'000;
    // Above this level the channel counts as audible for the liveness and the anchor.
    static constexpr double kAudibleLevel = 0.02;

    struct Outcome {
        std::optional<PCMBytes> send;  // bytes to send now, when the channel's client is up
        bool woke = false;             // this chunk woke the channel
    };

    // A new session, or a resume with these channels: wake-ups exist only with two
    // channels; witnesses, meters and held audio start empty.
    void reset(const std::vector<CaptureChannel>& channels);
    // Keeps witnesses and wake-ups (a resume goes on hearing the same people), empties held audio.
    void keepForResume(const std::vector<CaptureChannel>& channels);

    // Witness, peak, meter and wake-up for one chunk arriving now. When the gate passes the
    // chunk and `connected` is false, it is held; the outcome then sends nothing.
    Outcome consume(CaptureChannel channel, PCMBytes bytes, Date now, bool connected);
    // The channel's connection was lost: hold up to twenty seconds from now on.
    void beginOutage(CaptureChannel channel);
    struct Held {
        PCMBytes bytes;
        std::size_t droppedBytes = 0;  // the oldest audio, over the bound
        bool afterOutage = false;
    };
    // The held audio of a channel, in order, as one block; empties it and ends an outage.
    // Speech in it passes the service now: the witness hears it again, so that its text,
    // arriving late, is not taken for text made up from silence.
    Held takePending(CaptureChannel channel, Date now);
    std::size_t pendingBytes(CaptureChannel channel) const;

    const SpeechWitness* witness(CaptureChannel channel) const;
    bool isAwake(CaptureChannel channel) const;
    bool hasWoken(CaptureChannel channel) const { return wokenAt_.count(channel) > 0; }
    float peak(CaptureChannel channel) const;
    const ThroughputMeter* meter(CaptureChannel channel) const;
    // The smallest age of any witness' last speech; none when nothing was heard.
    std::optional<double> secondsSinceAnySpeech(Date now) const;
    std::optional<Date> lastChunkAt(CaptureChannel channel) const;

private:
    void hold(CaptureChannel channel, PCMBytes bytes);

    std::map<CaptureChannel, SpeechWitness> witnesses_;
    std::map<CaptureChannel, ChannelWakeup> wakeups_;
    std::map<CaptureChannel, std::vector<PCMBytes>> pendingPCM_;
    std::map<CaptureChannel, std::size_t> pendingBytes_;
    std::map<CaptureChannel, std::size_t> droppedBytes_;
    std::map<CaptureChannel, bool> heldSpeech_;
    std::set<CaptureChannel> outages_;
    std::map<CaptureChannel, float> peaks_;
    std::map<CaptureChannel, ThroughputMeter> meters_;
    std::map<CaptureChannel, Date> wokenAt_;
    std::map<CaptureChannel, Date> lastChunkAt_;
};

}  // namespace osv
