#include "services/GeminiTranscriptionClient.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "audio/PCM16Resampler.h"
#include "audio/RealtimePCMEncoder.h"
#include "core/Base64.h"
#include "core/Json.h"
#include "core/Text.h"
#include "core/TranslatorError.h"
#include "services/OpenAIRealtimeTranscriptionClient.h"
#include "services/ServiceEndpoints.h"
#include "settings/TranslatorSettings.h"

namespace osv {
namespace {

using json::Json;
using Level = DebugEvent::Level;
using Kind = GeminiLiveEvent::Kind;

constexpr const char* kLivePath = "/ws/google.ai.generativelanguage.v1beta.GenerativeService.BidiGenerateContent";
constexpr const char* kNotConnected = "Gemini 实时会话未连接。";

OpenAIDebugLog log(Level level, std::string title, std::string details, std::optional<std::string> code = {}) {
    OpenAIDebugLog l;
    l.level = level;
    l.category = DebugEvent::Category::transcription;
    l.title = std::move(title);
    l.details = std::move(details);
    l.code = std::move(code);
    return l;
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

bool endsWith(std::string_view s, std::string_view suffix) {
    return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
    std::string out;
    for (std::size_t i = 0; i < parts.size(); ++i) out += (i ? std::string(separator) : "") + parts[i];
    return out;
}

// A number, or a string of one with an optional trailing "s" ("12.5s"); none otherwise.
std::optional<double> duration(const Json& value) {
    if (auto d = json::as<double>(value)) return d;
    auto s = json::as<std::string>(value);
    if (!s) return std::nullopt;
    std::string_view t = text::trimmed(*s);
    if (!t.empty() && t.back() == 's') t.remove_suffix(1);
    if (t.empty()) return std::nullopt;
    const std::string number(t);
    char* end = nullptr;
    const double d = std::strtod(number.c_str(), &end);
    if (end != number.c_str() + number.size() || !std::isfinite(d)) return std::nullopt;
    return d;
}

// The first of `keys` whose object has a non-empty string "text".
std::optional<std::string> transcriptionText(const Json& content, std::initializer_list<const char*> keys) {
    for (const char* key : keys) {
        const Json* t = json::member(content, key);
        if (!t || !t->is_object()) continue;
        auto text = json::readOptional<std::string>(*t, "text");
        if (text && !text->empty()) return text;
    }
    return std::nullopt;
}

void keyPaths(const Json& object, const std::string& prefix, std::vector<std::string>& out) {
    for (auto it = object.begin(); it != object.end(); ++it) {
        const std::string path = prefix.empty() ? it.key() : prefix + "." + it.key();
        if (it->is_object() && !it->empty()) keyPaths(*it, path, out);
        else out.push_back(path);
    }
}

std::optional<double> strictNumber(std::string_view text) {
    const std::string s(text::trimmed(text));
    if (s.empty()) return std::nullopt;
    char* end = nullptr;
    const double d = std::strtod(s.c_str(), &end);
    if (end != s.c_str() + s.size() || !std::isfinite(d)) return std::nullopt;
    return d;
}

Json recognitionConfig(const GeminiRecognition& recognition, const char* codesKey, const char* vocabularyKey) {
    Json c = Json::object();
    if (!recognition.languageCodes.empty()) c[codesKey] = recognition.languageCodes;
    if (!recognition.vocabulary.empty()) c[vocabularyKey] = recognition.vocabulary;
    return c;
}

template <class T>
GeminiOutcome<T> success(T value) {
    GeminiOutcome<T> o;
    o.value = std::move(value);
    return o;
}

template <class T>
GeminiOutcome<T> failure(Error error, std::optional<GeminiRateLimited> rateLimited = {}) {
    GeminiOutcome<T> o;
    o.failure = GeminiFailure{std::move(error), std::move(rateLimited)};
    return o;
}

}  // namespace

GeminiRecognition GeminiRecognition::from(RecognitionLanguage language, std::string_view glossary) {
    GeminiRecognition r;
    if (language == RecognitionLanguage::chinese) r.languageCodes = {"zh-CN"};
    if (language == RecognitionLanguage::japanese) r.languageCodes = {"ja-JP"};
    r.vocabulary = OpenAIRealtimeTranscriptionClient::glossaryTerms(glossary);
    return r;
}

GeminiTranscriptionClient::GeminiTranscriptionClient(WebSocketTransport& sockets, HttpTransport& http,
                                                     Scheduler& scheduler, std::string geminiBase)
    : sockets_(sockets), http_(http), scheduler_(scheduler), base_(std::move(geminiBase)) {}

GeminiTranscriptionClient::~GeminiTranscriptionClient() = default;

// ---- wire formats

std::string GeminiTranscriptionClient::liveSetupPayload(std::string_view model, const GeminiRecognition& recognition) {
    Json setup = Json::object();
    setup["model"] = model.substr(0, 7) == "models/" ? std::string(model) : "models/" + std::string(model);
    setup["generationConfig"]["responseModalities"] = Json::array({"TEXT"});
    setup["inputAudioTranscription"] = recognitionConfig(recognition, "language_codes", "custom_vocabulary");
    Json m = Json::object();
    m["setup"] = std::move(setup);
    return json::dumpLine(m);
}

std::optional<GeminiLiveEvent> GeminiTranscriptionClient::liveEvent(std::string_view frameText) {
    const auto frame = json::parse(frameText);
    if (!frame || !frame->is_object()) return std::nullopt;
    if (const Json* error = json::member(*frame, "error"); error && error->is_object())
        return GeminiLiveEvent{Kind::failed, json::read<std::string>(*error, "message", "未知错误"), {}};
    if (const Json* goAway = json::member(*frame, "goAway"); goAway && goAway->is_object()) {
        std::optional<double> timeLeft;
        if (const Json* t = json::member(*goAway, "timeLeft")) timeLeft = duration(*t);
        return GeminiLiveEvent{Kind::goingAway, {}, timeLeft};
    }
    if (const Json* activity = json::member(*frame, "voiceActivity"); activity && activity->is_object()) {
        if (auto type = json::readOptional<std::string>(*activity, "type")) {
            const std::string offset = json::read<std::string>(*activity, "audioOffset", "");
            if (endsWith(*type, "ACTIVITY_START")) return GeminiLiveEvent{Kind::speechStarted, offset, {}};
            if (endsWith(*type, "ACTIVITY_END")) return GeminiLiveEvent{Kind::speechEnded, offset, {}};
        }
    }
    if (const Json* content = json::member(*frame, "serverContent"); content && content->is_object()) {
        // Both spellings: the API has used both.
        if (auto t = transcriptionText(*content, {"interimInputTranscription", "interim_input_transcription"}))
            return GeminiLiveEvent{Kind::interim, *t, {}};
        if (auto t = transcriptionText(*content, {"inputTranscription", "input_transcription"}))
            return GeminiLiveEvent{Kind::final, *t, {}};
        if (content->contains("generationComplete") || content->contains("turnComplete"))
            return GeminiLiveEvent{Kind::turnComplete, {}, {}};
    }
    return std::nullopt;
}

std::optional<std::string> GeminiTranscriptionClient::shapeKey(std::string_view frameText) {
    const auto frame = json::parse(frameText);
    if (!frame || !frame->is_object()) return std::nullopt;
    if (frame->empty()) return "<empty>";
    std::vector<std::string> paths;
    keyPaths(*frame, "", paths);
    std::sort(paths.begin(), paths.end());
    return joined(paths, "+");
}

std::string GeminiTranscriptionClient::interactionPayload(std::string_view model, std::string_view uri,
                                                          std::string_view mimeType,
                                                          const GeminiRecognition& recognition, bool speakers) {
    Json input = Json::object();
    input["type"] = "audio";
    input["uri"] = uri;
    input["mime_type"] = mimeType;
    Json config = recognitionConfig(recognition, "language_codes", "custom_vocabulary");
    if (speakers)
        config["mode"] = Json{{"type", "verbatim"},
                              {"diarization_mode", "speaker"},
                              {"timestamp_granularities", Json::array({"word"})}};
    Json m = Json::object();
    m["model"] = model;
    m["input"] = Json::array({std::move(input)});
    m["generation_config"]["transcription_config"] = std::move(config);
    return json::dumpLine(m);
}

Expected<GeminiTranscriptionClient::FileResult> GeminiTranscriptionClient::readInteraction(std::string_view body) {
    const auto reply = json::parse(body);
    if (!reply || !reply->is_object()) return TranslatorError::apiError("Gemini 转写返回的不是 JSON。").asError();
    FileResult result;
    std::set<std::string> speakers;
    if (const Json* steps = json::member(*reply, "steps"); steps && steps->is_array()) {
        for (const Json& step : *steps) {
            const Json* content = json::member(step, "content");
            if (!content || !content->is_array()) continue;
            for (const Json& part : *content) {
                if (auto t = json::readOptional<std::string>(part, "text")) result.text += *t;
                const Json* annotations = json::member(part, "annotations");
                if (!annotations || !annotations->is_array()) continue;
                for (const Json& a : *annotations)
                    if (auto s = json::readOptional<std::string>(a, "speaker")) speakers.insert(*s);
            }
        }
    }
    if (result.text.empty())
        return TranslatorError::apiError("Gemini 转写没有返回文本（status: " +
                                         json::read<std::string>(*reply, "status", "?") + "）。")
            .asError();
    result.speakers.assign(speakers.begin(), speakers.end());
    return result;
}

std::optional<double> GeminiTranscriptionClient::retryDelay(std::string_view body) {
    static constexpr std::string_view kPhrase = "Please retry in ";
    const auto at = body.find(kPhrase);
    if (at == std::string_view::npos) return std::nullopt;
    std::size_t i = at + kPhrase.size();
    std::optional<double> total;
    while (i < body.size()) {
        std::size_t j = i;
        while (j < body.size() && (std::isdigit(static_cast<unsigned char>(body[j])) || body[j] == '.')) ++j;
        if (j == i || j >= body.size()) break;
        const auto number = strictNumber(body.substr(i, j - i));
        const char unit = body[j];
        const double scale = unit == 'h' ? 3600 : unit == 'm' ? 60 : unit == 's' ? 1 : 0;
        if (!number || scale == 0) break;
        total = total.value_or(0) + *number * scale;
        i = j + 1;
    }
    return total;
}

std::optional<std::string> GeminiTranscriptionClient::quotaSummary(std::string_view body) {
    static constexpr std::string_view kPhrase = "Quota exceeded for metric:";
    const auto at = body.find(kPhrase);
    if (at == std::string_view::npos) return std::nullopt;
    std::string_view rest = body.substr(at + kPhrase.size());
    // The body is JSON with its line ends still escaped: "\n" as two characters ends it too.
    std::size_t end = std::min({rest.find("\\n"), rest.find('\n'), rest.find('\r'), rest.size()});
    std::string_view summary = rest.substr(0, end);
    while (!summary.empty() && summary.front() == ' ') summary.remove_prefix(1);
    while (!summary.empty() && summary.back() == ' ') summary.remove_suffix(1);
    return std::string(summary);
}

std::string GeminiTranscriptionClient::mimeType(const std::filesystem::path& file) {
    std::string ext = file.extension().string();
    if (!ext.empty()) ext.erase(0, 1);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    if (ext == "wav") return "audio/wav";
    if (ext == "mp3") return "audio/mpeg";
    if (ext == "aiff" || ext == "aif") return "audio/aiff";
    if (ext == "flac") return "audio/flac";
    return "audio/mp4";
}

std::optional<GeminiFailure> GeminiTranscriptionClient::check(const HttpResponse& response, std::string_view step,
                                                              const DebugHandler& onDebug) {
    if (response.status >= 200 && response.status <= 299) return std::nullopt;
    const std::string& body = response.body;
    if (response.status == 429) {
        GeminiRateLimited limited;
        limited.isDailyQuota = body.find("per_day") != std::string::npos;  // "per_model_per_day" too
        if (auto header = response.header("Retry-After")) limited.retryAfter = strictNumber(*header);
        if (!limited.retryAfter) limited.retryAfter = retryDelay(body);
        limited.detail = quotaSummary(body).value_or(firstCharacters(body, 200));
        const std::string code = limited.isDailyQuota ? "gemini_daily_quota" : "gemini_rate_limited";
        if (onDebug)
            onDebug(log(Level::warning, limited.isDailyQuota ? "Gemini 当日配额已用完" : "Gemini 请求过于频繁",
                        "HTTP 429\n" + firstCharacters(body, 400), code));
        return GeminiFailure{Error{code, limited.detail}, limited};
    }
    const std::string status = std::to_string(response.status);
    if (onDebug)
        onDebug(log(Level::error, "Gemini " + std::string(step) + "失败", "HTTP " + status + "\n" + firstCharacters(body, 500),
                    step == "上传" ? "gemini_upload_failed" : "gemini_transcribe_failed"));
    return GeminiFailure{TranslatorError::apiError("Gemini " + std::string(step) + "失败（HTTP " + status + "）。").asError(),
                         std::nullopt};
}

// ---- Live

void GeminiTranscriptionClient::finishStart(Expected<void> result) {
    if (!handshake_) return;
    scheduler_.post([guard = lifetime_.guard(), done = std::move(handshake_), result = std::move(result)] {
        if (!guard.expired()) done(result);
    });
    handshake_ = nullptr;
}

void GeminiTranscriptionClient::startLive(std::string model, GeminiRecognition recognition, std::string apiKey,
                                          LiveHandler onEvent, DebugHandler onDebug, StartCompletion done) {
    if (liveSocket_) closeLive();
    if (handshake_) finishStart(Error{"cancelled", "已取消"});
    onLiveEvent_ = std::move(onEvent);
    onLiveDebug_ = std::move(onDebug);
    handshake_ = std::move(done);
    const std::string key(text::trimmed(apiKey));
    if (key.empty()) return finishStart(TranslatorError::apiError("没有配置 Gemini API Key。").asError());
    const auto url = webSocketEndpointURL(base_, kLivePath);
    if (!url) return finishStart(TranslatorError::apiError("Gemini URL 无效。").asError());

    liveModel_ = std::move(model);
    setupMessage_ = liveSetupPayload(liveModel_, recognition);
    vocabularyCount_ = recognition.vocabulary.size();
    languageSummary_ = recognition.languageCodes.empty() ? "自动（含语内切换）" : joined(recognition.languageCodes, ", ");

    WebSocketRequest request;
    request.url = *url;
    request.timeoutSeconds = kLiveRequestTimeoutSeconds;
    request.headers = {{"x-goog-api-key", key}};
    const auto guard = lifetime_.guard();
    auto slot = std::make_shared<WebSocketConnection*>(nullptr);
    WebSocketConnection::Handlers handlers;
    handlers.onOpen = [this, guard, slot] {
        if (!guard.expired() && liveSocket_ && liveSocket_.get() == *slot) liveOpened();
    };
    handlers.onFrame = [this, guard, slot](WebSocketFrame frame) {
        if (!guard.expired() && liveSocket_ && liveSocket_.get() == *slot) receiveLive(frame);
    };
    handlers.onEnd = [this, guard, slot](const WebSocketEnd& end) {
        if (guard.expired()) return;
        if (liveSocket_ && liveSocket_.get() == *slot) return liveEnded(end);
        for (auto it = retired_.begin(); it != retired_.end(); ++it) {
            if (it->get() != *slot) continue;
            std::shared_ptr<WebSocketConnection> gone(std::move(*it));
            retired_.erase(it);
            scheduler_.post([gone] {});
            return;
        }
    };
    liveSocket_ = sockets_.connect(request, std::move(handlers));
    *slot = liveSocket_.get();
    isClosingLive_ = false;
    liveOpen_ = false;
    reading_ = false;
    liveShapeCounts_.clear();
    reportedUnknownShapes_.clear();
}

void GeminiTranscriptionClient::liveOpened() {
    liveOpen_ = true;
    if (auto sent = sendLive(setupMessage_); !sent) finishStart(sent.error());
}

Expected<void> GeminiTranscriptionClient::sendLive(const std::string& message) {
    if (!liveSocket_ || !liveOpen_) return TranslatorError::apiError(kNotConnected).asError();
    return liveSocket_->sendText(message);
}

Expected<void> GeminiTranscriptionClient::appendLivePCM16(const std::vector<std::uint8_t>& pcm16) {
    if (pcm16.empty() || !liveSocket_ || isClosingLive_) return {};
    Json m = Json::object();
    m["realtimeInput"]["audio"]["data"] = base64Encode(pcm16);
    m["realtimeInput"]["audio"]["mimeType"] = "audio/pcm;rate=16000";
    return sendLive(json::dumpLine(m));
}

Expected<void> GeminiTranscriptionClient::sendAudio(const std::vector<std::uint8_t>& pcm24k) {
    return appendLivePCM16(PCM16Resampler::to16kFrom24k(pcm24k));
}

Expected<void> GeminiTranscriptionClient::endLiveAudioStream() {
    if (!liveSocket_ || isClosingLive_) return {};
    return sendLive(R"({"realtimeInput":{"audioStreamEnd":true}})");
}

void GeminiTranscriptionClient::closeLive() {
    if (!liveSocket_ || isClosingLive_) return;
    isClosingLive_ = true;
    if (handshake_) finishStart(Error{"cancelled", "已取消"});
    WebSocketConnection& connection = *liveSocket_;
    retired_.push_back(std::move(liveSocket_));
    liveOpen_ = false;
    reading_ = false;
    connection.close(kGoingAway, "");
}

void GeminiTranscriptionClient::receiveLive(const WebSocketFrame& frame) {
    if (isClosingLive_) return;
    if (handshake_) return handshakeFrame(frame.payload);
    if (!reading_) return;
    const std::string& raw = frame.payload;
    const auto shape = shapeKey(raw);
    if (!shape) return noteUnknownShape("<undecodable>", raw);
    liveShapeCounts_[*shape] += 1;
    auto event = liveEvent(raw);
    if (!event) return noteUnknownShape(*shape, raw);
    if (event->kind == Kind::failed) {
        reading_ = false;
        if (onLiveDebug_)
            onLiveDebug_(log(Level::error, "Gemini 原文流报错",
                             event->text + "\n本次帧统计：\n" + liveShapeReport(), "gemini_live_error"));
    }
    if (onLiveEvent_) {
        const LiveHandler onEvent = onLiveEvent_;  // a handler may close the client
        onEvent(*event);
    }
}

void GeminiTranscriptionClient::handshakeFrame(const std::string& raw) {
    const auto reply = json::parse(raw);
    if (!reply || !reply->is_object()) {
        finishStart(TranslatorError::apiError("Gemini 实时会话没有返回可解析的握手响应。").asError());
        return;
    }
    if (!reply->contains("setupComplete")) {
        finishStart(TranslatorError::apiError("Gemini 实时会话未确认配置：" + firstCharacters(raw, 300)).asError());
        return;
    }
    reading_ = true;
    if (onLiveDebug_)
        onLiveDebug_(log(Level::success, "Gemini 原文流已连接",
                         "model: " + liveModel_ + "\n语言: " + languageSummary_ + "\n术语表: " +
                             std::to_string(vocabularyCount_) + " 条",
                         "gemini_live_connected"));
    finishStart(Expected<void>());
}

void GeminiTranscriptionClient::liveEnded(const WebSocketEnd& end) {
    std::shared_ptr<WebSocketConnection> gone(std::move(liveSocket_));
    scheduler_.post([gone] {});
    liveOpen_ = false;
    std::string description = end.description;
    if (description.empty())
        description = end.closeCode ? "Gemini 实时会话已关闭（" + std::to_string(*end.closeCode) + "）" : kNotConnected;
    if (handshake_) {
        finishStart(Error{"gemini_live_connect_failed", description});
        return;
    }
    const bool wasReading = reading_;
    reading_ = false;
    if (isClosingLive_ || !wasReading) return;
    if (onLiveDebug_)
        onLiveDebug_(log(Level::error, "Gemini 原文流接收失败", description + "\n本次帧统计：\n" + liveShapeReport(),
                         "gemini_live_receive_failed"));
    if (onLiveEvent_) onLiveEvent_(GeminiLiveEvent{Kind::failed, description, {}});
}

void GeminiTranscriptionClient::noteUnknownShape(const std::string& shape, const std::string& raw) {
    if (reportedUnknownShapes_.contains(shape) || reportedUnknownShapes_.size() >= kMaxReportedUnknownShapes) return;
    reportedUnknownShapes_.insert(shape);
    if (onLiveDebug_)
        onLiveDebug_(log(Level::warning, "收到未识别的 Gemini 实时帧", "shape: " + shape + "\n" + firstCharacters(raw, 400),
                         "gemini_live_unknown_frame"));
}

std::string GeminiTranscriptionClient::liveShapeReport() const {
    if (liveShapeCounts_.empty()) return "（未收到任何帧）";
    std::vector<std::pair<std::string, int>> rows(liveShapeCounts_.begin(), liveShapeCounts_.end());
    std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) {
        return a.second != b.second ? a.second > b.second : a.first < b.first;
    });
    std::string out;
    for (const auto& [shape, count] : rows) out += (out.empty() ? "" : "\n") + shape + " ×" + std::to_string(count);
    return out;
}

