#include "settings/TranslatorSettings.h"

#include <algorithm>
#include <cctype>
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

constexpr std::string_view kVendors[] = {"google", "openAI"};
constexpr std::string_view kCaptureModes[] = {"mixed", "systemAudio", "microphone"};
constexpr std::string_view kRecognition[] = {"auto", "chinese", "japanese"};
constexpr std::string_view kEngines[] = {"realtimeTranslation", "chunkedFallback"};
constexpr std::string_view kTextSizes[] = {"small", "medium", "large"};
constexpr std::string_view kSkins[] = {"indigo", "vermilion", "pine", "night"};
constexpr std::string_view kASR[] = {"disabled", "onCloudFailure"};
constexpr std::string_view kScenes[] = {"general", "assist", "coach"};
constexpr std::string_view kPerspectives[] = {"solo", "shared"};

std::string lowercase(std::string_view s) {
    std::string out(text::trimmed(s));
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return out;
}

}  // namespace

std::string_view rawValue(SpeechVendor v) { return kVendors[std::size_t(v)]; }
std::string_view rawValue(AudioCaptureMode v) { return kCaptureModes[std::size_t(v)]; }
std::string_view rawValue(RecognitionLanguage v) { return kRecognition[std::size_t(v)]; }
std::string_view rawValue(LiveInterpretationEngine v) { return kEngines[std::size_t(v)]; }
std::string_view rawValue(CaptionTextSize v) { return kTextSizes[std::size_t(v)]; }
std::string_view rawValue(Skin v) { return kSkins[std::size_t(v)]; }
std::string_view rawValue(LocalASRPolicy v) { return kASR[std::size_t(v)]; }
std::string_view rawValue(ConversationScene v) { return kScenes[std::size_t(v)]; }
std::optional<AudioCaptureMode> captureModeFromRaw(std::string_view raw) {
    return enumFromRaw<AudioCaptureMode>(raw, kCaptureModes);
}
std::optional<RecognitionLanguage> recognitionLanguageFromRaw(std::string_view raw) {
    return enumFromRaw<RecognitionLanguage>(raw, kRecognition);
}

AppMode appMode(ConversationScene scene) {
    switch (scene) {
        case ConversationScene::general: return AppMode::interpret;
        case ConversationScene::assist: return AppMode::assist;
        case ConversationScene::coach: return AppMode::coach;
    }
    return AppMode::interpret;
}

double TranslatorSettings::normalizedChunkSeconds(std::optional<double> stored) {
    if (!stored || !std::isfinite(*stored)) return 0.8;
    return std::clamp(*stored, 0.5, 8.0);
}

const std::vector<SettingKey>& settingKeys() {
    using T = SettingType;
    static constexpr std::string_view kTargets[] = {"simplifiedChinese", "japanese"};
    static const std::vector<SettingKey> keys = {
        {"capture_mode", T::text, kCaptureModes},
        {"recognition_language", T::text, kRecognition},
        {"target_language", T::text, kTargets},
        {"perspective", T::text, kPerspectives},
        {"bidirectional_translation", T::boolean},
        {"live_engine", T::text, kEngines},
        {"caption_text_size", T::text, kTextSizes},
        {"skin", T::text, kSkins},
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
        {"speech_vendor", T::text, kVendors},
        {"local_asr_policy", T::text, kASR},
        {"glossary", T::text},
        {"chunk_seconds", T::number},
        {"conversation_scene", T::text, kScenes},
        {"model_preferences", T::data},
        {"refine_model", T::text},
        {"realtime_transcribe_model", T::text},
        {"openai_api_key", T::text},
        {"openai_base_url", T::baseURL},
        {"gemini_base_url", T::baseURL},
        {"google_tts_base_url", T::baseURL},
        {"jev_base_url", T::baseURL},
    };
    return keys;
}

TranslatorSettings SettingsStore::load(std::optional<std::string> environmentAPIKey) {
    const UserDefaults& d = defaults_;
    TranslatorSettings s;
    s.apiKey = environmentAPIKey.value_or("");
    s.models = ModelPreferences::loadFromDefaults(d);
    s.localASRPolicy = parse<LocalASRPolicy>(d.string("local_asr_policy"), kASR).value_or(LocalASRPolicy::disabled);
    s.captureMode = parse<AudioCaptureMode>(d.string("capture_mode"), kCaptureModes).value_or(AudioCaptureMode::mixed);
    s.recognitionLanguage =
        parse<RecognitionLanguage>(d.string("recognition_language"), kRecognition).value_or(RecognitionLanguage::automatic);
    s.targetLanguage = d.string("target_language") == std::optional<std::string>("japanese")
                           ? TargetLanguage::japanese
                           : TargetLanguage::simplifiedChinese;
    s.liveEngine = d.string("live_engine") == std::optional<std::string>("chunkedFallback")
                       ? LiveInterpretationEngine::chunkedFallback
                       : LiveInterpretationEngine::realtimeTranslation;
    s.captionTextSize = parse<CaptionTextSize>(d.string("caption_text_size"), kTextSizes).value_or(CaptionTextSize::medium);
    s.skin = parse<Skin>(d.string("skin"), kSkins).value_or(Skin::indigo);
    if (auto p = parse<Perspective>(d.string("perspective"), kPerspectives)) {
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

    if (auto v = parse<SpeechVendor>(d.string("speech_vendor"), kVendors)) s.speechVendor = *v;
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
    if (auto scene = parse<ConversationScene>(d.string("conversation_scene"), kScenes)) {
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
                                           lowercase(name) + "_key_write_failed"});
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
    UserDefaults& d = defaults_;
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
    persistSecondaryKey(SecretLocation::google(), s.googleAPIKey, persistedGoogleKey, "Google", report);
    persistSecondaryKey(SecretLocation::gemini(), s.geminiAPIKey, persistedGeminiKey, "Gemini", report);
    persistSecondaryKey(SecretLocation::jev(), s.jevAPIKey, persistedJevKey, "Jev", report);
    d.set("local_asr_policy", std::string(rawValue(s.localASRPolicy)));
    d.set("glossary", s.glossary);
    s.chunkSeconds = TranslatorSettings::normalizedChunkSeconds(s.chunkSeconds);
    d.set("chunk_seconds", s.chunkSeconds);
    s.models.saveToDefaults(d);
    if (!d.synchronize()) {
        report.errors.push_back("设置没能写入磁盘，重启后会恢复成上一次保存的样子。");
        report.events.push_back(OpenAIDebugLog{DebugEvent::Level::error, DebugEvent::Category::app, "设置写入失败",
                                               "", "settings_write_failed"});
    }
    return report;
}

