#pragma once

// The Gemini API's two transcription routes. The Live WebSocket gives a source transcript
// while people speak (16 kHz PCM in; interim and final text, speech start and end, a
// notice before the server ends the connection). The file route uploads a recording and
// asks the interactions endpoint for its transcript, with speakers. Only the source text
// comes from Gemini.
//
// One instance holds at most one Live socket; to rotate, the controller overlaps two.
// Thread contract: main thread only; no callback runs from inside the call that starts the
// work, and a destroyed client drops its pending callbacks.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/Expected.h"
#include "core/Scheduler.h"
#include "metering/DebugEvent.h"
#include "services/HttpTransport.h"
#include "services/WebSocketTransport.h"

namespace osv {

enum class RecognitionLanguage;

// What the caller asks Gemini to listen for.
struct GeminiRecognition {
    std::vector<std::string> languageCodes;  // empty: automatic, switching languages allowed
    std::vector<std::string> vocabulary;

    // The codes for a recognition language ("zh-CN", "ja-JP", none for automatic)
    // and the glossary's terms as vocabulary.
    static GeminiRecognition from(RecognitionLanguage language, std::string_view glossary);
    bool operator==(const GeminiRecognition&) const = default;
};

struct GeminiLiveEvent {
    enum class Kind { interim, final, speechStarted, speechEnded, goingAway, failed, turnComplete };
    Kind kind = Kind::interim;
    // interim and final: the text; speechStarted and speechEnded: the audio offset as the
    // server wrote it; failed: the message.
    std::string text;
    std::optional<double> timeLeft;  // goingAway: seconds, when the server said

    bool operator==(const GeminiLiveEvent&) const = default;
};

// HTTP 429 from Gemini.
struct GeminiRateLimited {
    std::optional<double> retryAfter;  // seconds
    bool isDailyQuota = false;         // no point retrying today
    std::string detail;                // what the user reads
    bool operator==(const GeminiRateLimited&) const = default;
};

// A failure of the file route: its code and user text, and the particulars of a rate limit
// (codes "gemini_rate_limited" and "gemini_daily_quota", the message being the detail).
struct GeminiFailure {
    Error error;
    std::optional<GeminiRateLimited> rateLimited;
};

template <class T>
struct GeminiOutcome {
    std::optional<T> value;
    GeminiFailure failure;  // when there is no value
    bool ok() const { return value.has_value(); }
};

class GeminiTranscriptionClient {
public:
    using Recognition = GeminiRecognition;
    using LiveEvent = GeminiLiveEvent;
    using RateLimited = GeminiRateLimited;
    struct Uploaded {
        std::string uri;
        std::string mimeType;
        bool operator==(const Uploaded&) const = default;
    };
    struct FileResult {
        std::string text;
        std::vector<std::string> speakers;  // sorted
        bool operator==(const FileResult&) const = default;
    };

    using LiveHandler = std::function<void(const GeminiLiveEvent&)>;
    using DebugHandler = std::function<void(const OpenAIDebugLog&)>;
    using StartCompletion = std::function<void(Expected<void>)>;

    static constexpr double kLiveRequestTimeoutSeconds = 60.0;
    static constexpr double kInteractionTimeoutSeconds = 60.0;
    static constexpr double kUploadTimeoutSeconds = 300.0;
    static constexpr int kMaxActivationWaits = 30;
    static constexpr std::size_t kMaxReportedUnknownShapes = 8;
    static constexpr int kGoingAway = 1001;

    // `geminiBase` is a scheme and host ("https://generativelanguage.googleapis.com").
    GeminiTranscriptionClient(WebSocketTransport& sockets, HttpTransport& http, Scheduler& scheduler,
                              std::string geminiBase);
    ~GeminiTranscriptionClient();
    GeminiTranscriptionClient(const GeminiTranscriptionClient&) = delete;
    GeminiTranscriptionClient& operator=(const GeminiTranscriptionClient&) = delete;

