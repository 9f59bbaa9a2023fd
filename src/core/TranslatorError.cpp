#include "core/TranslatorError.h"

namespace osv {

std::string TranslatorError::userText() const {
    switch (kind_) {
        case Kind::recordingFailed: return "录音失败：" + detail_;
        case Kind::apiError: return "OpenAI API 错误：" + detail_;
        case Kind::invalidResponse: return detail_;
        case Kind::missingAPIKey: return "缺少 OpenAI API Key。请在设置里粘贴，或用 OPENAI_API_KEY 启动应用。";
        case Kind::microphoneUnavailable: return "没有可用的麦克风输入设备。";
        case Kind::emptyTranscript: return "这段音频没有检测到可识别的日语。";
    }
    return detail_;
}

std::string TranslatorError::code() const {
    switch (kind_) {
        case Kind::recordingFailed: return "recording_failed";
        case Kind::apiError: return "api_error";
        case Kind::invalidResponse: return "invalid_response";
        case Kind::missingAPIKey: return "missing_api_key";
        case Kind::microphoneUnavailable: return "microphone_unavailable";
        case Kind::emptyTranscript: return "empty_transcript";
    }
    return "unknown";
}

}  // namespace osv
