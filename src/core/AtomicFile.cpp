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
    // One read into a buffer of the file's size: the recording index can be hundreds of
    // megabytes, and a stream copy would hold it twice.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) return Error{"file_missing", "文件不存在：" + path.string()};
        return Error{"file_unreadable", "无法读取文件：" + path.string() + "：" + std::strerror(errno)};
    }
    struct stat st {};
    std::string bytes;
    bool ok = ::fstat(fd, &st) == 0 && !S_ISDIR(st.st_mode);
    if (ok) {
        bytes.resize(S_ISREG(st.st_mode) ? std::size_t(st.st_size) : 0);
        std::size_t done = 0;
        while (ok) {
            if (done == bytes.size()) bytes.resize(done + 65536);  // a pipe, or a file that grew
            const ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) ok = false;
            else if (n == 0) break;
            else done += std::size_t(n);
        }
        bytes.resize(done);
    }
    const int savedErrno = errno;
    ::close(fd);
    if (!ok) return Error{"file_unreadable", "无法读取文件：" + path.string() + "：" + std::strerror(savedErrno)};
    return bytes;
}

}  // namespace osv
