#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace osv {

// Standard base64 with padding (audio on the wire, data values in files).
std::string base64Encode(const std::uint8_t* data, std::size_t size);
inline std::string base64Encode(const std::vector<std::uint8_t>& data) { return base64Encode(data.data(), data.size()); }
// None for text outside the alphabet.
std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text);

}  // namespace osv
