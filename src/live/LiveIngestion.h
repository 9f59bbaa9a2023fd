#pragma once

// The hot path: text from a realtime service arriving on the main thread. Decides whether
// to believe it (the speech gate), hands it to the segmenter through the live session,
// arms each channel's timed boundary and starts the language work of what closed.
// Main thread only; every timer is a Scheduler timer.

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "core/Scheduler.h"
#include "live/TranslationDispatch.h"
#include "metering/DebugEvent.h"
#include "transcript/LiveTranscriptSession.h"

namespace osv {

struct SpeechWitness;

class LiveIngestion {
public:
    // What ingestion needs from the rest of the controller, and nothing more.
    class Host {
    public:
        virtual ~Host() = default;
        virtual const SpeechWitness* witness(CaptureChannel channel) const = 0;
        // The connection evidently lives: its reconnect count starts over.
        virtual void resetReconnectAttempts(CaptureChannel channel) = 0;
        // The log grew: journal, captions and the published state follow.
        virtual void transcriptChanged() = 0;
        virtual void debug(DebugEvent::Level level, DebugEvent::Category category, std::string title,
                           std::string details, std::optional<std::string> code) = 0;
        virtual bool isOnAirUnpaused() const = 0;
    };

    static constexpr double kGraceMarginSeconds = 0.05;

    LiveIngestion(Scheduler& scheduler, LiveTranscriptSession& session, TranslationDispatch& dispatch, Host& host);

    // A new session: counters, timers and the anchor start over.
    void reset();
    // Cancels every boundary timer (stop and pause finalize by hand).
    void cancelTimers();

    void ingestRealtimeDelta(const std::string& text, TranscriptSegmenter::DeltaKind kind, CaptureChannel channel,
                             const Uuid& recordingID);
    void scheduleRealtimeFinalization(const Uuid& recordingID, CaptureChannel channel, double delay,
                                      BoundaryReason reason);
    void finalizeRealtimeSegment(const Uuid& recordingID, CaptureChannel channel, BoundaryReason reason);
    // Closes everything still open, at stop and pause.
    void flushPendingReverseTranslation(const Uuid& recordingID);
    // The end-of-session report of the speech gate.
    void reportUnheardDeltas();

    // Set by the capture hand-off when speech starts; the next utterance is stamped back to it.
    std::optional<Date> realtimeSpeechAnchorAt;
    std::optional<Date> lastDeltaAt() const { return lastDeltaAt_; }
    bool hasEverReceivedDelta() const { return hasEverReceivedDelta_; }
    int unheardDeltas(CaptureChannel channel) const;
    bool hasPendingFinalization(CaptureChannel channel) const;
    // When a boundary last closed something on the channel.
    std::optional<Date> lastBoundaryAt(CaptureChannel channel) const;
    // Set at each start: the first delta's latency is measured from it.
    Date sessionStartedAt;

private:
    Scheduler& scheduler_;
    LiveTranscriptSession& session_;
    TranslationDispatch& dispatch_;
    Host& host_;
    std::map<CaptureChannel, TimerHandle> finalizeTasks_;
    std::map<CaptureChannel, int> unheardDeltas_;
    std::map<CaptureChannel, Date> lastBoundaryAt_;
    std::map<CaptureChannel, Date> lastSourceEventAt_;
    std::map<CaptureChannel, Date> lastTranslationEventAt_;
    std::map<CaptureChannel, int> sourceEventCounts_;
    std::map<CaptureChannel, int> translationEventCounts_;
    double longestAcceptedGap_ = 0;
    std::optional<Date> lastDeltaAt_;
    bool hasEverReceivedDelta_ = false;
};

}  // namespace osv
