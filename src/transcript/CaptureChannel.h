#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace osv {

// The audio path a piece of speech came through. The enumerator order is the canonical
// order: every place that visits both channels visits `system` first.
enum class CaptureChannel { system, microphone };

inline constexpr std::array<CaptureChannel, 2> allCaptureChannels{CaptureChannel::system,
                                                                  CaptureChannel::microphone};

constexpr std::string_view rawValue(CaptureChannel c) {
    return c == CaptureChannel::system ? "system" : "microphone";
}

inline std::optional<CaptureChannel> captureChannelFromRaw(std::string_view raw) {
    if (raw == "system") return CaptureChannel::system;
    if (raw == "microphone") return CaptureChannel::microphone;
    return std::nullopt;
}

}  // namespace osv
