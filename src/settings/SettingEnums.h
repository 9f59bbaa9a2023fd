#pragma once

// The enumerations of the settings and the names they are stored under.

#include <optional>
#include <string_view>

#include "settings/ModelPreferences.h"

namespace osv {

enum class SpeechVendor { google, openAI };
enum class AudioCaptureMode { mixed, systemAudio, microphone };
enum class RecognitionLanguage { automatic, chinese, japanese };  // "auto", "chinese", "japanese"
enum class LiveInterpretationEngine { realtimeTranslation, chunkedFallback };
enum class CaptionTextSize { small, medium, large };
enum class Skin { indigo, vermilion, pine, night };
enum class LocalASRPolicy { disabled, onCloudFailure };
enum class ConversationScene { general, assist, coach };

std::string_view rawValue(SpeechVendor v);
std::string_view rawValue(AudioCaptureMode v);
std::string_view rawValue(RecognitionLanguage v);
std::string_view rawValue(LiveInterpretationEngine v);
std::string_view rawValue(CaptionTextSize v);
std::string_view rawValue(Skin v);
std::string_view rawValue(LocalASRPolicy v);
std::string_view rawValue(ConversationScene v);
std::optional<AudioCaptureMode> captureModeFromRaw(std::string_view raw);
std::optional<RecognitionLanguage> recognitionLanguageFromRaw(std::string_view raw);

// The mode a scene starts in.
AppMode appMode(ConversationScene scene);

// The stored names, case by case in declaration order.
namespace SettingNames {
inline constexpr std::string_view speechVendors[] = {"google", "openAI"};
inline constexpr std::string_view captureModes[] = {"mixed", "systemAudio", "microphone"};
inline constexpr std::string_view recognitionLanguages[] = {"auto", "chinese", "japanese"};
inline constexpr std::string_view liveEngines[] = {"realtimeTranslation", "chunkedFallback"};
inline constexpr std::string_view captionTextSizes[] = {"small", "medium", "large"};
inline constexpr std::string_view skins[] = {"indigo", "vermilion", "pine", "night"};
inline constexpr std::string_view localASRPolicies[] = {"disabled", "onCloudFailure"};
inline constexpr std::string_view conversationScenes[] = {"general", "assist", "coach"};
inline constexpr std::string_view perspectives[] = {"solo", "shared"};
inline constexpr std::string_view targetLanguages[] = {"simplifiedChinese", "japanese"};
}  // namespace SettingNames

}  // namespace osv
