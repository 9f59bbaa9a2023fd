#include "core/Paths.h"

#include <cstdlib>

namespace osv {
namespace {

std::filesystem::path fromEnvironment(const char* name) {
    const char* v = std::getenv(name);
    if (v && *v) return std::filesystem::path(v);
    return {};
}

std::filesystem::path home() {
    auto h = fromEnvironment("HOME");
    return h.empty() ? std::filesystem::path("/tmp") : h;
}

}  // namespace

std::filesystem::path supportDirectory() {
    if (auto overridden = fromEnvironment("OSV_SUPPORT_DIR"); !overridden.empty()) return overridden;
    if (auto data = fromEnvironment("XDG_DATA_HOME"); !data.empty()) return data / "Ossevra";
    return home() / ".local" / "share" / "Ossevra";
}

std::filesystem::path configDirectory() {
    if (auto config = fromEnvironment("XDG_CONFIG_HOME"); !config.empty()) return config / "Ossevra";
    return home() / ".config" / "Ossevra";
}

}  // namespace osv
