#include "settings/ModelPreferences.h"

#include <algorithm>

#include "core/Json.h"
#include "core/Text.h"

namespace osv {
namespace {

constexpr std::string_view kModes[] = {"interpret", "record", "assist", "coach"};
constexpr std::string_view kJobs[] = {"realtimeTranslate", "realtimeTranscribe", "fileTranscribe", "fastText",
                                      "strongText",        "coachAnswer",        "speech"};
constexpr std::string_view kLabels[] = {"实时同传", "实时原文", "文件转写", "快档文本", "精档文本", "陪练回答", "语音"};
constexpr std::string_view kDefaults[] = {"gpt-realtime-translate", "gpt-transcribe", "gpt-4o-mini-transcribe",
                                          "gpt-4.1-mini",           "gpt-5",          "gpt-4.1",
                                          "gpt-4o-mini-tts"};

std::optional<std::string> nonBlank(const ModelPreferences::JobMap& map, ModelJob job) {
    auto it = map.find(std::string(rawValue(job)));
    if (it == map.end()) return std::nullopt;
    const std::string_view t = text::trimmed(it->second);
    if (t.empty()) return std::nullopt;
    return std::string(t);
}

}  // namespace

std::string_view rawValue(AppMode mode) { return kModes[std::size_t(mode)]; }
std::optional<AppMode> appModeFromRaw(std::string_view raw) {
    for (std::size_t i = 0; i < std::size(kModes); ++i)
        if (kModes[i] == raw) return AppMode(i);
    return std::nullopt;
}
std::string_view rawValue(ModelJob job) { return kJobs[std::size_t(job)]; }
std::optional<ModelJob> modelJobFromRaw(std::string_view raw) {
    for (std::size_t i = 0; i < std::size(kJobs); ++i)
        if (kJobs[i] == raw) return ModelJob(i);
    return std::nullopt;
}
std::string_view label(ModelJob job) { return kLabels[std::size_t(job)]; }
std::string_view builtInDefault(ModelJob job) { return kDefaults[std::size_t(job)]; }

std::string ModelPreferences::resolved(ModelJob job, std::optional<AppMode> mode) const {
    if (mode) {
        if (auto it = overrides.find(std::string(rawValue(*mode))); it != overrides.end())
            if (auto m = nonBlank(it->second, job)) return *m;
    }
    if (auto m = nonBlank(base, job)) return *m;
    return std::string(builtInDefault(job));
}

std::optional<std::string> ModelPreferences::stored(ModelJob job, std::optional<AppMode> mode) const {
    const JobMap* map = &base;
    if (mode) {
        auto it = overrides.find(std::string(rawValue(*mode)));
        if (it == overrides.end()) return std::nullopt;
        map = &it->second;
    }
    auto it = map->find(std::string(rawValue(job)));
    if (it == map->end()) return std::nullopt;
    return it->second;
}

void ModelPreferences::set(const std::string& model, ModelJob job, std::optional<AppMode> mode) {
    const std::string value(text::trimmed(model));
    const std::string key(rawValue(job));
    if (!mode) {
        if (value.empty()) base.erase(key);
        else base[key] = value;
        return;
    }
    const std::string modeKey(rawValue(*mode));
    if (value.empty()) {
        auto it = overrides.find(modeKey);
        if (it == overrides.end()) return;
        it->second.erase(key);
        if (it->second.empty()) overrides.erase(it);
    } else {
        overrides[modeKey][key] = value;
    }
}

bool ModelPreferences::hasOverrides(AppMode mode) const {
    auto it = overrides.find(std::string(rawValue(mode)));
    return it != overrides.end() && !it->second.empty();
}

ModelPreferences ModelPreferences::trimmed() const {
    ModelPreferences out;
    for (const auto& [job, model] : base)
        if (auto j = modelJobFromRaw(job)) out.set(model, *j, std::nullopt);
    for (const auto& [mode, jobs] : overrides)
        if (auto m = appModeFromRaw(mode))
            for (const auto& [job, model] : jobs)
                if (auto j = modelJobFromRaw(job)) out.set(model, *j, *m);
    return out;
}

ModelPreferences ModelPreferences::migrating(const std::string& strongText, const std::string& realtimeTranscribe) {
    ModelPreferences p;
    p.set(strongText, ModelJob::strongText, std::nullopt);
    p.set(realtimeTranscribe, ModelJob::realtimeTranscribe, std::nullopt);
    return p;
}

ModelPreferences ModelPreferences::loadFromDefaults(const UserDefaults& defaults) {
    if (defaults.object(kDefaultsKey)) {
        // Stored: the old keys are not read at all, and bad data gives empty preferences.
        const auto data = defaults.data(kDefaultsKey);
        const auto text = data ? std::string(data->begin(), data->end()) : defaults.string(kDefaultsKey).value_or("");
        return fromJsonText(text).value_or(ModelPreferences{});
    }
    return migrating(defaults.string("refine_model").value_or(""),
                     defaults.string("realtime_transcribe_model").value_or(""));
}

void ModelPreferences::saveToDefaults(UserDefaults& defaults) const {
    const std::string text = toJsonText();
    defaults.set(kDefaultsKey, UserDefaults::Data(text.begin(), text.end()));
}

std::string ModelPreferences::toJsonText() const {
    json::Json j = json::Json::object();
    j["base"] = json::Json::object();
    for (const auto& [job, model] : base) j["base"][job] = model;
    j["overrides"] = json::Json::object();
    for (const auto& [mode, jobs] : overrides) {
        json::Json inner = json::Json::object();
        for (const auto& [job, model] : jobs) inner[job] = model;
        j["overrides"][mode] = std::move(inner);
    }
    return json::dumpLine(j);
}

std::optional<ModelPreferences> ModelPreferences::fromJsonText(std::string_view text) {
    const auto j = json::parse(text);
    if (!j) return std::nullopt;
    const json::Json* b = json::member(*j, "base");
    const json::Json* o = json::member(*j, "overrides");
    if (!b || !o || !b->is_object() || !o->is_object()) return std::nullopt;
    ModelPreferences p;
    for (auto it = b->begin(); it != b->end(); ++it) {
        if (!it.value().is_string()) return std::nullopt;
        p.base[it.key()] = it.value().get<std::string>();
    }
    for (auto it = o->begin(); it != o->end(); ++it) {
        if (!it.value().is_object()) return std::nullopt;
        JobMap jobs;
        for (auto jt = it.value().begin(); jt != it.value().end(); ++jt) {
            if (!jt.value().is_string()) return std::nullopt;
            jobs[jt.key()] = jt.value().get<std::string>();
        }
        p.overrides[it.key()] = std::move(jobs);
    }
    return p;
}

OpenAIModelProfile OpenAIModelProfile::forModel(std::string_view name) {
    const std::string n = text::asciiLowercase(text::trimmed(name));
    for (std::string_view reasoning : {"gpt-5", "o1", "o3", "o4"})
        if (n.rfind(reasoning, 0) == 0) return OpenAIModelProfile{false, "minimal"};
    return OpenAIModelProfile{true, std::nullopt};
}

}  // namespace osv
