#include "services/OpenAIRealtimeTranslationClient.h"

#include <algorithm>
#include <cctype>

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
using Route = RealtimeEventRoute::Route;
using Stream = RealtimeEventRoute::Stream;

constexpr const char* kEndpointPath = "/realtime/translations";
constexpr const char* kNotConnected = "Realtime WebSocket 未连接。";

OpenAIDebugLog log(Level level, std::string title, std::string details, std::optional<std::string> code = {}) {
    OpenAIDebugLog l;
    l.level = level;
    l.category = DebugEvent::Category::openAI;
    l.title = std::move(title);
    l.details = std::move(details);
    l.code = std::move(code);
    return l;
}

bool containsIgnoringCase(std::string_view text, std::string_view part) {
    return text::asciiLowercase(text).find(text::asciiLowercase(part)) != std::string::npos;
}

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

Json outputLanguageMessage(const std::string& language) {
    Json m = Json::object();
    m["type"] = "session.update";
    m["session"]["audio"]["output"]["language"] = language;
    return m;
}

Json transcriptionMessage(const std::string& model) {
    Json m = Json::object();
    m["type"] = "session.update";
    m["session"]["audio"]["input"]["transcription"]["model"] = model;
    return m;
}

}  // namespace

struct OpenAIRealtimeTranslationClient::Socket {
    std::uint64_t generation = 0;
    std::unique_ptr<WebSocketConnection> connection;
    bool isOpen = false;  // configuration sent, reading
    bool wantsSourceTranscript = false;
    StartCompletion pendingStart;  // until the configuration is sent
    std::function<void()> whenClosed;  // for a retired socket
};

OpenAIRealtimeTranslationClient::OpenAIRealtimeTranslationClient(WebSocketTransport& transport, Scheduler& scheduler,
                                                                 std::string openAIBase)
    : transport_(transport), scheduler_(scheduler), openAIBase_(std::move(openAIBase)) {}

OpenAIRealtimeTranslationClient::~OpenAIRealtimeTranslationClient() = default;

void OpenAIRealtimeTranslationClient::debug(const DebugHandler& onDebug, OpenAIDebugLog l) const {
    if (onDebug) onDebug(l);
}

void OpenAIRealtimeTranslationClient::start(const TranslatorSettings& settings, std::string targetLanguageCode,
                                            bool wantsSourceTranscript, EventHandler onEvent, DebugHandler onDebug,
                                            StartCompletion done) {
    auto fail = [&](Error error) {
        scheduler_.post([guard = lifetime_.guard(), done = std::move(done), error = std::move(error)] {
            if (!guard.expired() && done) done(error);
        });
    };
    const std::string key(text::trimmed(settings.apiKey));
    if (key.empty()) return fail(TranslatorError::missingAPIKey().asError());

    const std::string model = settings.models.resolved(ModelJob::realtimeTranslate, settings.activeMode);
    const auto url = webSocketEndpointURL(openAIBase_, kEndpointPath, {{"model", model}});
    if (!url) return fail(TranslatorError::apiError("Realtime URL 无效。").asError());

    WebSocketRequest request;
    request.url = *url;
    request.timeoutSeconds = kRequestTimeoutSeconds;
    request.headers = {{"Authorization", "Bearer " + key}, {"OpenAI-Safety-Identifier", "ossevra"}};

    // A socket of an earlier session is let go quietly.
    if (socket_) retire(std::move(socket_), kGoingAway, {});

    auto socket = std::make_unique<Socket>();
    socket->generation = ++generation_;
    socket->wantsSourceTranscript = wantsSourceTranscript;
    socket->pendingStart = std::move(done);
    const std::uint64_t generation = socket->generation;
    const auto guard = lifetime_.guard();
    WebSocketConnection::Handlers handlers;
    handlers.onOpen = [this, guard, generation] {
        if (!guard.expired()) opened(generation);
    };
    handlers.onFrame = [this, guard, generation](WebSocketFrame frame) {
        if (!guard.expired() && socket_ && socket_->generation == generation && socket_->isOpen) receive(frame);
    };
    handlers.onEnd = [this, guard, generation](const WebSocketEnd& end) {
        if (!guard.expired()) ended(generation, end);
    };
    socket->connection = transport_.connect(request, std::move(handlers));
    socket_ = std::move(socket);

    isClosing_ = false;
    reader_ = RealtimeStreamReader();
    eventTypeCounts_.clear();
    reportedUnknownTypes_.clear();
    onEvent_ = std::move(onEvent);
    onDebug_ = std::move(onDebug);

    transcriptionModel_ =
        std::string(text::trimmed(settings.models.resolved(ModelJob::realtimeTranscribe, settings.activeMode)));
    if (transcriptionModel_.empty())
        transcriptionModel_ = settings.models.resolved(ModelJob::fileTranscribe, settings.activeMode);
    fallbackTranscriptionModel_ = settings.models.resolved(ModelJob::fileTranscribe, settings.activeMode);
    targetLanguage_ = std::move(targetLanguageCode);
    didRetryTranscriptionModel_ = false;
    sessionExpiresAt_.reset();

    debug(onDebug_, log(Level::info, "连接 Realtime 同传",
                        "endpoint: /v1/realtime/translations\nmodel: " + model + "\ntranscription: " +
                            transcriptionModel_ + "\ntargetLanguage: " + targetLanguage_));
}

