#pragma once

// Which model does which job in which mode: the one resolution path, so that a model name
// appears nowhere else in the code.

#include <array>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "settings/UserDefaults.h"

namespace osv {

enum class AppMode { interpret, record, assist, coach };
std::string_view rawValue(AppMode mode);
std::optional<AppMode> appModeFromRaw(std::string_view raw);

enum class ModelJob { realtimeTranslate, realtimeTranscribe, fileTranscribe, fastText, strongText, coachAnswer, speech };
inline constexpr std::array<ModelJob, 7> allModelJobs{ModelJob::realtimeTranslate, ModelJob::realtimeTranscribe,
                                                      ModelJob::fileTranscribe,    ModelJob::fastText,
                                                      ModelJob::strongText,        ModelJob::coachAnswer,
                                                      ModelJob::speech};
std::string_view rawValue(ModelJob job);
std::optional<ModelJob> modelJobFromRaw(std::string_view raw);
std::string_view label(ModelJob job);           // "实时同传", ...
std::string_view builtInDefault(ModelJob job);  // "gpt-realtime-translate", ...

class ModelPreferences {
public:
    using JobMap = std::map<std::string, std::string>;  // job raw value -> model

    JobMap base;                          // for all modes
    std::map<std::string, JobMap> overrides;  // mode raw value -> per-mode choices

    // Never empty: the mode's choice, else the base choice, else the built-in default;
    // blank text counts as nothing at both levels.
    std::string resolved(ModelJob job, std::optional<AppMode> mode) const;
    std::string resolvedDefault(ModelJob job) const { return resolved(job, std::nullopt); }
    // The stored text (of `base` without a mode), untrimmed.
    std::optional<std::string> stored(ModelJob job, std::optional<AppMode> mode) const;
    // Empty text removes the entry (and an emptied mode); any other text is stored trimmed,
    // even when it equals the default.
    void set(const std::string& model, ModelJob job, std::optional<AppMode> mode);
    bool hasOverrides(AppMode mode) const;
    // Without blank entries or emptied modes.
    ModelPreferences trimmed() const;

    static constexpr std::string_view kDefaultsKey = "model_preferences";
    // From "model_preferences", or migrated from the old "refine_model" and
    // "realtime_transcribe_model" keys when it is absent (which stay in place).
    static ModelPreferences loadFromDefaults(const UserDefaults& defaults);
    void saveToDefaults(UserDefaults& defaults) const;
    static ModelPreferences migrating(const std::string& strongText, const std::string& realtimeTranscribe);

    std::string toJsonText() const;
    // None when the text is not an object with both "base" and "overrides".
    static std::optional<ModelPreferences> fromJsonText(std::string_view text);

    bool operator==(const ModelPreferences&) const = default;
};

// Which request parameters a model accepts.
struct OpenAIModelProfile {
    bool usesTemperature = true;
    std::optional<std::string> reasoningEffort;

    static OpenAIModelProfile forModel(std::string_view name);
    bool operator==(const OpenAIModelProfile&) const = default;
};

}  // namespace osv