ModelJob modelJob(UsageTally::Kind kind) {
    using K = UsageTally::Kind;
    switch (kind) {
        case K::furigana:
        case K::suggestion: return ModelJob::strongText;
        case K::transcription: return ModelJob::fileTranscribe;
        case K::coach: return ModelJob::coachAnswer;
        case K::speech: return ModelJob::speech;
        default: return ModelJob::fastText;  // sentence passes, repairs, glossary, summary, drafts
    }
}

std::optional<double> estimatedUSD(UsageTally::Kind kind, std::int64_t inputTokens, std::int64_t outputTokens,
                                   const TranslatorSettings& settings, AppMode mode) {
    double input = 0, output = 0;
    if (settings.usageRates.hasTokenRates()) {
        input = settings.usageRates.inputPerMillionUSD;
        output = settings.usageRates.outputPerMillionUSD;
    } else {
        const auto rate = Pricing::rate(settings.models.resolved(modelJob(kind), mode));
        if (!rate) return std::nullopt;
        input = rate->inputPerMillion;
        output = rate->outputPerMillion;
    }
    return double(inputTokens) / 1e6 * input + double(outputTokens) / 1e6 * output;
}

namespace ModelWiring {

std::optional<std::string> priceText(const std::optional<Pricing::Rate>& rate) {
    if (!rate) return std::nullopt;
    char buffer[96];
    if (rate->perMinute > 0) std::snprintf(buffer, sizeof buffer, "$%.3f/分钟", rate->perMinute);
    else if (rate->inputPerMillion > 0 || rate->outputPerMillion > 0)
        std::snprintf(buffer, sizeof buffer, "$%.2f / $%.2f 每百万 token", rate->inputPerMillion, rate->outputPerMillion);
    else if (rate->perMillionCharacters > 0) std::snprintf(buffer, sizeof buffer, "$%.0f/百万字符", rate->perMillionCharacters);
    else return std::nullopt;
    std::string out = buffer;
    if (!rate->verified) out += "（未核实）";
    return out;
}

std::vector<Row> rows(const TranslatorSettings& settings, Keys keys) {
    std::vector<Row> out;
    const AppMode mode = settings.activeMode;
    for (ModelJob job : allModelJobs) {
        Row row{job, settings.models.resolved(job, mode), "", std::nullopt, std::nullopt, false};
        const auto stored = settings.models.stored(job, mode);
        row.isOverridden = stored && !text::isBlank(*stored);
        const std::string voice(text::trimmed(settings.googleJapaneseVoice));
        if (job == ModelJob::speech && !voice.empty() && settings.speechVendor == SpeechVendor::google) {
            row.vendorName = "Google 语音";
            row.price = priceText(Pricing::rate("google:" + lowercase(voice)));
            out.push_back(std::move(row));
            continue;
        }
        const std::string name = lowercase(row.model);
        const bool gemini = name.rfind("gemini-", 0) == 0;
        row.vendorName = gemini ? "Gemini" : "OpenAI";
        row.price = priceText(Pricing::rate(row.model));
        const bool live = name.size() >= 5 && name.compare(name.size() - 5, 5, "-live") == 0;
        if (!gemini && !keys.openAI) row.problem = "没填 OpenAI Key";
        else if (gemini && !keys.gemini) row.problem = "没填 Gemini Key";
        else if (gemini && job == ModelJob::fileTranscribe && live) row.problem = "文件转写要用不带 -live 的模型";
        else if (gemini && job == ModelJob::realtimeTranscribe && !live) row.problem = "实时原文要用带 -live 的流式模型";
        else if (gemini && job == ModelJob::realtimeTranslate) row.problem = "实时同传只有 OpenAI 有边听边译的端点";
        out.push_back(std::move(row));
    }
    return out;
}

std::string summary(const std::vector<Row>& rows) {
    std::vector<const Row*> problems;
    std::vector<std::string> vendors;
    for (const Row& r : rows) {
        if (r.problem) problems.push_back(&r);
        if (std::find(vendors.begin(), vendors.end(), r.vendorName) == vendors.end()) vendors.push_back(r.vendorName);
    }
    if (problems.empty()) {
        std::string joined;
        for (const auto& v : vendors) joined += (joined.empty() ? "" : " + ") + v;
        return joined + "，" + std::to_string(rows.size()) + " 项都能用";
    }
    if (problems.size() == 1) return std::string(label(problems[0]->job)) + "：" + *problems[0]->problem;
    return std::to_string(problems.size()) + " 项用不了，第一项是「" + std::string(label(problems[0]->job)) + "」";
}

}  // namespace ModelWiring
}  // namespace osv
