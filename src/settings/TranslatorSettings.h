#pragma once

// The one record of the user's choices, and how it is loaded at launch and saved: plain
// values in the user defaults under stable keys, the four API keys in the SecretStore.

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "metering/DebugEvent.h"
#include "metering/UsageTally.h"
#include "settings/ModelPreferences.h"
#include "settings/SecretStore.h"
#include "settings/SettingEnums.h"
#include "settings/UserDefaults.h"
#include "transcript/Languages.h"

namespace osv {

struct TranslatorSettings {
    std::string apiKey;
    ModelPreferences models;
    AppMode activeMode = AppMode::interpret;
    LocalASRPolicy localASRPolicy = LocalASRPolicy::disabled;
    SpeechVendor speechVendor = SpeechVendor::openAI;
    std::string japaneseVoice = "shimmer";
    std::string chineseVoice = "nova";
    std::string googleAPIKey;
    std::string geminiAPIKey;
    std::string jevAPIKey;
    std::string googleJapaneseVoice = "ja-JP-Neural2-B";
    std::string googleChineseVoice = "cmn-CN-Wavenet-A";
    double speechRate = 1.0;
    UsageRates usageRates;
    std::string glossary;
    std::string sourceLanguage = "ja";
    TargetLanguage targetLanguage = TargetLanguage::simplifiedChinese;
    double chunkSeconds = 0.8;
    AudioCaptureMode captureMode = AudioCaptureMode::mixed;
    RecognitionLanguage recognitionLanguage = RecognitionLanguage::automatic;
    LiveInterpretationEngine liveEngine = LiveInterpretationEngine::realtimeTranslation;
    CaptionTextSize captionTextSize = CaptionTextSize::medium;
    Skin skin = Skin::indigo;
    Perspective perspective = Perspective::shared;
    bool showFurigana = true;
    bool repairSource = true;
    bool learnGlossary = true;
    bool runningSummary = true;
    bool contextRepair = true;
    bool nameFromCalendar = false;
    bool separateChannels = true;
    bool refineFinishedSentences = true;
    // The scene stored by older builds under "conversation_scene", if it was known.
    std::optional<ConversationScene> sceneToReturnTo;

    // A stored finite value clamped to 0.5 ... 8.0; anything else 0.8.
    static double normalizedChunkSeconds(std::optional<double> stored);
    bool operator==(const TranslatorSettings&) const = default;
};

// What a key of the user defaults holds, as the program reads it. `baseURL` is text that
// must be an http or https URL (where a service's requests go).
enum class SettingType { text, number, boolean, data, baseURL };
struct SettingKey {
    std::string_view key;
    SettingType type;
    // The names a text key understands, when it stands for an enumeration; empty otherwise.
    std::span<const std::string_view> names = {};
};
// Every key the settings read, legacy ones included.
const std::vector<SettingKey>& settingKeys();

// The plain values as the save stores them, one key each (no API keys, no legacy keys).
void writeSettingValues(const TranslatorSettings& settings, UserDefaults& defaults);

// Loads and saves the settings in the order the launch and the save follow, and remembers
// which keys are known to be stored. Main thread.
class SettingsStore {
public:
    SettingsStore(UserDefaults& defaults, SecretStore& secrets) : defaults_(defaults), secrets_(secrets) {}

    // At launch: the OpenAI key from the environment (until a stored key replaces it), the
    // defaults, the Google, Gemini and Jev keys, then the legacy rules.
    TranslatorSettings load(std::optional<std::string> environmentAPIKey);

    // The stored OpenAI key (adopted from older places if need be); a non-empty one
    // replaces settings.apiKey. Until it has run, save() leaves the OpenAI key alone.
    void loadStoredKey(TranslatorSettings& settings);

    struct SaveReport {
        std::vector<std::string> errors;  // for the banner
        std::vector<OpenAIDebugLog> events;
    };
    // Writes everything back; chunkSeconds is normalised into `settings` too. Key failures
    // are reported, and the rest of the save goes on.
    SaveReport save(TranslatorSettings& settings);

    std::optional<std::string> persistedAPIKey;
    std::optional<std::string> persistedGoogleKey;
    std::optional<std::string> persistedGeminiKey;
    std::optional<std::string> persistedJevKey;
    bool isLoadingStoredKey = true;

private:
    void persistSecondaryKey(const SecretLocation& location, const std::string& field,
                             std::optional<std::string>& persisted, std::string_view vendor, SaveReport& report);
    UserDefaults& defaults_;
    SecretStore& secrets_;
};

}  // namespace osv
