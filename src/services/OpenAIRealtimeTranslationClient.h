#pragma once

// The client of the OpenAI realtime translation endpoint (WebSocket, path
// "/realtime/translations" under the OpenAI base). One instance serves one capture channel
// of one live session: it opens the socket, sends the session configuration, reads every
// server event and reduces them to the six cases of RealtimeTranslationEvent. It owns no
// audio and no transcript; the controller pushes audio through sendJSON()/sendAudio().
//
// The source transcript and the translation fail independently: trouble on the source
// stream is reported as sourceStreamFailed, never as a failure of the session.
//
// Thread contract: main thread only. Every method is called there, the transport and the
// scheduler deliver there, and onEvent, onDebug and the start completion are called there.
// No callback runs from inside start(); the others may run from inside the transport's
// handlers. The client may be destroyed at any time: pending callbacks are then dropped
// and an open socket is closed with 1001 by the transport.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "core/Expected.h"
#include "core/Scheduler.h"
#include "metering/DebugEvent.h"
#include "services/RealtimeServerEvent.h"
#include "services/WebSocketTransport.h"

namespace osv {

struct TranslatorSettings;

struct RealtimeTranslationEvent {
    enum class Kind {
        inputTranscriptDelta,   // text: a piece of source transcript
        outputTranscriptDelta,  // text: a piece of translation
        sourceStreamFailed,     // text: why; the translation goes on
        failed,                 // text: why; code, if known
        connected,              // the configuration has been sent
        closed,                 // the server closed the session
    };
    Kind kind;
    std::string text;
    std::optional<std::string> code;

    static RealtimeTranslationEvent inputTranscriptDelta(std::string t) { return {Kind::inputTranscriptDelta, std::move(t), {}}; }
    static RealtimeTranslationEvent outputTranscriptDelta(std::string t) { return {Kind::outputTranscriptDelta, std::move(t), {}}; }
    static RealtimeTranslationEvent sourceStreamFailed(std::string message) { return {Kind::sourceStreamFailed, std::move(message), {}}; }
    static RealtimeTranslationEvent failed(std::string message, std::optional<std::string> code) {
        return {Kind::failed, std::move(message), std::move(code)};
    }
    static RealtimeTranslationEvent connected() { return {Kind::connected, {}, {}}; }
    static RealtimeTranslationEvent closed() { return {Kind::closed, {}, {}}; }
    bool operator==(const RealtimeTranslationEvent&) const = default;
};

class OpenAIRealtimeTranslationClient {
public:
    using EventHandler = std::function<void(const RealtimeTranslationEvent&)>;
    using DebugHandler = std::function<void(const OpenAIDebugLog&)>;
    // Ok once the configuration has been sent (after `connected` was delivered); otherwise
    // the failure: missing_api_key, api_error, or the socket's own failure.
    using StartCompletion = std::function<void(Expected<void>)>;

    static constexpr int kGoingAway = 1001;
    static constexpr double kRequestTimeoutSeconds = 60.0;
    static constexpr std::size_t kMaxReportedUnknownTypes = 8;
    static constexpr std::size_t kUnknownRawCharacters = 400;

    // `openAIBase` is the API's base as ServiceEndpoints gives it.
    OpenAIRealtimeTranslationClient(WebSocketTransport& transport, Scheduler& scheduler, std::string openAIBase);
    ~OpenAIRealtimeTranslationClient();
    OpenAIRealtimeTranslationClient(const OpenAIRealtimeTranslationClient&) = delete;
    OpenAIRealtimeTranslationClient& operator=(const OpenAIRealtimeTranslationClient&) = delete;

    // Opens the socket, sends the output language (and, when `wantsSourceTranscript`, the
    // transcription model), delivers `connected`, then reads until the server or the
    // controller closes. May be called again after a close: every per-session field is
    // reset. `done` runs exactly once, never from inside this call.
    void start(const TranslatorSettings& settings, std::string targetLanguageCode, bool wantsSourceTranscript,
               EventHandler onEvent, DebugHandler onDebug, StartCompletion done);

    // One message as one text frame. Fails with api_error "Realtime WebSocket 未连接。"
    // without a socket; with the socket's error when sending fails.
    Expected<void> sendJSON(const nlohmann::ordered_json& message);
    // One chunk of working-format PCM as an append message, neither split nor merged. An
    // empty chunk, a socket not yet (or no longer) open, or a closing client sends nothing
    // and reports nothing: holding audio during the handshake is the caller's job.
    Expected<void> sendAudio(const std::vector<std::uint8_t>& pcm16);

    // Called when the source stream has gone quiet while the translation still arrives:
    // changes to the fallback transcription model once, or sends the configuration again.
    // The new model when it changed, otherwise none.
    std::optional<std::string> rearmTranscription(const DebugHandler& onDebug);

    // "{type} ×{count}" per line, most frequent first; "（未收到任何事件）" when none.
    std::string eventTypeReport() const;

    // Silences every report that a close would cause: set before closing the socket.
    void markClosing() { isClosing_ = true; }
    bool isClosing() const { return isClosing_; }
    // Marks closing, closes the socket with code 1001 and no reason, and forgets it.
    // `whenClosed` runs once the socket is gone (at once when there is none).
    void close(std::function<void()> whenClosed = {});
    // A socket is there: connecting or reading.
    bool hasSocket() const { return socket_ != nullptr; }

    const std::string& transcriptionModel() const { return transcriptionModel_; }
    // When the service said it will end this connection (Unix seconds), from session.created.
    std::optional<double> sessionExpiresAt() const { return sessionExpiresAt_; }
    const std::string& fallbackTranscriptionModel() const { return fallbackTranscriptionModel_; }
    const std::map<std::string, int>& eventTypeCounts() const { return eventTypeCounts_; }

    // The steps of reading, open for tests over recorded event sequences.
    // Handles one decoded server event; true when it ends the reading (the session closed).
    bool handle(const RealtimeServerEvent& event, const EventHandler& onEvent, const DebugHandler& onDebug);
    // Handles one frame as the socket delivered it.
    void receive(const WebSocketFrame& frame);
    bool retryWithFallbackTranscriptionIfNeeded(const std::string& errorMessage, const DebugHandler& onDebug);
    static bool concernsTranscription(std::string_view text);
    void noteUnknown(const std::string& type, const std::optional<std::string>& raw, const DebugHandler& onDebug);

private:
    struct Socket;

    void opened(std::uint64_t generation);
    void ended(std::uint64_t generation, const WebSocketEnd& end);
    Expected<void> sendTranscriptionConfiguration();
    void retire(std::unique_ptr<Socket> socket, int code, std::function<void()> whenClosed);
    void debug(const DebugHandler& onDebug, OpenAIDebugLog log) const;

    WebSocketTransport& transport_;
    Scheduler& scheduler_;
    std::string openAIBase_;

    std::unique_ptr<Socket> socket_;
    // Sockets being closed, kept until the transport says they are gone.
    std::vector<std::unique_ptr<Socket>> retired_;
    std::uint64_t generation_ = 0;
    bool isClosing_ = false;
    std::string transcriptionModel_;
    std::string fallbackTranscriptionModel_;
    std::string targetLanguage_;
    bool didRetryTranscriptionModel_ = false;
    std::optional<double> sessionExpiresAt_;
    RealtimeStreamReader reader_;
    std::map<std::string, int> eventTypeCounts_;
    std::set<std::string> reportedUnknownTypes_;
    EventHandler onEvent_;
    DebugHandler onDebug_;
    Lifetime lifetime_;
};

}  // namespace osv
