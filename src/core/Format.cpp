#include "core/Format.h"

#include <cstdio>

namespace osv {
namespace {

std::string formatted(std::int64_t bytes, const char* small, const char* large) {
    char buffer[48];
    if (bytes < 1'000'000) std::snprintf(buffer, sizeof buffer, small, double(bytes) / 1000.0);
    else std::snprintf(buffer, sizeof buffer, large, double(bytes) / 1e6);
    return buffer;
}

}  // namespace

std::string rateText(std::int64_t bytesPerSecond) { return formatted(bytesPerSecond, "%.0f KB/s", "%.1f MB/s"); }
std::string sizeText(std::int64_t bytes) { return formatted(bytes, "%.0f KB", "%.1f MB"); }

}  // namespace osv
