#include "metering/DebugEvent.h"

#include <ctime>

namespace osv {

std::string_view DebugEvent::label(Level level) {
    switch (level) {
        case Level::info: return "信息";
        case Level::success: return "成功";
        case Level::warning: return "警告";
        case Level::error: return "错误";
    }
    return "";
}

std::string_view DebugEvent::label(Category category) {
    switch (category) {
        case Category::audio: return "音频";
        case Category::openAI: return "OpenAI";
        case Category::transcription: return "识别";
        case Category::translation: return "翻译";
        case Category::assistant: return "助手";
        case Category::app: return "应用";
    }
    return "";
}

std::string_view DebugEvent::rawValue(Level level) {
    static constexpr std::string_view names[] = {"info", "success", "warning", "error"};
    return names[int(level)];
}

std::string_view DebugEvent::rawValue(Category category) {
    static constexpr std::string_view names[] = {"audio", "openAI", "transcription", "translation", "assistant", "app"};
    return names[int(category)];
}

std::string DebugEvent::copyText() const {
    const std::time_t t = std::time_t(timestamp.unixSeconds());
    std::tm local{};
    localtime_r(&t, &local);
    char clock[16];
    std::strftime(clock, sizeof clock, "%H:%M:%S", &local);
    // Appended piece by piece: `"…" + std::string` makes GCC 12 at -O2 and above report a
    // false -Wrestrict inside std::string (GCC bug 105329).
    std::string out = "[";
    out.append(clock).append("] ").append(label(level)).append(" / ").append(label(category));
    out.append("\n").append(title);
    if (code) out.append("\ncode: ").append(*code);
    if (!details.empty()) out.append("\n").append(details);
    return out;
}

}  // namespace osv