// ---- file route

void GeminiTranscriptionClient::send(const HttpRequest& request, HttpTransport::Completion done) {
    const std::uint64_t id = ++nextCall_;
    auto guard = lifetime_.guard();
    calls_[id] = http_.send(request, [this, guard, id, done = std::move(done)](Expected<HttpResponse> r) {
        if (guard.expired()) return;
        // The call is let go of after its completion has returned.
        if (auto it = calls_.find(id); it != calls_.end()) {
            std::shared_ptr<HttpCall> call(std::move(it->second));
            calls_.erase(it);
            scheduler_.post([call] {});
        }
        done(std::move(r));
    });
}

void GeminiTranscriptionClient::upload(std::filesystem::path file, std::string apiKey, DebugHandler onDebug,
                                       std::function<void(GeminiOutcome<Uploaded>)> done) {
    const std::string key(text::trimmed(apiKey));
    const auto url = httpEndpointURL(base_, "/upload/v1beta/files");
    if (key.empty() || !url) {
        auto error = key.empty() ? TranslatorError::apiError("没有配置 Gemini API Key。") : TranslatorError::apiError("Gemini URL 无效。");
        scheduler_.post([guard = lifetime_.guard(), done, error] {
            if (!guard.expired()) done(failure<Uploaded>(error.asError()));
        });
        return;
    }
    const std::string mime = mimeType(file);
    auto guard = lifetime_.guard();
    scheduler_.background(
        [file] () -> std::optional<std::string> {
            std::ifstream in(file, std::ios::binary);
            if (!in) return std::nullopt;
            std::ostringstream bytes;
            bytes << in.rdbuf();
            return bytes.str();
        },
        [this, guard, file, key, mime, url = *url, onDebug, done](std::optional<std::string> bytes) mutable {
            if (guard.expired()) return;
            if (!bytes) return done(failure<Uploaded>(Error{"file_unreadable", "读不到音频文件：" + file.string()}));
            HttpRequest request;
            request.method = "POST";
            request.url = url;
            request.timeoutSeconds = kUploadTimeoutSeconds;
            request.headers = {{"x-goog-api-key", key},
                               {"X-Goog-Upload-Protocol", "raw"},
                               {"X-Goog-Upload-File-Name", file.filename().string()},
                               {"Content-Type", mime}};
            request.body = std::move(*bytes);
            send(request, [this, key, mime, onDebug, done](Expected<HttpResponse> r) mutable {
                if (!r) return done(failure<Uploaded>(r.error()));
                if (auto f = check(*r, "上传", onDebug)) return done(failure<Uploaded>(f->error, f->rateLimited));
                const auto reply = json::parse(r->body);
                const Json* fileObject = reply && reply->is_object() ? &*reply : nullptr;
                if (fileObject)
                    if (const Json* inner = json::member(*fileObject, "file"); inner && inner->is_object()) fileObject = inner;
                const auto uri = fileObject ? json::readOptional<std::string>(*fileObject, "uri") : std::nullopt;
                if (!uri) return done(failure<Uploaded>(TranslatorError::apiError("Gemini 上传没有返回文件地址。").asError()));
                const auto state = json::readOptional<std::string>(*fileObject, "state");
                if (onDebug)
                    onDebug(log(Level::info, "Gemini 文件已上传", "uri: " + *uri + "\nstate: " + state.value_or("")));
                Uploaded uploaded{*uri, json::read<std::string>(*fileObject, "mimeType", mime)};
                if (!state || *state == "ACTIVE") return done(success(uploaded));
                awaitActivation(json::read<std::string>(*fileObject, "name", ""), key, uploaded, *state, 0, onDebug,
                                std::move(done));
            });
        });
}

