#include "services/ServiceEndpoints.h"

#include <cstdlib>

#include "core/Text.h"
#include "settings/UserDefaults.h"

namespace osv {
namespace {

struct ParsedBase {
    std::string scheme;  // lower case
    std::string authority;
    std::string path;  // without a trailing slash
};

std::optional<ParsedBase> parseBase(std::string_view base) {
    base = text::trimmed(base);
    const auto schemeEnd = base.find("://");
    if (schemeEnd == std::string_view::npos) return std::nullopt;
    ParsedBase p;
    p.scheme = text::asciiLowercase(base.substr(0, schemeEnd));
    if (p.scheme != "http" && p.scheme != "https") return std::nullopt;
    std::string_view rest = base.substr(schemeEnd + 3);
    // A base carries no query or fragment: what follows would end up inside the path.
    if (rest.find_first_of("?#") != std::string_view::npos) return std::nullopt;
    const auto slash = rest.find('/');
    p.authority = std::string(rest.substr(0, slash));
    if (slash != std::string_view::npos) p.path = std::string(rest.substr(slash));
    // The host part of "user@host:port", which must not be empty.
    std::string_view host = p.authority;
    if (const auto at = host.rfind('@'); at != std::string_view::npos) host = host.substr(at + 1);
    if (host.empty() || host.front() == ':') return std::nullopt;
    for (char c : p.authority)
        if (static_cast<unsigned char>(c) <= ' ') return std::nullopt;
    while (!p.path.empty() && p.path.back() == '/') p.path.pop_back();
    return p;
}

std::string percentEncoded(std::string_view s) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : s) {
        const bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                                c == '-' || c == '.' || c == '_' || c == '~';
        if (unreserved) {
            out.push_back(char(c));
        } else {
            out.push_back('%');
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 15]);
        }
    }
    return out;
}

std::optional<std::string> endpoint(std::string_view base, std::string_view path, const QueryItems& query,
                                    bool webSocket) {
    auto p = parseBase(base);
    if (!p) return std::nullopt;
    std::string scheme = p->scheme;
    if (webSocket) scheme = scheme == "https" ? "wss" : "ws";
    std::string url = scheme + "://" + p->authority + p->path;
    if (!path.empty() && path.front() != '/') url.push_back('/');
    url += path;
    for (std::size_t i = 0; i < query.size(); ++i) {
        url += i == 0 ? '?' : '&';
        url += percentEncoded(query[i].first) + "=" + percentEncoded(query[i].second);
    }
    return url;
}

}  // namespace

const std::array<ServiceEndpoints::Base, 5>& ServiceEndpoints::bases() {
    static const std::array<Base, 5> all = {{
        {"openai_base_url", "OSV_OPENAI_BASE_URL", &ServiceEndpoints::openAI},
        {"gemini_base_url", "OSV_GEMINI_BASE_URL", &ServiceEndpoints::gemini},
        {"google_tts_base_url", "OSV_GOOGLE_TTS_BASE_URL", &ServiceEndpoints::googleTTS},
        {"jev_base_url", "OSV_JEV_BASE_URL", &ServiceEndpoints::jev},
        {"local_model_url", "OSV_LOCAL_MODEL_URL", &ServiceEndpoints::localModel},
    }};
    return all;
}

ServiceEndpoints ServiceEndpoints::resolve(const UserDefaults& settings,
                                           const std::function<std::optional<std::string>(const char*)>& lookup,
                                           Sources* sources) {
    const auto readVariable = [&](const char* name) -> std::optional<std::string> {
        std::optional<std::string> value;
        if (lookup) {
            value = lookup(name);
        } else if (const char* v = std::getenv(name)) {
            value = std::string(v);
        }
        if (!value || text::isBlank(*value)) return std::nullopt;
        return std::string(text::trimmed(*value));
    };
    ServiceEndpoints e;
    for (std::size_t i = 0; i < bases().size(); ++i) {
        const Base& base = bases()[i];
        Source source = Source::builtIn;
        if (auto v = readVariable(base.variable)) {
            e.*base.field = *v;
            source = Source::environment;
        } else if (auto stored = settings.string(base.settingKey); stored && isServiceBaseURL(*stored)) {
            e.*base.field = std::string(text::trimmed(*stored));
            source = Source::settings;
        }
        if (sources) (*sources)[i] = source;
    }
    return e;
}

ServiceEndpoints ServiceEndpoints::fromEnvironment(const std::function<std::optional<std::string>(const char*)>& lookup) {
    return resolve(MemoryUserDefaults(), lookup);
}

std::string_view rawValue(ServiceEndpoints::Source source) {
    switch (source) {
        case ServiceEndpoints::Source::builtIn: return "default";
        case ServiceEndpoints::Source::settings: return "settings";
        case ServiceEndpoints::Source::environment: return "environment";
    }
    return "default";
}

bool isServiceBaseURL(std::string_view text) { return parseBase(text).has_value(); }

std::optional<std::string> httpEndpointURL(std::string_view base, std::string_view path, const QueryItems& query) {
    return endpoint(base, path, query, false);
}

std::optional<std::string> webSocketEndpointURL(std::string_view base, std::string_view path, const QueryItems& query) {
    return endpoint(base, path, query, true);
}

}  // namespace osv