void OpenAIRealtimeTranslationClient::opened(std::uint64_t generation) {
    if (!socket_ || socket_->generation != generation || socket_->isOpen) return;
    StartCompletion done = std::move(socket_->pendingStart);
    socket_->pendingStart = nullptr;

    Expected<void> sent = sendJSON(outputLanguageMessage(targetLanguage_));
    if (sent && socket_->wantsSourceTranscript) sent = sendTranscriptionConfiguration();
    if (!sent) {
        // Nothing reads this socket: it goes, and start fails with the send's error.
        retire(std::move(socket_), kGoingAway, {});
        if (done) done(sent.error());
        return;
    }
    socket_->isOpen = true;
    if (onEvent_) onEvent_(RealtimeTranslationEvent::connected());
    debug(onDebug_, log(Level::success, "Realtime 同传已连接", "targetLanguage: " + targetLanguage_));
    if (done) done(Expected<void>());
}

void OpenAIRealtimeTranslationClient::ended(std::uint64_t generation, const WebSocketEnd& end) {
    // A retired socket is gone: whoever closed it may go on.
    const auto retired = std::find_if(retired_.begin(), retired_.end(),
                                      [&](const auto& s) { return s->generation == generation; });
    if (retired != retired_.end()) {
        std::shared_ptr<Socket> gone(std::move(*retired));
        retired_.erase(retired);
        // Destroyed after the transport's handler has returned.
        scheduler_.post([gone] {
            if (gone->whenClosed) gone->whenClosed();
        });
        return;
    }
    if (!socket_ || socket_->generation != generation) return;

    std::shared_ptr<Socket> lost(std::move(socket_));
    scheduler_.post([lost] {});
    if (!lost->isOpen) {
        if (lost->pendingStart)
            lost->pendingStart(Error{"realtime_connect_failed",
                                     end.description.empty() ? std::string(kNotConnected) : end.description});
        return;
    }
    if (isClosing_) return;
    const std::string description = end.description;
    if (onEvent_) onEvent_(RealtimeTranslationEvent::failed(description, "realtime_receive_failed"));
    debug(onDebug_, log(Level::error, "Realtime 接收失败",
                        description + "\n本次会话事件统计：\n" + eventTypeReport(), "realtime_receive_failed"));
}

void OpenAIRealtimeTranslationClient::retire(std::unique_ptr<Socket> socket, int code,
                                             std::function<void()> whenClosed) {
    if (socket->pendingStart) {
        scheduler_.post([guard = lifetime_.guard(), done = std::move(socket->pendingStart)] {
            if (!guard.expired() && done) done(TranslatorError::apiError(kNotConnected).asError());
        });
        socket->pendingStart = nullptr;
    }
    socket->whenClosed = std::move(whenClosed);
    // Kept before closing: a transport may report the end from inside close().
    WebSocketConnection& connection = *socket->connection;
    retired_.push_back(std::move(socket));
    connection.close(code, "");
}

void OpenAIRealtimeTranslationClient::close(std::function<void()> whenClosed) {
    isClosing_ = true;
    if (socket_) {
        retire(std::move(socket_), kGoingAway, std::move(whenClosed));
    } else if (whenClosed) {
        scheduler_.post(std::move(whenClosed));
    }
}

