#include "core/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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
    // POSIX calls rather than a stream: a stream reads a failing file (a directory, an I/O
    // error) as empty text, and empty text would then pass for the file's content.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) return Error{"file_missing", "文件不存在：" + path.string()};
        return Error{"file_unreadable", "无法读取文件：" + path.string() + "（" + std::strerror(errno) + "）"};
    }
    std::string out;
    struct stat st {};
    if (::fstat(fd, &st) == 0 && st.st_size > 0) out.reserve(std::size_t(st.st_size));
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n > 0) {
            out.append(buffer, std::size_t(n));
            continue;
        }
        if (n == 0) break;
        if (errno == EINTR) continue;
        const int failure = errno;
        ::close(fd);
        return Error{"file_unreadable", "无法读取文件：" + path.string() + "（" + std::strerror(failure) + "）"};
    }
    ::close(fd);
    return out;
}

}  // namespace osv
