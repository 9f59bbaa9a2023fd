#pragma once

// Any audio FFmpeg reads, decoded whole into the working format: little-endian signed
// 16-bit PCM, mono (channels averaged), 24,000 samples a second.

#include <cstdint>
#include <filesystem>
#include <vector>

#include "core/Expected.h"

namespace osv {

// Error code "media_unreadable" with FFmpeg's reason.
Expected<std::vector<std::uint8_t>> decodePCM16Mono24k(const std::filesystem::path& path);

}  // namespace osv
