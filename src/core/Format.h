#pragma once

#include <cstdint>
#include <string>

namespace osv {

// Byte rates and sizes as the screens show them: "%.0f KB/s" below 1,000,000 bytes
// (divided by 1,000), "%.1f MB/s" from there (divided by 1,000,000).
std::string rateText(std::int64_t bytesPerSecond);
std::string sizeText(std::int64_t bytes);

}  // namespace osv
