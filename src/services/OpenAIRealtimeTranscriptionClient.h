#pragma once

// The client of the OpenAI realtime transcription session (WebSocket, path "/realtime" with
// intent=transcription under the OpenAI base): the words of one capture channel in the
// original language, beside the translation stream. The session runs without server turn
// detection; TranscriptionAudioTurn decides when to commit, and TranscriptionTurnReader
// turns the server's replies into delta, revised and turnEnded in spoken order.
//
// One instance serves one stream: to reconnect, the controller makes a new one.
//
// Thread contract: main thread only, as the translation client. No callback runs from
// inside start() or finishInput(); the client may be destroyed at any time, and pending
// callbacks are then dropped.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/Expected.h"
#include "core/Scheduler.h"
#include "metering/DebugEvent.h"
#include "services/TranscriptionTurn.h"
#include "services/WebSocketTransport.h"

namespace osv {

struct TranslatorSettings;
enum class RecognitionLanguage;

struct TranscriptionEvent {
    enum class Kind {
        delta,      // text: new text of the current turn
        revised,    // previous, text: the turn's final text differs from what was shown
        failed,     // text: why the stream ended
        turnEnded,  // the turn is complete
    };
    Kind kind = Kind::delta;
    std::string text;
    std::string previous;

    static TranscriptionEvent delta(std::string t) { return {Kind::delta, std::move(t), {}}; }
    static TranscriptionEvent revised(std::string previous, std::string t) {
        return {Kind::revised, std::move(t), std::move(previous)};
    }
    static TranscriptionEvent failed(std::string message) { return {Kind::failed, std::move(message), {}}; }
    static TranscriptionEvent turnEnded() { return {Kind::turnEnded, {}, {}}; }
    bool operator==(const TranscriptionEvent&) const = default;
};

class OpenAIRealtimeTranscriptionClient {
public:
    using Event = TranscriptionEvent;
    using EventHandler = std::function<void(const TranscriptionEvent&)>;
    using DebugHandler = std::function<void(const OpenAIDebugLog&)>;
    // Ok once the server has confirmed the configuration; otherwise missing_api_key,
    // api_error ("实时原文连接超时", the server's error), realtime_connect_failed or cancelled.
    using StartCompletion = std::function<void(Expected<void>)>;

    static constexpr double kRequestTimeoutSeconds = 10.0;
    static constexpr double kHandshakeTimeoutSeconds = 8.0;
    static constexpr double kFinishWaitSeconds = 2.5;
    static constexpr double kFinishPollSeconds = 0.04;
    static constexpr int kGoingAway = 1001;
    static constexpr std::size_t kPromptCharacters = 800;
    static constexpr std::size_t kMaxKeywords = 32;
    static constexpr std::size_t kKeywordCharacters = 100;

    OpenAIRealtimeTranscriptionClient(WebSocketTransport& transport, Scheduler& scheduler, std::string openAIBase);
    ~OpenAIRealtimeTranscriptionClient();
    OpenAIRealtimeTranscriptionClient(const OpenAIRealtimeTranscriptionClient&) = delete;
    OpenAIRealtimeTranscriptionClient& operator=(const OpenAIRealtimeTranscriptionClient&) = delete;

    // Connects with the settings' key, recognition language and glossary, sends the
    // configuration for `model`, and completes when the server confirms it (at most 8 s).
    void start(const TranslatorSettings& settings, std::string model, EventHandler onEvent, DebugHandler onDebug,
               StartCompletion done);

    // One chunk of working-format audio (24 kHz mono PCM16), never split; with a commit or
    // a clear behind it when the turn says so. Nothing is sent before the socket is open
    // or once the client is closing: holding audio during the connection is the caller's.
    void sendAudio(const std::vector<std::uint8_t>& pcm16);
    // Commits what is left and waits, at most 2.5 s, for the transcripts of every commit.
    // `done` runs once, never from inside this call.
    void finishInput(std::function<void()> done);
    // Ends everything, closing the socket with 1000; a pending start fails as cancelled.
    void close();

    // The configuration message, as sent.
    static std::string configuration(std::string_view model, RecognitionLanguage language, std::string_view glossary);
    // The glossary's terms: its non-empty lines, without those holding "<", ">" or "\r".
    static std::vector<std::string> glossaryTerms(std::string_view glossary);

    bool hasSocket() const { return socket_ != nullptr; }
    bool isClosing() const { return closing_; }
    bool isConfirmed() const { return confirmed_; }
    const TranscriptionAudioTurn& turn() const { return turn_; }
    const std::set<std::string>& pendingItems() const { return pendingItems_; }
    int outstandingCommits() const { return outstandingCommits_; }

    // Handles one frame as the socket delivered it (open for tests over recorded frames).
    void receive(const WebSocketFrame& frame);

private:
    void opened();
    void ended(const WebSocketEnd& end);
    void expireHandshake();
    // Sends the messages in order; a failure loses the stream.
    void sendBatch(const std::vector<std::string>& messages);
    void lose(const std::string& description);
    void finishStart(Expected<void> result);
    void retireSocket(int code);
    void pollFinish(Date deadline, std::function<void()> done);
    void debug(OpenAIDebugLog log) const;

    WebSocketTransport& transport_;
    Scheduler& scheduler_;
    std::string openAIBase_;

    std::unique_ptr<WebSocketConnection> socket_;
    bool socketOpen_ = false;
    // Closed sockets, kept until the transport says they are gone.
    std::vector<std::unique_ptr<WebSocketConnection>> retired_;
    StartCompletion handshake_;
    TimerHandle handshakeTimeout_;
    TimerHandle finishTimer_;
    bool closing_ = false;
    bool confirmed_ = false;
    std::string model_;
    std::string configuration_;
    TranscriptionAudioTurn turn_;
    TranscriptionTurnReader reader_;
    std::set<std::string> pendingItems_;
    int outstandingCommits_ = 0;
    EventHandler onEvent_;
    DebugHandler onDebug_;
    Lifetime lifetime_;
};

}  // namespace osv