Expected<void> OpenAIRealtimeTranslationClient::sendJSON(const nlohmann::ordered_json& message) {
    if (!socket_) return TranslatorError::apiError(kNotConnected).asError();
    if (!message.is_object())
        return Error{"json_serialization_failed", "Realtime message is not a JSON object"};
    std::string textFrame;
    try {
        textFrame = message.dump();
    } catch (const nlohmann::json::exception&) {
        // Text that is not UTF-8 has no JSON form.
        return TranslatorError::apiError("Realtime JSON 编码失败。").asError();
    }
    return socket_->connection->sendText(textFrame);
}

Expected<void> OpenAIRealtimeTranslationClient::sendAudio(const std::vector<std::uint8_t>& pcm16) {
    if (pcm16.empty() || !socket_ || !socket_->isOpen || isClosing_) return {};
    Json m = Json::object();
    m["type"] = "session.input_audio_buffer.append";
    m["audio"] = base64Encode(pcm16);
    return sendJSON(m);
}

Expected<void> OpenAIRealtimeTranslationClient::sendTranscriptionConfiguration() {
    return sendJSON(transcriptionMessage(transcriptionModel_));
}

void OpenAIRealtimeTranslationClient::receive(const WebSocketFrame& frame) {
    if (frame.kind == WebSocketFrame::Kind::binary && !text::isValidUTF8(frame.payload)) return;
    const std::string& raw = frame.payload;
    const auto event = RealtimeServerEvent::decode(raw);
    if (!event) {
        noteUnknown("<undecodable>", raw, onDebug_);
        return;
    }
    // Copies: a handler may start the client again and replace them.
    const EventHandler onEvent = onEvent_;
    const DebugHandler onDebug = onDebug_;
    handle(*event, onEvent, onDebug);
}

bool OpenAIRealtimeTranslationClient::handle(const RealtimeServerEvent& event, const EventHandler& onEvent,
                                             const DebugHandler& onDebug) {
    eventTypeCounts_[event.type] += 1;
    if (event.sessionExpiresAt) sessionExpiresAt_ = event.sessionExpiresAt;
    const Route route = RealtimeEventRoute::route(event.type);
    const std::optional<std::string> whole = event.wholeText();

    if (auto text = reader_.read(event.type, event.delta, whole, route)) {
        const bool source = text->stream == Stream::source;
        if (text->isWholeTurn)
            debug(onDebug, log(Level::warning, "整轮文本补回",
                               std::string("stream: ") + (source ? "原文" : "译文") + "\ntype: " + event.type +
                                   "\n本轮没有收到任何 delta，改用整轮文本。",
                               "realtime_completed_without_deltas"));
        if (onEvent)
            onEvent(source ? RealtimeTranslationEvent::inputTranscriptDelta(std::move(text->text))
                           : RealtimeTranslationEvent::outputTranscriptDelta(std::move(text->text)));
    }

    switch (route) {
        case Route::sourceFailed: {
            std::string message = event.error ? event.error->message : whole.value_or("转写未能完成。");
            if (onEvent) onEvent(RealtimeTranslationEvent::sourceStreamFailed(message));
            debug(onDebug, log(Level::warning, "原文转写失败（译文不受影响）", "type: " + event.type + "\n" + message,
                               "realtime_transcription_failed"));
            break;
        }
        case Route::error: {
            const std::string message = event.error ? event.error->message : "Realtime 返回未知错误。";
            std::string code = "realtime_error";
            if (event.error && event.error->code) code = *event.error->code;
            else if (event.error && event.error->type) code = *event.error->type;
            if (retryWithFallbackTranscriptionIfNeeded(message, onDebug)) break;
            if (concernsTranscription(message) || concernsTranscription(code)) {
                if (onEvent) onEvent(RealtimeTranslationEvent::sourceStreamFailed(message));
                debug(onDebug, log(Level::warning, "原文转写报错（会话继续）", message, code));
            } else {
                if (!isClosing_ && onEvent) onEvent(RealtimeTranslationEvent::failed(message, code));
                debug(onDebug, log(Level::error, "Realtime 同传错误",
                                   message + "\n本次会话事件统计：\n" + eventTypeReport(), code));
            }
            break;
        }
        case Route::closed:
            if (!isClosing_ && onEvent) onEvent(RealtimeTranslationEvent::closed());
            debug(onDebug, log(Level::success, "Realtime 同传已关闭", "本次会话事件统计：\n" + eventTypeReport()));
            // The session is over: the socket is answered with a normal close and forgotten.
            if (socket_) retire(std::move(socket_), 1000, {});
            return true;
        case Route::unknown:
            noteUnknown(event.type, std::nullopt, onDebug);
            break;
        case Route::ignorable:
        case Route::sourceDelta:
        case Route::sourceCompleted:
        case Route::translationDelta:
        case Route::translationCompleted:
            break;
    }
    return false;
}

