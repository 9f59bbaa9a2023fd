#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <istream>
#include <iterator>
#include <ostream>
#include <span>
#include <type_traits>
#include <variant>

#include "cli/Cli.h"
#include "cli/CliJson.h"
#include "cli/CliStores.h"
#include "core/Paths.h"
#include "core/Text.h"
#include "services/ServiceEndpoints.h"
#include "settings/ModelWiring.h"
#include "settings/TranslatorSettings.h"

namespace osv::cli {
namespace {

using json::Json;

bool openAIKeyPresent(Stores& stores, const TranslatorSettings& s) {
    if (!text::isBlank(s.apiKey) || stores.secrets.apiKey(SecretLocation::openAI())) return true;
    if (stores.secrets.apiKey(SecretLocation::openAILegacy())) return true;
    return !text::isBlank(stores.defaults.string(SecretStore::kLegacyOpenAIDefaultsKey).value_or(""));
}

Json settingsJson(Stores& stores, const TranslatorSettings& s) {
    // The values as a save stores them, so that this list and the save's can't drift apart.
    MemoryUserDefaults stored;
    writeSettingValues(s, stored);
    Json j = Json::object();
    for (const auto& [key, value] : stored.values()) {
        j[key] = std::visit(
            [](const auto& v) -> Json {
                using V = std::decay_t<decltype(v)>;
                if constexpr (std::is_same_v<V, UserDefaults::Data>) {
                    auto parsed = json::parse(std::string(v.begin(), v.end()));  // model preferences
                    return parsed ? *parsed : Json(nullptr);
                } else {
                    return Json(v);
                }
            },
            value);
    }
    j["conversation_scene"] = s.sceneToReturnTo ? Json(rawValue(*s.sceneToReturnTo)) : Json(nullptr);
    auto presence = [](bool present) { return present ? "present" : "absent"; };
    j["openai_api_key"] = presence(openAIKeyPresent(stores, s));
    j["google_api_key"] = presence(!s.googleAPIKey.empty());
    j["gemini_api_key"] = presence(!s.geminiAPIKey.empty());
    j["jev_api_key"] = presence(!s.jevAPIKey.empty());
    // The base each service's requests go to, and whether the environment, the settings or
    // the default decided it.
    ServiceEndpoints::Sources sources{};
    const ServiceEndpoints endpoints = ServiceEndpoints::resolve(stores.defaults, {}, &sources);
    for (std::size_t i = 0; i < ServiceEndpoints::bases().size(); ++i) {
        const auto& base = ServiceEndpoints::bases()[i];
        Json entry = Json::object();
        entry["value"] = endpoints.*base.field;
        entry["source"] = rawValue(sources[i]);
        j[std::string(base.settingKey)] = std::move(entry);
    }
    return j;
}

std::string joinedNames(std::span<const std::string_view> names) {
    std::string out;
    for (const auto& n : names) out += (out.empty() ? "" : ", ") + std::string(n);
    return out;
}

// The value as the program reads the key; none (after saying why) when it doesn't fit.
std::optional<UserDefaults::Value> typedValue(const SettingKey& key, const std::string& raw, std::ostream& err) {
    switch (key.type) {
        case SettingType::text:
            if (!key.names.empty() && std::find(key.names.begin(), key.names.end(), raw) == key.names.end()) {
                err << "ossevra-cli: \"" << key.key << "\" takes one of " << joinedNames(key.names) << "; not \"" << raw
                    << "\"\n";
                return std::nullopt;
            }
            return UserDefaults::Value(raw);
        case SettingType::baseURL:
            if (!isServiceBaseURL(raw)) {
                err << "ossevra-cli: \"" << key.key << "\" takes an http or https URL with a host and no query, such as "
                    << "https://api.openai.com/v1; not \"" << raw << "\"\n";
                return std::nullopt;
            }
            return UserDefaults::Value(std::string(text::trimmed(raw)));
        case SettingType::number: {
            const auto parsed = json::parse(raw);
            const auto number = parsed ? json::as<double>(*parsed) : std::nullopt;
            if (!number) {
                err << "ossevra-cli: \"" << key.key << "\" takes a number, not \"" << raw << "\"\n";
                return std::nullopt;
            }
            return UserDefaults::Value(*number);
        }
        case SettingType::boolean:
            if (raw == "true") return UserDefaults::Value(true);
            if (raw == "false") return UserDefaults::Value(false);
            err << "ossevra-cli: \"" << key.key << "\" takes true or false, not \"" << raw << "\"\n";
            return std::nullopt;
        case SettingType::data:
            if (!ModelPreferences::fromJsonText(raw)) {
                err << "ossevra-cli: \"" << key.key << "\" takes a JSON object with \"base\" and \"overrides\"\n";
                return std::nullopt;
            }
            return UserDefaults::Value(UserDefaults::Data(raw.begin(), raw.end()));
    }
    return std::nullopt;
}

int settingsShow(std::ostream& out, std::ostream& err) {
    Stores stores(err);
    const TranslatorSettings s = stores.settings.load(environmentKey());
    out << json::dumpPretty(settingsJson(stores, s)) << "\n";
    return kOk;
}

int settingsSet(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() != 2) {
        err << "usage: ossevra-cli settings set KEY VALUE\n";
        return kUsage;
    }
    const auto& keys = settingKeys();
    const auto key = std::find_if(keys.begin(), keys.end(), [&](const SettingKey& k) { return k.key == args[0]; });
    if (key == keys.end()) {
        err << "ossevra-cli: unknown setting \"" << args[0] << "\"; known keys:";
        for (const auto& k : keys) err << " " << k.key;
        err << "\n";
        return kUsage;
    }
    if (key->key == SecretStore::kLegacyOpenAIDefaultsKey) {
        err << "ossevra-cli: API keys don't go into the settings; use: ossevra-cli keys set openai\n";
        return kUsage;
    }
    auto value = typedValue(*key, args[1], err);
    if (!value) return kUsage;
    Stores stores(err);
    stores.defaults.set(key->key, std::move(*value));
    // As at launch, then saved back, so that clamping and migration of the value take
    // effect. The API keys are not touched here.
    TranslatorSettings s = stores.settings.load(environmentKey());
    const auto report = stores.settings.save(s);
    for (const auto& e : report.errors) err << "ossevra-cli: " << e << "\n";
    if (!report.errors.empty()) return kFailed;
    out << json::dumpPretty(settingsJson(stores, s)) << "\n";
    return kOk;
}

std::optional<SecretLocation> vendorLocation(const std::string& vendor) {
    if (vendor == "openai") return SecretLocation::openAI();
    if (vendor == "google") return SecretLocation::google();
    if (vendor == "gemini") return SecretLocation::gemini();
    if (vendor == "jev") return SecretLocation::jev();
    return std::nullopt;
}

int keysSet(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err) {
    static const char* usage = "usage: ossevra-cli keys set openai|google|gemini|jev [--clear]   (the key on standard input)\n";
    std::optional<std::string> vendor;
    bool clear = false;
    for (const auto& a : args) {
        if (a == "--clear") clear = true;
        else if (!vendor && vendorLocation(a)) vendor = a;
        else {
            // Never echo what could be a key pasted onto the command line.
            err << "ossevra-cli: unexpected argument; keys are read from standard input only\n" << usage;
            return kUsage;
        }
    }
    if (!vendor) {
        err << usage;
        return kUsage;
    }
    std::string key;
    if (!clear) {
        key = std::string(text::trimmed(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>())));
        if (key.empty()) {
            err << "ossevra-cli: no key on standard input (use --clear to remove the stored key)\n";
            return kUsage;
        }
    }
    Stores stores(err);
    const SecretLocation location = *vendorLocation(*vendor);
    if (!stores.secrets.setAPIKey(key, location)) {
        err << "ossevra-cli: the " << *vendor << " key could not be stored (" << stores.secrets.lastStatusText() << ")\n";
        return kFailed;
    }
    switch (stores.secrets.lastPlacement()) {
        case SecretStore::Placement::secretStore:
            out << *vendor << " key stored in the Secret Service (" << location.service << ", " << location.account << ")\n";
            break;
        case SecretStore::Placement::fallbackFile:
            out << *vendor << " key stored in " << stores.secrets.fallbackPath(location).string()
                << " (owner-only; no Secret Service was reachable)\n";
            break;
        default:
            out << *vendor << " key removed\n";
            break;
    }
    return kOk;
}

