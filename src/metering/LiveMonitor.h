#pragma once

// The summary of a running session, channel by channel and stream by stream, and the one
// line that says whether it is healthy.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace osv {

struct LiveMonitor {
    struct Input {
        std::string name;  // "麦克风" or "电脑声音"
        double peak = 0;
        std::int64_t bytesPerSecond = 0;
        std::int64_t totalBytes = 0;
        std::optional<double> secondsSinceFrame;
    };
    struct Stream {
        std::string job;     // "译文（电脑声音）", "原文（麦克风）"
        std::string vendor;  // "OpenAI", "Gemini"
        bool isConnected = false;
        int events = 0;
        // Since the last event, or since the stream started when it has had none.
        std::optional<double> secondsSinceEvent;
        std::optional<std::string> note;
    };

    std::vector<Input> inputs;
    std::vector<Stream> streams;

    static constexpr double kSilentStreamSeconds = 12.0;
    static constexpr double kSilentInputSeconds = 2.0;

    std::string headline() const;
};

}  // namespace osv
