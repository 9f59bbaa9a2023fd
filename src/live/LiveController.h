#pragma once

// The live half of the controller: the start button to the first caption, pause, resume
// and stop, and the recording's life around them. A facade over collaborators that each
// own one concern: the capture hand-off (gates, meters, held audio), the realtime
// connections (clients, reconnects), ingestion (the segmenter and timed boundaries) and
// translation dispatch (the lanes, through a port). The screens and the command line see
// one published LiveState and push intents in.
//
// Thread contract: main thread only. Recorder callbacks arrive through the Scheduler; every
// timer (boundaries, drain, reconnects, the pause tail) is a Scheduler timer.

#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "audio/AudioMerger.h"
#include "audio/CaptureRecorder.h"
#include "live/CaptureHandoff.h"
#include "live/LiveIngestion.h"
#include "live/LiveState.h"
#include "live/RealtimeConnections.h"
#include "live/StreamSupervisor.h"
#include "live/TranslationDispatch.h"
#include "metering/DebugEvent.h"
#include "metering/UsageTally.h"
#include "transcript/LiveTranscriptSession.h"

namespace osv {

class RecordingLibrary;
class TranscriptJournal;

class LiveController final : private LiveIngestion::Host,
                             private RealtimeConnections::Host,
                             private StreamSupervisor::Host {
public:
    struct Dependencies {
        Scheduler& scheduler;
        RecordingLibrary& library;
        // The settings as they stand now; read at every step that needs them, so a change
        // during a session applies at once.
        std::function<TranslatorSettings()> settings;
        FrameSourceFactory& sources;
        ChunkFileWriter& chunkWriter;
        AudioMerger& merger;
        RealtimeConnections::ClientFactory makeRealtimeClient;
        // None: no sentence passes until lanes are wired.
        TranslationDispatch* dispatch = nullptr;
        // None: as the environment says (OSV_REALTIME_ROTATE_AFTER), else the defaults.
        std::optional<RealtimeConnections::RotationPolicy> rotation;
    };

    // Seconds of each recording chunk in the realtime engine: few files, and a crash loses
    // at most this much audio (the transcript is in the journal).
    static constexpr double kRecordingChunkSeconds = 10.0;
    static constexpr std::size_t kMinimumChunkBytes = 256;
    static constexpr double kDrainLimitSeconds = 2.5;
    static constexpr double kDrainQuietSeconds = 0.6;
    static constexpr double kDrainPollSeconds = 0.12;
    static constexpr std::size_t kMaximumDebugEvents = 2000;
    static constexpr double kMeterPublishSeconds = 0.05;
    // How often the stored entry takes the session's segments: what the history shows of a
    // session on air. Every event is in the journal at once; this is only the index's copy.
    static constexpr double kSegmentsRefreshSeconds = 10.0;

    explicit LiveController(Dependencies dependencies);
    ~LiveController() override;
    LiveController(const LiveController&) = delete;
    LiveController& operator=(const LiveController&) = delete;

    // Observation. Subscribers are called on the main thread after each step that changed
    // the state, at most once per turn of the event loop.
    const LiveState& state() const { return state_; }
    using Subscription = std::size_t;
    Subscription subscribe(std::function<void(const LiveState&)> observer);
    void unsubscribe(Subscription token);
    // Every debug event, as it is added.
    std::function<void(const DebugEvent&)> onDebug;
    const std::deque<DebugEvent>& debugEvents() const { return debugEvents_; }

    // Intents.
    void startLiveInterpretation();
    void pauseLiveInterpretation();
    void resumeLiveInterpretation();
    void stopLiveInterpretation();
    void retryFailedTranslations();

    // For the lanes and the other halves of the controller.
    LiveTranscriptSession& liveTranscript() { return liveTranscript_; }
    bool isLiveOnAir(const Uuid& recordingID) const;
    bool holdsLiveTranscript(const Uuid& recordingID) const;
    bool isFinishingLiveSession() const;
    // A lane filed a result into the live session: journal, captions, state.
    void projectTranscript();
    // Each lane's end calls it again; files the session once nothing is outstanding.
    void finishLiveRecordingIfIdle(const Uuid& recordingID);
    UsageTally& liveUsage() { return liveUsage_; }
    void addDebug(DebugEvent::Level level, DebugEvent::Category category, std::string title, std::string details,
                  std::optional<std::string> code = std::nullopt);

    // Entry points of the clients and the recorder, open for tests.
    void handleRealtimeEvent(const RealtimeTranslationEvent& event, CaptureChannel channel, const Uuid& recordingID);
    void consumeRealtimePCM(PCMBytes bytes, CaptureChannel channel);

    const CaptureHandoff& handoff() const { return handoff_; }
    const RealtimeConnections& connections() const { return connections_; }
    const LiveIngestion& ingestion() const { return ingestion_; }
    const StreamSupervisor& supervisor() const { return supervisor_; }
    const std::vector<std::filesystem::path>& activeLiveChunkURLs() const { return activeLiveChunkURLs_; }

private:
    // LiveIngestion::Host
    const SpeechWitness* witness(CaptureChannel channel) const override { return handoff_.witness(channel); }
    void resetReconnectAttempts(CaptureChannel channel) override { connections_.resetReconnectAttempts(channel); }
    void transcriptChanged() override;
    void debug(DebugEvent::Level level, DebugEvent::Category category, std::string title, std::string details,
               std::optional<std::string> code) override {
        addDebug(level, category, std::move(title), std::move(details), std::move(code));
    }
    bool isOnAirUnpaused() const override { return state_.isLiveInterpreting && !state_.isLivePaused; }
    // RealtimeConnections::Host
    void realtimeEvent(const RealtimeTranslationEvent& event, CaptureChannel channel,
                       const Uuid& recordingID) override {
        handleRealtimeEvent(event, channel, recordingID);
    }
    void clientDebug(const OpenAIDebugLog& log) override;
    CaptureHandoff::Held takePendingAudio(CaptureChannel channel) override {
        return handoff_.takePending(channel, deps_.scheduler.now());
    }
    void connectionLost(CaptureChannel channel) override { handoff_.beginOutage(channel); }
    bool mayReconnect(const Uuid& recordingID, CaptureChannel channel) const override;
    void setLiveNotice(std::string notice) override;
    TranslatorSettings connectionSettings(CaptureChannel channel) const override;
    bool isQuietMoment(CaptureChannel channel) const override;
    // StreamSupervisor::Host
    const std::string& liveNotice() const override { return state_.liveNotice; }
    std::optional<std::string> rearmTranscription(CaptureChannel channel) override {
        return connections_.rearmTranscription(channel);
    }
    bool buildsFromTranslation(CaptureChannel channel) const override;
    void buildFromTranslation(CaptureChannel channel, bool flag) override;
    void scheduleReconnect(CaptureChannel channel, const std::string& because) override;
    bool isReconnecting(CaptureChannel channel) const override { return connections_.isReconnecting(channel); }
    std::vector<CaptureChannel> activeChannels() const override { return state_.activeChannels; }
    bool isListening() const override;
    std::optional<Date> lastDeltaAt() const override { return ingestion_.lastDeltaAt(); }
    std::optional<Date> lastAudibleAt() const override { return lastAudibleAt_; }
    std::optional<double> secondsSinceAnySpeech() const override {
        return handoff_.secondsSinceAnySpeech(deps_.scheduler.now());
    }

    // Lifecycle steps.
    void runLiveStartup(const Uuid& recordingID, bool resuming);
    void prepareRealtimeSession(const Uuid& recordingID, bool resuming);
    Expected<void> startRecorder(const Uuid& recordingID, double leadingSilence);
    void startRealtimeTranslationClient(const Uuid& recordingID, std::function<void(Expected<void>)> done);
    void liveStartSucceeded(const Uuid& recordingID);
    void handleLiveStartFailure(const Error& error);
    void returnToPause(const Error& error);
    void resetRealtimeState();
    // The shared tail of pause and stop: recorder, drain, close, finalize.
    void windDown(const Uuid& recordingID, std::function<void()> done);
    void drain(Date deadline, std::function<void()> done);
    void afterPauseTail(std::function<void()> next);
    void saveLiveAudioBeforeFinishing(const Uuid& recordingID, std::function<void()> done);
    void storeLiveAudioChunk(const std::filesystem::path& chunk);
    void updateInputLevel(double level);
    void noteChannelWoken(CaptureChannel channel);
    std::string explainCaptureFailure(const Error& error) const;
    TranslationRouter::Config routingConfig(const TranslatorSettings& settings) const;
    void refreshRecordingSegments(bool persist);

    // Publishing.
    void changed();
    void metersChanged();
    void publish();

    Dependencies deps_;
    NoTranslationDispatch noDispatch_;
    TranslationDispatch& dispatch_;
    LiveTranscriptSession liveTranscript_;
    CaptureRecorder recorder_;
    CaptureHandoff handoff_;
    RealtimeConnections connections_;
    LiveIngestion ingestion_;
    StreamSupervisor supervisor_;
    std::unique_ptr<TranscriptJournal> journal_;
    UsageTally liveUsage_;

    LiveState state_;
    std::map<Subscription, std::function<void(const LiveState&)>> observers_;
    Subscription nextSubscription_ = 1;
    bool publishPosted_ = false;
    TimerHandle meterPublish_;
    bool captionsDirty_ = true;
    std::size_t frozenScanned_ = 0;
    std::size_t frozenFailures_ = 0;
    std::deque<DebugEvent> debugEvents_;

    std::map<CaptureChannel, double> channelLevels_;
    std::vector<std::filesystem::path> activeLiveChunkURLs_;
    std::optional<Date> lastAudibleAt_;
    // The level statistics the recording keeps.
    std::int64_t levelSampleCount_ = 0;
    double levelPeak_ = 0;
    double levelAverage_ = 0;
    bool isPauseTailRunning_ = false;
    std::vector<std::function<void()>> afterPauseTail_;
    std::optional<Date> pausedAt_;
    double pausedSeconds_ = 0;      // paused time within the current run of the recorder
    double onAirSecondsBefore_ = 0;  // on-air time before the current run
    std::optional<Date> runStartedAt_;
    std::optional<Date> recorderStoppedAt_;
    bool stopRequestedWhileStarting_ = false;
    TimerHandle drainTimer_;
    std::set<Uuid> finishing_;
    TimerHandle segmentsRefresh_;
    // Once a second while a session is active: the clock moves, captions settle and freeze.
    TimerHandle ticker_;
    std::optional<Date> captionsRefreshedAt_;
    void tick();
    Lifetime lifetime_;
};

}  // namespace osv
