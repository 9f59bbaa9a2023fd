#include "services/OpenAIRealtimeTranscriptionClient.h"

#include "core/Base64.h"
#include "core/Json.h"
#include "core/Text.h"
#include "core/TranslatorError.h"
#include "services/ServiceEndpoints.h"
#include "settings/TranslatorSettings.h"

namespace osv {
namespace {

using json::Json;
using Level = DebugEvent::Level;
using Output = TranscriptionTurnReader::Output;

constexpr const char* kEndpointPath = "/realtime";
constexpr const char* kHandshakeExpired = "实时原文连接超时";
constexpr const char* kRecognitionFailed = "实时原文识别失败";
constexpr const char* kConnectionLost = "实时原文连接已断开";

OpenAIDebugLog log(Level level, std::string title, std::string details, std::optional<std::string> code = {}) {
    OpenAIDebugLog l;
    l.level = level;
    l.category = DebugEvent::Category::transcription;
    l.title = std::move(title);
    l.details = std::move(details);
    l.code = std::move(code);
    return l;
}

bool startsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

std::string firstCharacters(std::string_view text, std::size_t count) {
    text::GraphemeWalker walker(text);
    std::string_view cluster;
    std::size_t taken = 0;
    std::size_t bytes = 0;
    while (taken < count && walker.next(cluster)) {
        bytes = std::size_t(cluster.data() + cluster.size() - text.data());
        ++taken;
    }
    return std::string(text.substr(0, bytes));
}

std::string message(std::string_view type) {
    Json m = Json::object();
    m["type"] = type;
    return json::dumpLine(m);
}

}  // namespace

OpenAIRealtimeTranscriptionClient::OpenAIRealtimeTranscriptionClient(WebSocketTransport& transport,
                                                                     Scheduler& scheduler, std::string openAIBase)
    : transport_(transport), scheduler_(scheduler), openAIBase_(std::move(openAIBase)) {}

OpenAIRealtimeTranscriptionClient::~OpenAIRealtimeTranscriptionClient() = default;

void OpenAIRealtimeTranscriptionClient::debug(OpenAIDebugLog l) const {
    if (onDebug_) onDebug_(l);
}

std::vector<std::string> OpenAIRealtimeTranscriptionClient::glossaryTerms(std::string_view glossary) {
    std::vector<std::string> terms;
    std::size_t start = 0;
    while (start <= glossary.size()) {
        const std::size_t end = std::min(glossary.find('\n', start), glossary.size());
        const std::string_view line = glossary.substr(start, end - start);
        start = end + 1;
        if (line.find_first_of("<>\r") != std::string_view::npos) continue;
        const std::string_view term = text::trimmed(line);
        if (!term.empty()) terms.emplace_back(term);
    }
    return terms;
}

std::string OpenAIRealtimeTranscriptionClient::configuration(std::string_view model, RecognitionLanguage language,
                                                             std::string_view glossary) {
    const std::vector<std::string> terms = glossaryTerms(glossary);
    std::string prompt = language == RecognitionLanguage::automatic
                             ? "A conversation in Japanese and Mandarin Chinese. "
                             : "A conversation. ";
    prompt += "Transcribe only audible speech faithfully, preserving names, numbers, dates and negation. "
              "Do not invent words for ringing, music or silence. ";
    for (std::size_t i = 0; i < terms.size(); ++i) prompt += (i ? "; " : "") + terms[i];

    Json transcription = Json::object();
    transcription["model"] = model;
    transcription["prompt"] = firstCharacters(prompt, kPromptCharacters);
    const bool live = startsWith(model, "gpt-live-transcribe");
    if (live || startsWith(model, "gpt-transcribe")) {
        if (live) transcription["delay"] = "low";
        switch (language) {
            case RecognitionLanguage::chinese: transcription["languages"] = Json::array({"zh"}); break;
            case RecognitionLanguage::japanese: transcription["languages"] = Json::array({"ja"}); break;
            case RecognitionLanguage::automatic: transcription["languages"] = Json::array({"ja", "zh"}); break;
        }
        if (!terms.empty()) {
            Json keywords = Json::array();
            for (std::size_t i = 0; i < terms.size() && i < kMaxKeywords; ++i)
                keywords.push_back(firstCharacters(terms[i], kKeywordCharacters));
            transcription["keywords"] = std::move(keywords);
        }
    } else if (language != RecognitionLanguage::automatic) {
        transcription["language"] = language == RecognitionLanguage::chinese ? "zh" : "ja";
    }

    Json m = Json::object();
    m["type"] = "session.update";
    m["session"]["type"] = "transcription";
    m["session"]["audio"]["input"]["format"]["type"] = "audio/pcm";
    m["session"]["audio"]["input"]["format"]["rate"] = 24000;
    m["session"]["audio"]["input"]["transcription"] = std::move(transcription);
    m["session"]["audio"]["input"]["turn_detection"] = nullptr;
    return json::dumpLine(m);
}

void OpenAIRealtimeTranscriptionClient::start(const TranslatorSettings& settings, std::string model,
                                              EventHandler onEvent, DebugHandler onDebug, StartCompletion done) {
    // An earlier stream of this client is let go quietly.
    if (handshake_) finishStart(Error{"cancelled", "已取消"});
    if (socket_) retireSocket(kGoingAway);
    onEvent_ = std::move(onEvent);
    onDebug_ = std::move(onDebug);
    handshake_ = std::move(done);
    const std::string key(text::trimmed(settings.apiKey));
    if (key.empty()) return finishStart(TranslatorError::missingAPIKey().asError());
    const auto url = webSocketEndpointURL(openAIBase_, kEndpointPath, {{"intent", "transcription"}});
    if (!url) return finishStart(TranslatorError::apiError("Realtime URL 无效。").asError());

    model_ = std::move(model);
    turn_ = TranscriptionAudioTurn::forModel(model_);
    configuration_ = configuration(model_, settings.recognitionLanguage, settings.glossary);

    WebSocketRequest request;
    request.url = *url;
    request.timeoutSeconds = kRequestTimeoutSeconds;
    request.headers = {{"Authorization", "Bearer " + key}};
    const auto guard = lifetime_.guard();
    WebSocketConnection::Handlers handlers;
    // Each handler finds out whether its socket is still the current one by the socket's
    // address, set once connect() has returned.
    auto slot = std::make_shared<WebSocketConnection*>(nullptr);
    handlers.onOpen = [this, guard, slot] {
        if (!guard.expired() && socket_ && socket_.get() == *slot) opened();
    };
    handlers.onFrame = [this, guard, slot](WebSocketFrame frame) {
        if (!guard.expired() && socket_ && socket_.get() == *slot) receive(frame);
    };
    handlers.onEnd = [this, guard, slot](const WebSocketEnd& end) {
        if (guard.expired()) return;
        if (socket_ && socket_.get() == *slot) return ended(end);
        for (auto it = retired_.begin(); it != retired_.end(); ++it) {
            if (it->get() != *slot) continue;
            // Destroyed after the transport's handler has returned.
            std::shared_ptr<WebSocketConnection> gone(std::move(*it));
            retired_.erase(it);
            scheduler_.post([gone] {});
            return;
        }
    };
    socket_ = transport_.connect(request, std::move(handlers));
    *slot = socket_.get();
    socketOpen_ = false;
    closing_ = false;
    confirmed_ = false;
    pendingItems_.clear();
    outstandingCommits_ = 0;
    reader_ = TranscriptionTurnReader();
    handshakeTimeout_ = scheduler_.after(kHandshakeTimeoutSeconds, [this, guard] {
        if (!guard.expired()) expireHandshake();
    });
    debug(log(Level::info, "连接实时原文", "endpoint: /v1/realtime?intent=transcription\nmodel: " + model_));
}

void OpenAIRealtimeTranscriptionClient::finishStart(Expected<void> result) {
    if (!handshake_) return;
    scheduler_.post([guard = lifetime_.guard(), done = std::move(handshake_), result = std::move(result)] {
        if (!guard.expired()) done(result);
    });
    handshake_ = nullptr;
}

void OpenAIRealtimeTranscriptionClient::opened() {
    socketOpen_ = true;
    sendBatch({configuration_});
}

void OpenAIRealtimeTranscriptionClient::expireHandshake() {
    if (!handshake_) return;
    retireSocket(kGoingAway);
    debug(log(Level::error, "实时原文连接超时", "model: " + model_, "realtime_transcription_timeout"));
    finishStart(TranslatorError::apiError(kHandshakeExpired).asError());
}

void OpenAIRealtimeTranscriptionClient::retireSocket(int code) {
    handshakeTimeout_.cancel();
    if (!socket_) return;
    WebSocketConnection& connection = *socket_;
    // Kept before closing: a transport may report the end from inside close().
    retired_.push_back(std::move(socket_));
    socketOpen_ = false;
    connection.close(code, "");
}

void OpenAIRealtimeTranscriptionClient::lose(const std::string& description) {
    const bool starting = static_cast<bool>(handshake_);
    retireSocket(kGoingAway);
    if (starting) finishStart(Error{"realtime_connect_failed", description});
    if (closing_) return;
    if (onEvent_) onEvent_(TranscriptionEvent::failed(description));
    debug(log(Level::error, "实时原文流中断", description, "realtime_transcription_failed"));
}

void OpenAIRealtimeTranscriptionClient::ended(const WebSocketEnd& end) {
    // The socket is gone already; it is kept only until this handler has returned.
    std::shared_ptr<WebSocketConnection> gone(std::move(socket_));
    scheduler_.post([gone] {});
    socketOpen_ = false;
    handshakeTimeout_.cancel();
    std::string description = end.description;
    if (description.empty()) description = kConnectionLost;
    if (handshake_) finishStart(Error{"realtime_connect_failed", description});
    if (closing_) return;
    if (onEvent_) onEvent_(TranscriptionEvent::failed(description));
    debug(log(Level::error, "实时原文流中断", description, "realtime_transcription_failed"));
}

void OpenAIRealtimeTranscriptionClient::sendBatch(const std::vector<std::string>& messages) {
    for (const auto& m : messages) {
        if (!socket_) return;
        if (auto sent = socket_->sendText(m); !sent) {
            lose(sent.error().message);
            return;
        }
    }
}

void OpenAIRealtimeTranscriptionClient::sendAudio(const std::vector<std::uint8_t>& pcm16) {
    if (closing_ || !socket_ || !socketOpen_ || pcm16.empty()) return;
    Json append = Json::object();
    append["type"] = "input_audio_buffer.append";
    append["audio"] = base64Encode(pcm16);
    std::vector<std::string> batch{json::dumpLine(append)};
    if (turn_.append(pcm16)) {
        turn_.clearBuffer();
        ++outstandingCommits_;
        batch.push_back(message("input_audio_buffer.commit"));
    } else if (!turn_.heardSpeech && turn_.bytes >= TranscriptionAudioTurn::kSilenceClearBytes) {
        // Silence is thrown away on the server each second, not billed and transcribed.
        turn_.clearBuffer();
        batch.push_back(message("input_audio_buffer.clear"));
    }
    sendBatch(batch);
}

void OpenAIRealtimeTranscriptionClient::finishInput(std::function<void()> done) {
    if (turn_.heardSpeech && turn_.bytes >= TranscriptionAudioTurn::kMinimumCommitBytes && socket_ && socketOpen_ &&
        !closing_) {
        turn_.clearBuffer();
        ++outstandingCommits_;
        sendBatch({message("input_audio_buffer.commit")});
    }
    const Date deadline = scheduler_.now() + kFinishWaitSeconds;
    const auto guard = lifetime_.guard();
    scheduler_.post([this, guard, deadline, done = std::move(done)]() mutable {
        if (!guard.expired()) pollFinish(deadline, std::move(done));
    });
}

void OpenAIRealtimeTranscriptionClient::pollFinish(Date deadline, std::function<void()> done) {
    if (outstandingCommits_ < 1 || scheduler_.now() >= deadline || closing_) {
        if (done) done();
        return;
    }
    const auto guard = lifetime_.guard();
    finishTimer_ = scheduler_.after(kFinishPollSeconds, [this, guard, deadline, done = std::move(done)]() mutable {
        if (!guard.expired()) pollFinish(deadline, std::move(done));
    });
}

void OpenAIRealtimeTranscriptionClient::close() {
    closing_ = true;
    if (handshake_) finishStart(Error{"cancelled", "已取消"});
    handshakeTimeout_.cancel();
    retireSocket(1000);
}

void OpenAIRealtimeTranscriptionClient::receive(const WebSocketFrame& frame) {
    if (closing_) return;
    const auto event = TranscriptionWireEvent::decode(frame.payload);
    if (!event) return;  // skipped silently

    if (event->type == "session.updated" || event->type == "transcription_session.updated") {
        handshakeTimeout_.cancel();
        if (handshake_) {
            confirmed_ = true;
            debug(log(Level::success, "实时原文已连接", "model: " + model_, "realtime_transcription_connected"));
            finishStart(Expected<void>());
        }
    }
    if (event->type == "error" || event->type == "conversation.item.input_audio_transcription.failed") {
        const std::string text = TranslatorError::apiError(event->errorMessage.value_or(kRecognitionFailed)).userText();
        const bool starting = static_cast<bool>(handshake_);
        if (starting) finishStart(TranslatorError::apiError(event->errorMessage.value_or(kRecognitionFailed)).asError());
        retireSocket(kGoingAway);
        if (!closing_ && onEvent_) onEvent_(TranscriptionEvent::failed(text));
        debug(log(Level::error, "实时原文识别失败", "type: " + event->type + "\n" + text, "realtime_transcription_error"));
        return;
    }
    if (event->type == "input_audio_buffer.committed" && event->itemID) pendingItems_.insert(*event->itemID);
    if (event->type == "conversation.item.input_audio_transcription.completed" && event->itemID &&
        pendingItems_.erase(*event->itemID) > 0 && outstandingCommits_ > 0)
        --outstandingCommits_;

    // Copied: a handler may close the client.
    const EventHandler onEvent = onEvent_;
    for (Output& out : reader_.accept(*event)) {
        if (out.kind != Output::Kind::ended && !text::isBlank(out.text)) turn_.hasTranscript = true;
        if (!onEvent) continue;
        switch (out.kind) {
            case Output::Kind::text: onEvent(TranscriptionEvent::delta(std::move(out.text))); break;
            case Output::Kind::revised:
                onEvent(TranscriptionEvent::revised(std::move(out.previous), std::move(out.text)));
                break;
            case Output::Kind::ended: onEvent(TranscriptionEvent::turnEnded()); break;
        }
    }
}

}  // namespace osv
