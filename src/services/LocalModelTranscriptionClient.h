#pragma once

// Model Live, the transcription server on the loopback interface: a fallback when cloud
// transcription of a recording fails (under the local_asr_policy setting; realtime
// captions never use it). One multipart POST of the whole file.
// Thread contract: main thread only; `done` runs once, never from inside the call.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Expected.h"
#include "core/Scheduler.h"
#include "services/HttpTransport.h"

namespace osv {

enum class RecognitionLanguage;

struct LocalTranscription {
    std::string text;
    std::optional<std::string> model;     // X-Model-Live-Model
    std::optional<std::string> revision;  // X-Model-Live-Revision
    bool operator==(const LocalTranscription&) const = default;
};

class LocalModelTranscriptionClient {
public:
    // The failures, as error codes: "local_http_status" ("本地模型返回 HTTP {status}"),
    // "local_audio_too_large" and "local_invalid_response".
    static constexpr std::uintmax_t kMaxAudioBytes = 20'000'000;
    static constexpr const char* kPath = "/v1/audio/transcriptions";
    static constexpr const char* kClientName = "ossevra";  // the X-Model-Live header

    // `base` is the service's URL (OSV_LOCAL_MODEL_URL, "http://127.0.0.1:18082").
    LocalModelTranscriptionClient(HttpTransport& http, Scheduler& scheduler, std::string base);
    ~LocalModelTranscriptionClient();

    // The file is read off the main thread; one above 20 MB never reaches the network.
    void transcribe(std::filesystem::path audio, RecognitionLanguage language, double timeoutSeconds,
                    std::function<void(Expected<LocalTranscription>)> done);

    // The request body and its Content-Type for a file's bytes.
    struct Body {
        std::string contentType;
        std::string data;
    };
    static Body multipart(const std::string& boundary, const std::string& fileBytes, const std::string& extension,
                          RecognitionLanguage language);
    static std::string mimeType(const std::string& extension);  // "m4a" gives "audio/mp4"

private:
    HttpTransport& http_;
    Scheduler& scheduler_;
    std::string base_;
    std::map<std::uint64_t, std::unique_ptr<HttpCall>> calls_;
    std::uint64_t nextCall_ = 0;
    Lifetime lifetime_;
};

}  // namespace osv
