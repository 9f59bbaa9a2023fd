#include "core/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace osv {
namespace {

Error writeError(const std::filesystem::path& path, const std::string& what) {
    return Error{"atomic_write_failed", "无法写入 " + path.string() + "：" + what};
}

}  // namespace

bool writeAllToDescriptor(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data.remove_prefix(std::size_t(n));
    }
    return true;
}

Expected<void> writeFileAtomically(const std::filesystem::path& path, std::string_view data,
                                   unsigned permissions) {
    std::error_code ec;
    const auto parent = path.parent_path().empty() ? std::filesystem::path(".") : path.parent_path();
    std::filesystem::create_directories(parent, ec);
    if (ec) return writeError(path, ec.message());

    std::string name = ".";
    name += path.filename().string();
    name += ".tmp-XXXXXX";
    std::string tmpl = (parent / name).string();
    const int fd = ::mkstemp(tmpl.data());
    if (fd < 0) return writeError(path, std::strerror(errno));
    // mkstemp creates 0600; set the mode before any byte is written.
    ::fchmod(fd, static_cast<mode_t>(permissions));
    const bool written = writeAllToDescriptor(fd, data) && ::fsync(fd) == 0;
    const int savedErrno = errno;
    ::close(fd);
    if (!written) {
        ::unlink(tmpl.c_str());
        return writeError(path, std::strerror(savedErrno));
    }
    if (::rename(tmpl.c_str(), path.c_str()) != 0) {
        const int renameErrno = errno;
        ::unlink(tmpl.c_str());
        return writeError(path, std::strerror(renameErrno));
    }
    // Make the rename itself durable.
    const int dirFd = ::open(parent.c_str(), O_RDONLY | O_DIRECTORY);
    if (dirFd >= 0) {
        ::fsync(dirFd);
        ::close(dirFd);
    }
    return {};
}

Expected<std::string> readWholeFile(const std::filesystem::path& path) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec))
        return Error{"file_missing", "文件不存在：" + path.string()};
    std::ifstream in(path, std::ios::binary);
    if (!in) return Error{"file_unreadable", "无法读取文件：" + path.string()};
    std::ostringstream buffer;
    buffer << in.rdbuf();
    if (in.bad()) return Error{"file_unreadable", "无法读取文件：" + path.string()};
    return buffer.str();
}

}  // namespace osv
