#include "recordings/LibraryPaths.h"

namespace osv {

namespace fs = std::filesystem;

void LibraryPaths::ensureLibraryDirectories() const {
    std::error_code ec;
    fs::create_directories(audio(), ec);
    fs::create_directories(transcripts(), ec);
}

std::optional<fs::path> LibraryPaths::resolve(std::string_view relativePath) const {
    const fs::path relative = fs::path(relativePath).lexically_normal();
    if (relative.empty() || relative.is_absolute() || relative.has_root_name()) return std::nullopt;
    for (const fs::path& part : relative)
        if (part == "..") return std::nullopt;
    if (relative == ".") return std::nullopt;
    return root / relative;
}

}  // namespace osv
