#pragma once

// Watches the realtime streams of a session: per channel whether the source transcript
// lives while the translation flows (re-arming the transcription, then building sentences
// from the translation until the source returns), and whether recognition as a whole has
// stalled while people can be heard (a socket that stays up and says nothing), which it
// answers with reconnects. Main thread only; the watchdog is a Scheduler timer.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/Scheduler.h"
#include "live/RealtimeStreamHealth.h"
#include "metering/DebugEvent.h"
#include "transcript/CaptureChannel.h"

namespace osv {

class StreamSupervisor {
public:
    class Host {
    public:
        virtual ~Host() = default;
        virtual void debug(DebugEvent::Level level, DebugEvent::Category category, std::string title,
                           std::string details, std::optional<std::string> code) = 0;
        virtual const std::string& liveNotice() const = 0;
        virtual void setLiveNotice(std::string notice) = 0;
        // Re-sends the channel's transcription configuration; the new model when it changed.
        virtual std::optional<std::string> rearmTranscription(CaptureChannel channel) = 0;
        virtual bool buildsFromTranslation(CaptureChannel channel) const = 0;
        virtual void buildFromTranslation(CaptureChannel channel, bool flag) = 0;
        virtual void scheduleReconnect(CaptureChannel channel, const std::string& because) = 0;
        virtual bool isReconnecting(CaptureChannel channel) const = 0;
        virtual std::vector<CaptureChannel> activeChannels() const = 0;
        // On air, not paused, on the realtime engine.
        virtual bool isListening() const = 0;
        virtual std::optional<Date> lastDeltaAt() const = 0;
        virtual std::optional<Date> lastAudibleAt() const = 0;
        virtual std::optional<double> secondsSinceAnySpeech() const = 0;
    };

    static constexpr double kWatchdogSeconds = 5.0;
    static constexpr double kSilentSoundSeconds = 25.0;   // no sound for this long: no text expected
    static constexpr double kQuickStallSeconds = 12.0;    // text overdue after certain speech
    static constexpr double kCertainSpeechSeconds = 3.0;  // speech at least this old is certain

    StreamSupervisor(Scheduler& scheduler, Host& host);

    // A new session: no records, no outage, no remembered models.
    void reset();
    // The channel's connection came up: a fresh record, and sentences from source again.
    void connected(CaptureChannel channel, double baseDelay);
    void noteSource(CaptureChannel channel);
    void noteSourceFailure(CaptureChannel channel);
    void noteTranslation(CaptureChannel channel);
    // Evaluates the channel's record now and acts on its answer.
    void applySourceStreamHealth(CaptureChannel channel);
    void restoreSourceStream(CaptureChannel channel, const std::string& because);
    void degradeToTranslationOnly(CaptureChannel channel, double silence);

    void startLivenessWatchdog();
    void stopLivenessWatchdog() { livenessTask_.cancel(); }
    void checkRecognitionLiveness();

    // The model a channel's later connections use once one failed for this speaker's voice.
    void rememberDegradedTranscription(const std::string& model, CaptureChannel channel);
    std::optional<std::string> degradedTranscribeModel(CaptureChannel channel) const;

    bool hadSourceStreamOutage = false;
    const RealtimeStreamHealth* health(CaptureChannel channel) const;

private:
    Scheduler& scheduler_;
    Host& host_;
    std::map<CaptureChannel, RealtimeStreamHealth> streamHealth_;
    std::map<CaptureChannel, std::string> degradedTranscribeModels_;
    TimerHandle livenessTask_;
};

}  // namespace osv
