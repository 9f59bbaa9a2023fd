#include "settings/SettingEnums.h"

#include "core/EnumNames.h"

namespace osv {

std::string_view rawValue(SpeechVendor v) { return SettingNames::speechVendors[std::size_t(v)]; }
std::string_view rawValue(AudioCaptureMode v) { return SettingNames::captureModes[std::size_t(v)]; }
std::string_view rawValue(RecognitionLanguage v) { return SettingNames::recognitionLanguages[std::size_t(v)]; }
std::string_view rawValue(LiveInterpretationEngine v) { return SettingNames::liveEngines[std::size_t(v)]; }
std::string_view rawValue(CaptionTextSize v) { return SettingNames::captionTextSizes[std::size_t(v)]; }
std::string_view rawValue(Skin v) { return SettingNames::skins[std::size_t(v)]; }
std::string_view rawValue(LocalASRPolicy v) { return SettingNames::localASRPolicies[std::size_t(v)]; }
std::string_view rawValue(ConversationScene v) { return SettingNames::conversationScenes[std::size_t(v)]; }
std::optional<AudioCaptureMode> captureModeFromRaw(std::string_view raw) {
    return enumFromRaw<AudioCaptureMode>(raw, SettingNames::captureModes);
}
std::optional<RecognitionLanguage> recognitionLanguageFromRaw(std::string_view raw) {
    return enumFromRaw<RecognitionLanguage>(raw, SettingNames::recognitionLanguages);
}

AppMode appMode(ConversationScene scene) {
    switch (scene) {
        case ConversationScene::general: return AppMode::interpret;
        case ConversationScene::assist: return AppMode::assist;
        case ConversationScene::coach: return AppMode::coach;
    }
    return AppMode::interpret;
}

}  // namespace osv
