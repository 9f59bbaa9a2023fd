#include "settings/TranslatorSettings.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "core/EnumNames.h"
#include "core/Text.h"

namespace osv {
namespace {

template <class E>
std::optional<E> parse(const std::optional<std::string>& raw, std::span<const std::string_view> names) {
    return raw ? enumFromRaw<E>(*raw, names) : std::nullopt;
}

}  // namespace

double TranslatorSettings::normalizedChunkSeconds(std::optional<double> stored) {
    if (!stored || !std::isfinite(*stored)) return 0.8;
    return std::clamp(*stored, 0.5, 8.0);
}

const std::vector<SettingKey>& settingKeys() {
    using T = SettingType;
    static const std::vector<SettingKey> keys = {
        {"capture_mode", T::text, SettingNames::captureModes},
        {"recognition_language", T::text, SettingNames::recognitionLanguages},
        {"target_language", T::text, SettingNames::targetLanguages},
        {"perspective", T::text, SettingNames::perspectives},
        {"bidirectional_translation", T::boolean},
        {"live_engine", T::text, SettingNames::liveEngines},
        {"caption_text_size", T::text, SettingNames::captionTextSizes},
        {"skin", T::text, SettingNames::skins},
        {"refine_sentences", T::boolean},
        {"separate_channels", T::boolean},
        {"show_furigana", T::boolean},
        {"rate_realtime_minute", T::number},
        {"rate_input_million", T::number},
        {"rate_output_million", T::number},
        {"repair_source", T::boolean},
        {"learn_glossary", T::boolean},
        {"running_summary", T::boolean},
        {"context_repair", T::boolean},
        {"name_from_calendar", T::boolean},
        {"google_ja_voice", T::text},
        {"google_zh_voice", T::text},
        {"openai_ja_voice", T::text},
        {"openai_zh_voice", T::text},
        {"speech_rate", T::number},
        {"google_speaking_rate", T::number},
        {"speech_vendor", T::text, SettingNames::speechVendors},
        {"local_asr_policy", T::text, SettingNames::localASRPolicies},
        {"glossary", T::text},
        {"chunk_seconds", T::number},
        {"conversation_scene", T::text, SettingNames::conversationScenes},
        {"model_preferences", T::data},
        {"refine_model", T::text},
        {"realtime_transcribe_model", T::text},
        {"openai_api_key", T::text},
        {"openai_base_url", T::baseURL},
        {"gemini_base_url", T::baseURL},
        {"google_tts_base_url", T::baseURL},
        {"jev_base_url", T::baseURL},
        {"local_model_url", T::baseURL},
    };
    return keys;
}

void writeSettingValues(const TranslatorSettings& s, UserDefaults& d) {
    d.set("capture_mode", std::string(rawValue(s.captureMode)));
    d.set("recognition_language", std::string(rawValue(s.recognitionLanguage)));
    d.set("target_language", std::string(rawValue(s.targetLanguage)));
    d.set("perspective", std::string(rawValue(s.perspective)));
    d.set("live_engine", std::string(rawValue(s.liveEngine)));
    d.set("caption_text_size", std::string(rawValue(s.captionTextSize)));
    d.set("skin", std::string(rawValue(s.skin)));
    d.set("refine_sentences", s.refineFinishedSentences);
    d.set("separate_channels", s.separateChannels);
    d.set("show_furigana", s.showFurigana);
    d.set("rate_realtime_minute", s.usageRates.realtimePerMinuteUSD);
    d.set("rate_input_million", s.usageRates.inputPerMillionUSD);
    d.set("rate_output_million", s.usageRates.outputPerMillionUSD);
    d.set("repair_source", s.repairSource);
    d.set("learn_glossary", s.learnGlossary);
    d.set("running_summary", s.runningSummary);
    d.set("context_repair", s.contextRepair);
    d.set("name_from_calendar", s.nameFromCalendar);
    d.set("google_ja_voice", s.googleJapaneseVoice);
    d.set("google_zh_voice", s.googleChineseVoice);
    d.set("openai_ja_voice", s.japaneseVoice);
    d.set("openai_zh_voice", s.chineseVoice);
    d.set("speech_rate", s.speechRate);
    d.set("speech_vendor", std::string(rawValue(s.speechVendor)));
    d.set("local_asr_policy", std::string(rawValue(s.localASRPolicy)));
    d.set("glossary", s.glossary);
    d.set("chunk_seconds", TranslatorSettings::normalizedChunkSeconds(s.chunkSeconds));
    s.models.saveToDefaults(d);
}

TranslatorSettings SettingsStore::load(std::optional<std::string> environmentAPIKey) {
    const UserDefaults& d = defaults_;
    TranslatorSettings s;
    s.apiKey = environmentAPIKey.value_or("");
    s.models = ModelPreferences::loadFromDefaults(d);
    s.localASRPolicy = parse<LocalASRPolicy>(d.string("local_asr_policy"), SettingNames::localASRPolicies).value_or(LocalASRPolicy::disabled);
    s.captureMode = parse<AudioCaptureMode>(d.string("capture_mode"), SettingNames::captureModes).value_or(AudioCaptureMode::mixed);
    s.recognitionLanguage =
        parse<RecognitionLanguage>(d.string("recognition_language"), SettingNames::recognitionLanguages).value_or(RecognitionLanguage::automatic);
    s.targetLanguage = d.string("target_language") == std::optional<std::string>("japanese")
                           ? TargetLanguage::japanese
                           : TargetLanguage::simplifiedChinese;
    s.liveEngine = d.string("live_engine") == std::optional<std::string>("chunkedFallback")
                       ? LiveInterpretationEngine::chunkedFallback
                       : LiveInterpretationEngine::realtimeTranslation;
    s.captionTextSize = parse<CaptionTextSize>(d.string("caption_text_size"), SettingNames::captionTextSizes).value_or(CaptionTextSize::medium);
    s.skin = parse<Skin>(d.string("skin"), SettingNames::skins).value_or(Skin::indigo);
    if (auto p = parse<Perspective>(d.string("perspective"), SettingNames::perspectives)) {
        s.perspective = *p;
    } else if (auto shared = d.boolean("bidirectional_translation")) {
        s.perspective = *shared ? Perspective::shared : Perspective::solo;
    }
    s.chunkSeconds = TranslatorSettings::normalizedChunkSeconds(d.number("chunk_seconds"));

    // The other vendors' keys, remembered as what is known to be stored.
    persistedGoogleKey = secrets_.apiKey(SecretLocation::google());
    persistedGeminiKey = secrets_.apiKey(SecretLocation::gemini());
    persistedJevKey = secrets_.apiKey(SecretLocation::jev());
    s.googleAPIKey = persistedGoogleKey.value_or("");
    s.geminiAPIKey = persistedGeminiKey.value_or("");
    s.jevAPIKey = persistedJevKey.value_or("");

    if (auto v = parse<SpeechVendor>(d.string("speech_vendor"), SettingNames::speechVendors)) s.speechVendor = *v;
    else s.speechVendor = s.googleAPIKey.empty() ? SpeechVendor::openAI : SpeechVendor::google;
    s.japaneseVoice = d.string("openai_ja_voice").value_or(s.japaneseVoice);
    s.chineseVoice = d.string("openai_zh_voice").value_or(s.chineseVoice);
    s.googleJapaneseVoice = d.string("google_ja_voice").value_or(s.googleJapaneseVoice);
    s.googleChineseVoice = d.string("google_zh_voice").value_or(s.googleChineseVoice);
    // A current rate above 0 wins; an older build's rate counts unless it was its default.
    const double rate = d.number("speech_rate").value_or(0);
    const double legacyRate = d.number("google_speaking_rate").value_or(0);
    if (rate > 0) s.speechRate = rate;
    else if (legacyRate > 0 && legacyRate != 0.92) s.speechRate = legacyRate;
    s.usageRates = UsageRates{d.number("rate_realtime_minute").value_or(0), d.number("rate_input_million").value_or(0),
                              d.number("rate_output_million").value_or(0)};
    // Booleans that default to true are read only when stored: an unset key is not false.
    s.showFurigana = d.boolean("show_furigana").value_or(true);
    s.repairSource = d.boolean("repair_source").value_or(true);
    s.learnGlossary = d.boolean("learn_glossary").value_or(true);
    s.runningSummary = d.boolean("running_summary").value_or(true);
    s.contextRepair = d.boolean("context_repair").value_or(true);
    s.nameFromCalendar = d.boolean("name_from_calendar").value_or(false);
    s.separateChannels = d.boolean("separate_channels").value_or(true);
    s.refineFinishedSentences = d.boolean("refine_sentences").value_or(true);
    s.glossary = d.string("glossary").value_or("");
    if (auto scene = parse<ConversationScene>(d.string("conversation_scene"), SettingNames::conversationScenes)) {
        s.sceneToReturnTo = *scene;
        s.activeMode = appMode(*scene);
    }
    return s;
}

void SettingsStore::loadStoredKey(TranslatorSettings& settings) {
    const auto key = secrets_.adoptedKey(SecretStore::kLegacyOpenAIDefaultsKey, SecretLocation::openAI(), defaults_);
    if (key && !key->empty()) settings.apiKey = *key;
    persistedAPIKey = key;
    isLoadingStoredKey = false;
}

void SettingsStore::persistSecondaryKey(const SecretLocation& location, const std::string& field,
                                        std::optional<std::string>& persisted, std::string_view vendor,
                                        SaveReport& report) {
    if (persisted == field || (!persisted && field.empty())) return;
    if (secrets_.setAPIKey(field, location)) {
        persisted = field;
        return;
    }
    const std::string name(vendor);
    report.errors.push_back(name + " Key 没能保存下来，现在用的还是上一把。");
    report.events.push_back(OpenAIDebugLog{DebugEvent::Level::error, DebugEvent::Category::app, name + " Key 写入失败",
                                           "OSStatus: " + std::to_string(secrets_.lastStatus()),
                                           text::asciiLowercase(name) + "_key_write_failed"});
}

SettingsStore::SaveReport SettingsStore::save(TranslatorSettings& s) {
    SaveReport report;
    // Until the stored key has loaded, an environment key or an empty field must not erase it.
    if (!isLoadingStoredKey) {
        const bool unchanged = persistedAPIKey ? *persistedAPIKey == s.apiKey : s.apiKey.empty();
        if (!unchanged) {
            if (secrets_.setAPIKey(s.apiKey, SecretLocation::openAI())) {
                persistedAPIKey = s.apiKey;
            } else {
                report.errors.push_back("API Key 无法写入钥匙串，这次改动没有保存。");
                report.events.push_back(OpenAIDebugLog{
                    DebugEvent::Level::error, DebugEvent::Category::app, "API Key 写入钥匙串失败",
                    "OSStatus: " + std::to_string(secrets_.lastStatus()) + " (" + secrets_.lastStatusText() + ")",
                    "keychain_write_failed"});
            }
        }
    }
    persistSecondaryKey(SecretLocation::google(), s.googleAPIKey, persistedGoogleKey, "Google", report);
    persistSecondaryKey(SecretLocation::gemini(), s.geminiAPIKey, persistedGeminiKey, "Gemini", report);
    persistSecondaryKey(SecretLocation::jev(), s.jevAPIKey, persistedJevKey, "Jev", report);
    s.chunkSeconds = TranslatorSettings::normalizedChunkSeconds(s.chunkSeconds);
    UserDefaults& d = defaults_;
    writeSettingValues(s, d);
    if (!d.synchronize()) {
        report.errors.push_back("设置没能写入磁盘，重启后会恢复成上一次保存的样子。");
        report.events.push_back(OpenAIDebugLog{DebugEvent::Level::error, DebugEvent::Category::app, "设置写入失败",
                                               "", "settings_write_failed"});
    }
    return report;
}

}  // namespace osv