bool OpenAIRealtimeTranslationClient::concernsTranscription(std::string_view text) {
    for (std::string_view word : {"transcription", "transcribe", "input_transcript", "whisper"})
        if (containsIgnoringCase(text, word)) return true;
    return false;
}

bool OpenAIRealtimeTranslationClient::retryWithFallbackTranscriptionIfNeeded(const std::string& errorMessage,
                                                                            const DebugHandler& onDebug) {
    if (didRetryTranscriptionModel_ || transcriptionModel_.empty() || fallbackTranscriptionModel_.empty() ||
        fallbackTranscriptionModel_ == transcriptionModel_ || !containsIgnoringCase(errorMessage, transcriptionModel_))
        return false;
    const std::string old = transcriptionModel_;
    didRetryTranscriptionModel_ = true;
    transcriptionModel_ = fallbackTranscriptionModel_;
    if (!sendTranscriptionConfiguration()) return false;
    debug(onDebug, log(Level::warning, "原文转写模型回退",
                       old + " 不可用，已改用 " + transcriptionModel_ + "。译文不受影响。",
                       "realtime_transcription_model_fallback"));
    return true;
}

std::optional<std::string> OpenAIRealtimeTranslationClient::rearmTranscription(const DebugHandler& onDebug) {
    if (!socket_ || isClosing_ || transcriptionModel_.empty()) return std::nullopt;
    const std::string old = transcriptionModel_;
    bool changed = false;
    if (!didRetryTranscriptionModel_ && !fallbackTranscriptionModel_.empty() &&
        fallbackTranscriptionModel_ != transcriptionModel_) {
        didRetryTranscriptionModel_ = true;
        transcriptionModel_ = fallbackTranscriptionModel_;
        changed = true;
    }
    if (!sendTranscriptionConfiguration()) return std::nullopt;
    if (changed) {
        debug(onDebug, log(Level::warning, "原文流静默，换用更稳的转写模型",
                           old + " → " + transcriptionModel_ + "\n译文仍在返回，说明音频送达正常，只有转写这一路停了。",
                           "realtime_transcription_rearmed"));
        return transcriptionModel_;
    }
    debug(onDebug, log(Level::warning, "原文流静默，重下转写配置",
                       "model: " + transcriptionModel_ + "\n已经是备用模型，只能重下一次配置。",
                       "realtime_transcription_rearmed"));
    return std::nullopt;
}

void OpenAIRealtimeTranslationClient::noteUnknown(const std::string& type, const std::optional<std::string>& raw,
                                                  const DebugHandler& onDebug) {
    if (reportedUnknownTypes_.contains(type) || reportedUnknownTypes_.size() >= kMaxReportedUnknownTypes) return;
    reportedUnknownTypes_.insert(type);
    // Appended, not `"…" + type`: GCC 12 reports a false -Wrestrict there (bug 105329).
    std::string details = "type: ";
    details.append(type);
    if (raw) details.append("\n").append(firstCharacters(*raw, kUnknownRawCharacters));
    debug(onDebug, log(Level::warning, "收到未识别的 Realtime 事件", details, "realtime_unknown_event"));
}

std::string OpenAIRealtimeTranslationClient::eventTypeReport() const {
    if (eventTypeCounts_.empty()) return "（未收到任何事件）";
    std::vector<std::pair<std::string, int>> rows(eventTypeCounts_.begin(), eventTypeCounts_.end());
    std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) {
        return a.second != b.second ? a.second > b.second : a.first > b.first;
    });
    std::string out;
    for (const auto& [type, count] : rows) {
        if (!out.empty()) out += "\n";
        out += type + " ×" + std::to_string(count);
    }
    return out;
}

}  // namespace osv
