#include "services/GoogleSpeechClient.h"

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

constexpr std::string_view kTierMarks[] = {"chirp3-hd", "chirp-hd", "neural2", "studio", "wavenet", "standard"};

OpenAIDebugLog log(Level level, std::string title, std::string details, std::optional<std::string> code = {}) {
    OpenAIDebugLog l;
    l.level = level;
    l.category = DebugEvent::Category::audio;
    l.title = std::move(title);
    l.details = std::move(details);
    l.code = std::move(code);
    return l;
}

std::string firstCharacters(std::string_view text, std::size_t count) {
    text::GraphemeWalker walker(text);
    std::string_view cluster;
    std::size_t taken = 0, bytes = 0;
    while (taken < count && walker.next(cluster)) {
        bytes = std::size_t(cluster.data() + cluster.size() - text.data());
        ++taken;
    }
    return std::string(text.substr(0, bytes));
}

bool startsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

const Error kNoKey = TranslatorError::apiError("没有配置 Google API Key。").asError();

}  // namespace

std::string_view rawValue(GoogleVoice::Tier tier) { return kTierMarks[std::size_t(tier)]; }

GoogleVoice::Tier GoogleVoice::tier() const {
    std::string lower = name;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    for (std::size_t i = 0; i + 1 < std::size(kTierMarks); ++i)
        if (lower.find(kTierMarks[i]) != std::string::npos) return Tier(i);
    return Tier::standard;
}

bool GoogleVoice::speaks(SpeechLanguage language) const {
    const std::string_view prefix = language == SpeechLanguage::chinese ? "cmn" : "ja";
    return std::any_of(languageCodes.begin(), languageCodes.end(),
                       [&](const std::string& code) { return startsWith(code, prefix); });
}

GoogleSpeechClient::GoogleSpeechClient(HttpTransport& http, Scheduler& scheduler, std::string base)
    : http_(http), scheduler_(scheduler), base_(std::move(base)) {}

GoogleSpeechClient::~GoogleSpeechClient() = default;

std::string GoogleSpeechClient::languageCode(SpeechLanguage language) {
    return language == SpeechLanguage::chinese ? "cmn-CN" : "ja-JP";
}

std::string GoogleSpeechClient::synthesizeRequest(std::string_view text, SpeechLanguage language,
                                                  std::string_view voice, double rate) {
    Json m = Json::object();
    m["input"]["text"] = text;
    m["voice"]["languageCode"] = languageCode(language);
    m["voice"]["name"] = voice;
    m["audioConfig"]["audioEncoding"] = "MP3";
    m["audioConfig"]["speakingRate"] = rate;
    return json::dumpLine(m);
}

std::optional<std::vector<GoogleVoice>> GoogleSpeechClient::readVoices(std::string_view body) {
    const auto reply = json::parse(body);
    if (!reply || !reply->is_object()) return std::nullopt;
    std::vector<GoogleVoice> voices;
    const Json* list = json::member(*reply, "voices");
    if (!list) return voices;  // an empty list is sent as {}
    if (!list->is_array()) return std::nullopt;
    for (const Json& v : *list) {
        GoogleVoice voice;
        voice.name = json::read<std::string>(v, "name", "");
        if (voice.name.empty()) continue;
        voice.gender = json::read<std::string>(v, "ssmlGender", "");
        if (const Json* codes = json::member(v, "languageCodes"); codes && codes->is_array())
            for (const Json& c : *codes)
                if (auto code = json::as<std::string>(c)) voice.languageCodes.push_back(*code);
        voices.push_back(std::move(voice));
    }
    return voices;
}

std::string GoogleSpeechClient::reason(std::string_view body) {
    if (const auto reply = json::parse(body); reply && reply->is_object())
        if (const Json* error = json::member(*reply, "error"); error && error->is_object())
            if (auto message = json::readOptional<std::string>(*error, "message"); message && !message->empty())
                return *message;
    if (text::isBlank(body)) return "（没有返回内容）";
    return std::string(body);
}

