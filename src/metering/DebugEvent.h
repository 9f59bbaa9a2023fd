#pragma once

// The one in-memory record of what a person may want to check: shown on the debug panel,
// copied out as text. Wire clients report the same record without id and time.

#include <optional>
#include <string>
#include <string_view>

#include "core/Date.h"
#include "core/Uuid.h"

namespace osv {

struct DebugEvent {
    enum class Level { info, success, warning, error };
    enum class Category { audio, openAI, transcription, translation, assistant, app };

    Uuid id;
    Date timestamp;
    Level level = Level::info;
    Category category = Category::app;
    std::string title;
    std::string details;
    std::optional<std::string> code;  // stable snake_case

    // "[{time}] {level} / {category}", the title, "code: …" if any, the details if any;
    // joined by line feeds. The time is local "HH:mm:ss".
    std::string copyText() const;

    static std::string_view label(Level level);        // "信息", "成功", "警告", "错误"
    static std::string_view label(Category category);  // "音频", "OpenAI", "识别", "翻译", "助手", "应用"
    static std::string_view rawValue(Level level);
    static std::string_view rawValue(Category category);

    bool operator==(const DebugEvent&) const = default;
};

// What a wire client hands to its onDebug callback; the controller stamps it.
struct OpenAIDebugLog {
    DebugEvent::Level level = DebugEvent::Level::info;
    DebugEvent::Category category = DebugEvent::Category::openAI;
    std::string title;
    std::string details;
    std::optional<std::string> code;

    DebugEvent stamped(Date at) const { return DebugEvent{Uuid::random(), at, level, category, title, details, code}; }
    bool operator==(const OpenAIDebugLog&) const = default;
};

}  // namespace osv