void GeminiTranscriptionClient::awaitActivation(std::string name, std::string apiKey, Uploaded uploaded,
                                                std::string state, int waits,
                                                DebugHandler onDebug,
                                                std::function<void(GeminiOutcome<Uploaded>)> done) {
    // Called while the file is not active yet.
    if (waits >= kMaxActivationWaits || name.empty())
        return done(failure<Uploaded>(
            TranslatorError::apiError("Gemini 上传的音频 30 秒后仍未就绪（state: " + state + "）。").asError()));
    auto guard = lifetime_.guard();
    timers_.push_back(scheduler_.after(1.0, [this, guard, name, apiKey, uploaded, waits, onDebug, done]() mutable {
        if (guard.expired()) return;
        HttpRequest request;
        request.url = httpEndpointURL(base_, "/v1beta/" + name).value_or("");
        request.headers = {{"x-goog-api-key", apiKey}};
        send(request, [this, name, apiKey, uploaded, waits, onDebug, done](Expected<HttpResponse> r) mutable {
            if (!r) return done(failure<Uploaded>(r.error()));
            if (auto f = check(*r, "上传", onDebug)) return done(failure<Uploaded>(f->error, f->rateLimited));
            const auto reply = json::parse(r->body);
            std::optional<std::string> now;
            if (reply && reply->is_object()) {
                const Json* file = json::member(*reply, "file");
                now = json::readOptional<std::string>(file && file->is_object() ? *file : *reply, "state");
            }
            if (!now || *now == "ACTIVE") return done(success(uploaded));
            awaitActivation(name, apiKey, uploaded, *now, waits + 1, onDebug, std::move(done));
        });
    }));
}

