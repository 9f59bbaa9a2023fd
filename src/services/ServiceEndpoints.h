#pragma once

// Where each service lives. Every base can be overridden from the environment, so that a
// whole session can run against loopback servers; the defaults are the vendors' hosts.
// A base is written as the vendor's own tools write it: scheme, host, optional port and
// path prefix ("https://api.openai.com/v1", "http://127.0.0.1:8123/v1").

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace osv {

struct ServiceEndpoints {
    std::string openAI = "https://api.openai.com/v1";
    std::string gemini = "https://generativelanguage.googleapis.com";
    std::string googleTTS = "https://texttospeech.googleapis.com";
    std::string jev = "https://api.jev.ai";
    // Model Live, the transcription service on the loopback interface.
    std::string localModel = "http://127.0.0.1:18082";

    // The defaults, each replaced by its variable when that is set and not blank:
    // OSV_OPENAI_BASE_URL, OSV_GEMINI_BASE_URL, OSV_GOOGLE_TTS_BASE_URL, OSV_JEV_BASE_URL,
    // OSV_LOCAL_MODEL_URL.
    // `lookup` reads one variable (std::getenv by default).
    static ServiceEndpoints fromEnvironment(
        const std::function<std::optional<std::string>(const char*)>& lookup = {});
};

using QueryItems = std::vector<std::pair<std::string, std::string>>;

// An HTTP endpoint: the base with `path` appended ("/responses" on the OpenAI base gives
// ".../v1/responses"), query items percent-encoded. None when the base is not an http or
// https URL with a host.
std::optional<std::string> httpEndpointURL(std::string_view base, std::string_view path, const QueryItems& query = {});

// A WebSocket endpoint on the same host and path prefix: scheme wss for https, ws for http.
std::optional<std::string> webSocketEndpointURL(std::string_view base, std::string_view path,
                                                const QueryItems& query = {});

}  // namespace osv
