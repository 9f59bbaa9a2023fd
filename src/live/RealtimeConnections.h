#pragma once

// The realtime translation connections of a session, one per channel: opening them, the
// audio they are sent, the reconnect backoff after a failure, and taking them out of
// service so that a stop closes each exactly once. Main thread only.

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "audio/RealtimePCMEncoder.h"
#include "live/CaptureHandoff.h"
#include "core/Scheduler.h"
#include "services/OpenAIRealtimeTranslationClient.h"
#include "transcript/CaptureChannel.h"

namespace osv {

class RealtimeConnections {
public:
    using Client = OpenAIRealtimeTranslationClient;
    using ClientFactory = std::function<std::unique_ptr<Client>()>;

    class Host {
    public:
        virtual ~Host() = default;
        virtual void realtimeEvent(const RealtimeTranslationEvent& event, CaptureChannel channel,
                                   const Uuid& recordingID) = 0;
        virtual void clientDebug(const OpenAIDebugLog& log) = 0;
        // Audio held for the channel while it had no connection, taken for sending.
        virtual CaptureHandoff::Held takePendingAudio(CaptureChannel channel) = 0;
        // The channel has no working connection from now until a new one is up.
        virtual void connectionLost(CaptureChannel channel) = 0;
        // On air, not paused, on the realtime engine, this recording, this channel.
        virtual bool mayReconnect(const Uuid& recordingID, CaptureChannel channel) const = 0;
        virtual void setLiveNotice(std::string notice) = 0;
        // The settings a connection of the channel starts with (a remembered transcription
        // model applied).
        virtual TranslatorSettings connectionSettings(CaptureChannel channel) const = 0;
        // A good moment to change connections: nobody on the channel is in mid-sentence.
        virtual bool isQuietMoment(CaptureChannel channel) const = 0;
    };

    // Rotation: the service ends a connection after a fixed lifetime, mid-sentence. Before
    // that, at a quiet moment, a new connection is opened; once it is up it takes the audio
    // and the old one drains and closes, so that no caption is lost or doubled.
    struct RotationPolicy {
        // Rotate once a connection is this old, unless the service said when it expires:
        // then this long before (a quarter of a short lifetime at most).
        double defaultAgeSeconds = 55 * 60.0;
        double beforeExpirySeconds = 5 * 60.0;
        // From the due time, wait for a quiet moment at most this long.
        double quietWaitSeconds = 3 * 60.0;
        // After a failed rotation the old connection serves on; the next try comes this much later.
        double retrySeconds = 30.0;
        // Set (OSV_REALTIME_ROTATE_AFTER) for tests and demos: overrides everything above.
        std::optional<double> overrideAgeSeconds;
        static RotationPolicy fromEnvironment();
    };

    // The language the translation endpoint is asked for: the user reads Chinese.
    static constexpr const char* kTargetLanguageCode = "zh";
    static constexpr double kMaximumBackoffSeconds = 15.0;
    // An old connection of a rotation drains as a stopping session does.
    static constexpr double kRetiredQuietSeconds = 0.6;
    static constexpr double kRetiredDrainLimitSeconds = 2.5;

    RealtimeConnections(Scheduler& scheduler, ClientFactory factory, Host& host,
                        RotationPolicy rotation = RotationPolicy::fromEnvironment());
    ~RealtimeConnections();

    // Opens the channel's connection. `done` runs once, on the main thread, never inside this call.
    void connect(CaptureChannel channel, const Uuid& recordingID, std::function<void(Expected<void>)> done);
    bool isConnected(CaptureChannel channel) const;
    bool hasClient(CaptureChannel channel) const { return clients_.count(channel) > 0; }
    // One chunk on the channel's socket; counted as billed audio.
    void send(CaptureChannel channel, const PCMBytes& pcm);
    // Everything held during the handshake or an outage, as one message.
    void flushPending(CaptureChannel channel);
    // Re-sends the transcription configuration on the channel's open connection; the new
    // model when it changed.
    std::optional<std::string> rearmTranscription(CaptureChannel channel);

    // Empties the map and returns the clients, so that nothing can touch them while closing.
    std::map<CaptureChannel, std::unique_ptr<Client>> takeRealtimeClients();
    // Sends "session.close" on each connected client not yet closing, then closes them; each
    // is kept until its socket is gone.
    void closeGracefully(std::map<CaptureChannel, std::unique_ptr<Client>> clients);

    // After a failure or a close: backoff 1, 2, 4, 8, 15, 15, ... seconds, no limit.
    void scheduleRealtimeReconnect(CaptureChannel channel, const Uuid& recordingID, const std::string& because);
    void resetReconnectAttempts(CaptureChannel channel) { reconnectAttempts_[channel] = 0; }
    int reconnectAttempts(CaptureChannel channel) const;
    bool isReconnecting(CaptureChannel channel) const;
    // Cancels every reconnect and forgets the counts.
    void cancelReconnects();

    // When the channel's connection is due for rotation; none without a connection.
    std::optional<Date> rotationDueAt(CaptureChannel channel) const;
    bool isRotating(CaptureChannel channel) const { return rotating_.count(channel) > 0; }
    int rotations() const { return rotations_; }

    bool hadCaptionOutage = false;
    double unbilledAudioSeconds = 0;
    std::optional<Date> connectedAt(CaptureChannel channel) const;
    int eventCount(CaptureChannel channel) const;

private:
    void debug(DebugEvent::Level level, std::string title, std::string details, std::optional<std::string> code);
    std::unique_ptr<Client> makeClient(CaptureChannel channel, const Uuid& recordingID);
    void clientEvent(Client* raw, const RealtimeTranslationEvent& event, CaptureChannel channel, const Uuid& recordingID);
    void armRotationCheck(CaptureChannel channel, const Uuid& recordingID, double seconds);
    void checkRotation(CaptureChannel channel, const Uuid& recordingID);
    void beginRotation(CaptureChannel channel, const Uuid& recordingID);
    void drainRetired(Client* client, Date deadline);
    void cancelRotations();

    Scheduler& scheduler_;
    ClientFactory factory_;
    Host& host_;
    std::map<CaptureChannel, std::unique_ptr<Client>> clients_;
    std::map<CaptureChannel, bool> connected_;
    std::map<CaptureChannel, Date> connectedAt_;
    std::map<CaptureChannel, int> eventCounts_;
    std::map<CaptureChannel, TimerHandle> reconnectTasks_;
    std::map<CaptureChannel, int> reconnectAttempts_;
    std::vector<std::unique_ptr<Client>> closing_;
    RotationPolicy rotation_;
    std::map<CaptureChannel, TimerHandle> rotationChecks_;
    std::map<CaptureChannel, std::unique_ptr<Client>> rotating_;  // the new connection, in its handshake
    struct Retired {
        std::unique_ptr<Client> client;
        Date lastEventAt;
        TimerHandle poll;
    };
    std::vector<Retired> retired_;  // old connections draining after a rotation
    int rotations_ = 0;
    Lifetime lifetime_;
};

}  // namespace osv