void GeminiTranscriptionClient::transcribe(std::string model, Uploaded file, GeminiRecognition recognition,
                                           bool speakers, std::string apiKey, DebugHandler onDebug,
                                           std::function<void(GeminiOutcome<FileResult>)> done) {
    const std::string key(text::trimmed(apiKey));
    const auto url = httpEndpointURL(base_, "/v1beta/interactions");
    if (key.empty() || !url) {
        auto error = key.empty() ? TranslatorError::apiError("没有配置 Gemini API Key。") : TranslatorError::apiError("Gemini URL 无效。");
        scheduler_.post([guard = lifetime_.guard(), done, error] {
            if (!guard.expired()) done(failure<FileResult>(error.asError()));
        });
        return;
    }
    HttpRequest request;
    request.method = "POST";
    request.url = *url;
    request.timeoutSeconds = kInteractionTimeoutSeconds;
    request.headers = {{"Content-Type", "application/json"}, {"x-goog-api-key", key}};
    request.body = interactionPayload(model, file.uri, file.mimeType, recognition, speakers);
    send(request, [onDebug, done = std::move(done)](Expected<HttpResponse> r) {
        if (!r) return done(failure<FileResult>(r.error()));
        if (auto f = check(*r, "转写", onDebug)) return done(failure<FileResult>(f->error, f->rateLimited));
        auto result = readInteraction(r->body);
        if (!result) {
            if (onDebug)
                onDebug(log(Level::error, "Gemini 转写失败", result.error().message + "\n" + firstCharacters(r->body, 500),
                            "gemini_transcribe_failed"));
            return done(failure<FileResult>(result.error()));
        }
        if (onDebug)
            onDebug(log(Level::success, "Gemini 转写完成",
                        std::to_string(text::graphemeCount(result->text)) + " 字，说话人 " +
                            std::to_string(result->speakers.size()) + " 位"));
        done(success(std::move(*result)));
    });
}

}  // namespace osv
