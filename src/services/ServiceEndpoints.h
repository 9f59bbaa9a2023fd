#pragma once

// Where each service lives. Every base can be overridden from the environment (so that a
// whole session can run against loopback servers) and from the settings; the defaults are
// the vendors' hosts.
// A base is written as the vendor's own tools write it: scheme, host, optional port and
// path prefix ("https://api.openai.com/v1", "http://127.0.0.1:8123/v1").

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace osv {

class UserDefaults;

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

    // Where a base came from.
    enum class Source { builtIn, settings, environment };
    struct Base {
        std::string_view settingKey;  // "openai_base_url", …
        const char* variable;         // "OSV_OPENAI_BASE_URL", …
        std::string ServiceEndpoints::*field;
    };
    // OpenAI, Gemini, Google text-to-speech, Jev, the local model service.
    static const std::array<Base, 5>& bases();
    using Sources = std::array<Source, 5>;  // in the order of bases()

    // Each base from its variable, else from its settings key, else the default. A stored
    // value that is no http or https base is passed over (the settings refuse to store one;
    // a file edited by hand may still hold it). `sources`, when given, says where each came from.
    static ServiceEndpoints resolve(const UserDefaults& settings,
                                    const std::function<std::optional<std::string>(const char*)>& lookup = {},
                                    Sources* sources = nullptr);
};

std::string_view rawValue(ServiceEndpoints::Source source);  // "default", "settings", "environment"

// An http or https URL with a host and no query or fragment: what a base may be.
bool isServiceBaseURL(std::string_view text);

using QueryItems = std::vector<std::pair<std::string, std::string>>;

// An HTTP endpoint: the base with `path` appended ("/responses" on the OpenAI base gives
// ".../v1/responses"), query items percent-encoded. None when the base is not an http or
// https URL with a host.
std::optional<std::string> httpEndpointURL(std::string_view base, std::string_view path, const QueryItems& query = {});

// A WebSocket endpoint on the same host and path prefix: scheme wss for https, ws for http.
std::optional<std::string> webSocketEndpointURL(std::string_view base, std::string_view path,
                                                const QueryItems& query = {});

}  // namespace osv