void GoogleSpeechClient::send(const HttpRequest& request, HttpTransport::Completion done) {
    const std::uint64_t id = ++nextCall_;
    calls_[id] = http_.send(request, [this, guard = lifetime_.guard(), id, done = std::move(done)](Expected<HttpResponse> r) {
        if (guard.expired()) return;
        if (auto it = calls_.find(id); it != calls_.end()) {
            std::shared_ptr<HttpCall> call(std::move(it->second));
            calls_.erase(it);
            scheduler_.post([call] {});
        }
        done(std::move(r));
    });
}

template <class T>
void GoogleSpeechClient::failLater(std::function<void(Expected<T>)> done, Error error) {
    scheduler_.post([guard = lifetime_.guard(), done = std::move(done), error = std::move(error)] {
        if (!guard.expired()) done(error);
    });
}

void GoogleSpeechClient::allVoices(const TranslatorSettings& settings, DebugHandler onDebug,
                                   std::function<void(Expected<std::vector<GoogleVoice>>)> done) {
    const std::string key(text::trimmed(settings.googleAPIKey));
    if (key.empty()) return failLater(std::move(done), kNoKey);
    HttpRequest request;
    request.url = httpEndpointURL(base_, "/v1/voices").value_or("");
    request.headers = {{"X-Goog-Api-Key", key}};
    send(request, [onDebug, done = std::move(done)](Expected<HttpResponse> r) {
        auto fail = [&](const std::string& status, const std::string& why, const std::string& body) {
            if (onDebug)
                onDebug(log(Level::error, "音色列表失败（Google）", "status: " + status + "\n" + firstCharacters(body, 400),
                            "google_voices_failed"));
            done(TranslatorError::apiError("取不到 Google 音色列表（" + why + "）。").asError());
        };
        if (!r) return fail("-", r.error().message, r.error().message);
        if (r->status < 200 || r->status > 299) return fail(std::to_string(r->status), reason(r->body), r->body);
        auto voices = readVoices(r->body);
        if (!voices) return fail(std::to_string(r->status), "返回的不是音色列表", r->body);
        done(std::move(*voices));
    });
}

void GoogleSpeechClient::speak(std::string text, SpeechLanguage language, const TranslatorSettings& settings,
                               DebugHandler onDebug, std::function<void(Expected<std::vector<std::uint8_t>>)> done) {
    const std::string key(text::trimmed(settings.googleAPIKey));
    if (key.empty()) return failLater(std::move(done), kNoKey);
    const std::string& voice = language == SpeechLanguage::chinese ? settings.googleChineseVoice
                                                                   : settings.googleJapaneseVoice;
    HttpRequest request;
    request.method = "POST";
    request.url = httpEndpointURL(base_, "/v1/text:synthesize").value_or("");
    request.timeoutSeconds = kSpeakTimeoutSeconds;
    request.headers = {{"Content-Type", "application/json"}, {"X-Goog-Api-Key", key}};
    request.body = synthesizeRequest(text, language, voice, settings.speechRate);
    if (onDebug) {
        Json rate = settings.speechRate;
        onDebug(log(Level::info, "请求语音（Google）",
                    "language: " + languageCode(language) + "\nvoice: " + voice + "\nrate: " + json::dumpLine(rate) +
                        "\nchars: " + std::to_string(text::graphemeCount(text))));
    }
    send(request, [onDebug, done = std::move(done)](Expected<HttpResponse> r) {
        auto fail = [&](const std::string& why) {
            if (onDebug) onDebug(log(Level::error, "语音失败（Google）", why, "google_speech_failed"));
            done(TranslatorError::apiError("Google 语音合成失败（" + why + "）。").asError());
        };
        if (!r) return fail(r.error().message);
        if (r->status < 200 || r->status > 299) return fail(reason(r->body));
        const auto reply = json::parse(r->body);
        const auto content = reply && reply->is_object() ? json::readOptional<std::string>(*reply, "audioContent")
                                                          : std::nullopt;
        auto audio = content ? base64Decode(*content) : std::nullopt;
        if (!audio) return done(TranslatorError::apiError("Google 语音返回的内容无法解码。").asError());
        done(std::move(*audio));
    });
}

}  // namespace osv