    // Live. Completes once the server has answered the setup with setupComplete; on a
    // refused setup the socket stays, to be closed by the caller.
    void startLive(std::string model, GeminiRecognition recognition, std::string apiKey, LiveHandler onEvent,
                   DebugHandler onDebug, StartCompletion done);
    // 16 kHz mono PCM16. An empty chunk, no socket or a closing client sends nothing.
    Expected<void> appendLivePCM16(const std::vector<std::uint8_t>& pcm16);
    // Working-format audio (24 kHz), resampled to 16 kHz chunk by chunk: what the live
    // session hands every source recogniser.
    Expected<void> sendAudio(const std::vector<std::uint8_t>& pcm24k);
    Expected<void> endLiveAudioStream();
    // Closes the socket with 1001 and silences what the close causes.
    void closeLive();
    bool hasLiveSocket() const { return liveSocket_ != nullptr; }
    bool isClosingLive() const { return isClosingLive_; }
    // "{shape} ×{count}" per line, most frequent first; "（未收到任何帧）" when none.
    std::string liveShapeReport() const;

    // The file route. Uploads the file (reading it off the main thread) and waits until
    // the service says it is active.
    void upload(std::filesystem::path file, std::string apiKey, DebugHandler onDebug,
                std::function<void(GeminiOutcome<Uploaded>)> done);
    // The interactions call for an uploaded file.
    void transcribe(std::string model, Uploaded file, GeminiRecognition recognition, bool speakers, std::string apiKey,
                    DebugHandler onDebug, std::function<void(GeminiOutcome<FileResult>)> done);

    // The wire formats, open for tests and the fuzz target.
    static std::string liveSetupPayload(std::string_view model, const GeminiRecognition& recognition);
    // The event a server frame means; none for a frame of another shape (or no JSON object).
    static std::optional<GeminiLiveEvent> liveEvent(std::string_view frameText);
    // The frame's sorted key paths joined with "+", "<empty>" for {}; none without an object.
    static std::optional<std::string> shapeKey(std::string_view frameText);
    static std::string interactionPayload(std::string_view model, std::string_view uri, std::string_view mimeType,
                                          const GeminiRecognition& recognition, bool speakers);
    static Expected<FileResult> readInteraction(std::string_view body);
    // None for a 2xx reply; otherwise the failure, logged.
    static std::optional<GeminiFailure> check(const HttpResponse& response, std::string_view step,
                                              const DebugHandler& onDebug);
    // "Please retry in 1h2m3.5s" gives 3723.5 seconds.
    static std::optional<double> retryDelay(std::string_view body);
    static std::optional<std::string> quotaSummary(std::string_view body);
    static std::string mimeType(const std::filesystem::path& file);

    // Handles one frame as the socket delivered it (open for tests over recorded frames).
    void receiveLive(const WebSocketFrame& frame);

private:
    void liveOpened();
    void liveEnded(const WebSocketEnd& end);
    void handshakeFrame(const std::string& raw);
    void noteUnknownShape(const std::string& shape, const std::string& raw);
    Expected<void> sendLive(const std::string& message);
    void finishStart(Expected<void> result);
    void awaitActivation(std::string name, std::string apiKey, Uploaded uploaded, std::string state, int waits,
                         DebugHandler onDebug,
                         std::function<void(GeminiOutcome<Uploaded>)> done);

    WebSocketTransport& sockets_;
    HttpTransport& http_;
    Scheduler& scheduler_;
    std::string base_;

    std::unique_ptr<WebSocketConnection> liveSocket_;
    std::vector<std::unique_ptr<WebSocketConnection>> retired_;
    bool isClosingLive_ = false;
    bool liveOpen_ = false;
    bool reading_ = false;  // the setup is confirmed and the stream not failed
    std::string liveModel_;
    std::string setupMessage_;
    std::size_t vocabularyCount_ = 0;
    std::string languageSummary_;
    StartCompletion handshake_;
    std::map<std::string, int> liveShapeCounts_;
    std::set<std::string> reportedUnknownShapes_;
    LiveHandler onLiveEvent_;
    DebugHandler onLiveDebug_;

    std::map<std::uint64_t, std::unique_ptr<HttpCall>> calls_;
    std::uint64_t nextCall_ = 0;
    void send(const HttpRequest& request, HttpTransport::Completion done);
    std::vector<TimerHandle> timers_;
    Lifetime lifetime_;
};

}  // namespace osv
