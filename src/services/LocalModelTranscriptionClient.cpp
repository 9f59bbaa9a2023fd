#include "services/LocalModelTranscriptionClient.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <sstream>

#include "core/Json.h"
#include "core/Uuid.h"
#include "services/ServiceEndpoints.h"
#include "settings/TranslatorSettings.h"

namespace osv {
namespace {

const Error kTooLarge{"local_audio_too_large", "本地模型单次最多接收 20 MB 音频"};
const Error kNoResponse{"local_invalid_response", "本地模型没有返回 HTTP 响应"};

std::string languageName(RecognitionLanguage language) {
    switch (language) {
        case RecognitionLanguage::chinese: return "Chinese";
        case RecognitionLanguage::japanese: return "Japanese";
        case RecognitionLanguage::automatic: break;
    }
    return "auto";
}

struct FileRead {
    std::optional<std::string> bytes;
    bool tooLarge = false;
};

}  // namespace

LocalModelTranscriptionClient::LocalModelTranscriptionClient(HttpTransport& http, Scheduler& scheduler,
                                                             std::string base)
    : http_(http), scheduler_(scheduler), base_(std::move(base)) {}

LocalModelTranscriptionClient::~LocalModelTranscriptionClient() = default;

std::string LocalModelTranscriptionClient::mimeType(const std::string& extension) {
    std::string ext = extension;
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    if (ext == "m4a" || ext == "mp4") return "audio/mp4";
    if (ext == "mp3") return "audio/mpeg";
    if (ext == "wav") return "audio/wav";
    return "application/octet-stream";
}

LocalModelTranscriptionClient::Body LocalModelTranscriptionClient::multipart(const std::string& boundary,
                                                                             const std::string& fileBytes,
                                                                             const std::string& extension,
                                                                             RecognitionLanguage language) {
    Body body;
    body.contentType = "multipart/form-data; boundary=" + boundary;
    auto field = [&](const std::string& name, const std::string& value) {
        body.data += "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value +
                     "\r\n";
    };
    field("model", "active");
    field("language", languageName(language));
    field("response_format", "json");
    body.data += "--" + boundary + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"audio." + extension +
                 "\"\r\nContent-Type: " + mimeType(extension) + "\r\n\r\n";
    body.data += fileBytes;
    body.data += "\r\n--" + boundary + "--\r\n";
    return body;
}

void LocalModelTranscriptionClient::transcribe(std::filesystem::path audio, RecognitionLanguage language,
                                               double timeoutSeconds,
                                               std::function<void(Expected<LocalTranscription>)> done) {
    const auto guard = lifetime_.guard();
    scheduler_.background(
        [audio]() -> FileRead {
            FileRead read;
            std::error_code ec;
            const auto size = std::filesystem::file_size(audio, ec);
            if (!ec && size > kMaxAudioBytes) {
                read.tooLarge = true;
                return read;
            }
            std::ifstream in(audio, std::ios::binary);
            if (!in) return read;
            std::ostringstream bytes;
            bytes << in.rdbuf();
            read.bytes = bytes.str();
            if (read.bytes->size() > kMaxAudioBytes) read.tooLarge = true;
            return read;
        },
        [this, guard, audio, language, timeoutSeconds, done = std::move(done)](FileRead read) mutable {
            if (guard.expired()) return;
            if (read.tooLarge) return done(kTooLarge);
            if (!read.bytes) return done(Error{"file_unreadable", "读不到音频文件：" + audio.string()});
            std::string extension = audio.extension().string();
            if (!extension.empty()) extension.erase(0, 1);
            std::string uuid = Uuid::random().text();
            uuid.erase(std::remove_if(uuid.begin(), uuid.end(), [](char c) { return c == '{' || c == '}'; }), uuid.end());
            const Body body = multipart("ModelLive-" + uuid, *read.bytes, extension, language);
            HttpRequest request;
            request.method = "POST";
            request.url = httpEndpointURL(base_, kPath).value_or("");
            request.timeoutSeconds = timeoutSeconds;
            request.headers = {{"Content-Type", body.contentType}, {"X-Model-Live", kClientName}};
            request.body = body.data;
            const std::uint64_t id = ++nextCall_;
            calls_[id] = http_.send(request, [this, guard, id, done = std::move(done)](Expected<HttpResponse> r) {
                if (guard.expired()) return;
                if (auto it = calls_.find(id); it != calls_.end()) {
                    std::shared_ptr<HttpCall> call(std::move(it->second));
                    calls_.erase(it);
                    scheduler_.post([call] {});
                }
                if (!r) return done(r.error().code == "http_timeout" ? r.error() : kNoResponse);
                if (r->status < 200 || r->status > 299)
                    return done(Error{"local_http_status", "本地模型返回 HTTP " + std::to_string(r->status)});
                const auto reply = json::parse(r->body);
                const auto text = reply && reply->is_object() ? json::readOptional<std::string>(*reply, "text")
                                                              : std::nullopt;
                if (!text) return done(Error{"local_invalid_response", "本地模型返回的内容无法解析"});
                done(LocalTranscription{*text, r->header("X-Model-Live-Model"), r->header("X-Model-Live-Revision")});
            });
        });
}

}  // namespace osv