int models(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    static const char* usage = "usage: ossevra-cli models [--mode interpret|record|assist|coach] [--json]\n";
    bool asJson = false;
    std::optional<AppMode> mode;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--json") {
            asJson = true;
        } else if (args[i] == "--mode") {
            if (i + 1 == args.size()) {
                err << "ossevra-cli: --mode needs a mode: interpret, record, assist or coach\n" << usage;
                return kUsage;
            }
            mode = appModeFromRaw(args[++i]);
            if (!mode) {
                err << "ossevra-cli: unknown mode \"" << args[i] << "\"; the modes are interpret, record, assist, coach\n";
                return kUsage;
            }
        } else {
            err << "ossevra-cli: unexpected argument \"" << args[i] << "\"\n" << usage;
            return kUsage;
        }
    }
    Stores stores(err);
    TranslatorSettings s = stores.settings.load(environmentKey());
    if (mode) s.activeMode = *mode;
    const auto rows = ModelWiring::rows(s, {openAIKeyPresent(stores, s), !s.geminiAPIKey.empty()});
    const std::string summary = ModelWiring::summary(rows);
    if (asJson) {
        Json list = Json::array();
        for (const auto& r : rows) {
            Json j = Json::object();
            j["job"] = rawValue(r.job);
            j["model"] = r.model;
            j["vendorName"] = r.vendorName;
            j["price"] = optionalString(r.price);
            j["problem"] = optionalString(r.problem);
            j["isOverridden"] = r.isOverridden;
            list.push_back(std::move(j));
        }
        Json j = Json::object();
        j["rows"] = std::move(list);
        j["summary"] = summary;
        out << json::dumpPretty(j) << "\n";
        return kOk;
    }
    out << "模式：" << rawValue(s.activeMode) << "\n";
    for (const auto& r : rows) {
        out << "  " << label(r.job) << "  " << r.model << (r.isOverridden ? "（本模式自选）" : "") << "  " << r.vendorName;
        if (r.price) out << "  " << *r.price;
        if (r.problem) out << "  ⚠ " << *r.problem;
        out << "\n";
    }
    out << summary << "\n";
    return kOk;
}

}  // namespace

int runSettings(const std::vector<std::string>& args, std::istream&, std::ostream& out, std::ostream& err) {
    const std::string sub = args.empty() ? "" : args[0];
    const std::vector<std::string> rest(args.begin() + (args.empty() ? 0 : 1), args.end());
    if (sub == "show" && rest.empty()) return settingsShow(out, err);
    if (sub == "set") return settingsSet(rest, out, err);
    err << "usage: ossevra-cli settings show | settings set KEY VALUE\n";
    return kUsage;
}

int runKeys(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err) {
    if (args.empty() || args[0] != "set") {
        err << "usage: ossevra-cli keys set openai|google|gemini|jev [--clear]\n";
        return kUsage;
    }
    return keysSet(std::vector<std::string>(args.begin() + 1, args.end()), in, out, err);
}

int runModels(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) { return models(args, out, err); }

}  // namespace osv::cli
