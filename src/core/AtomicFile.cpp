#include "core/AtomicFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <vector>

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

namespace {

// All of `pieces`, in order, with as few system calls as the kernel allows.
bool writePiecesToDescriptor(int fd, std::span<const std::string_view> pieces) {
    std::vector<iovec> vectors;
    vectors.reserve(std::min<std::size_t>(pieces.size(), IOV_MAX));
    std::size_t next = 0;
    std::size_t offset = 0;  // into pieces[next], after a short write
    while (next < pieces.size()) {
        vectors.clear();
        for (std::size_t i = next; i < pieces.size() && vectors.size() < IOV_MAX; ++i) {
            const std::string_view piece = i == next ? pieces[i].substr(offset) : pieces[i];
            if (!piece.empty()) vectors.push_back({const_cast<char*>(piece.data()), piece.size()});
        }
        if (vectors.empty()) return true;
        ssize_t n = ::writev(fd, vectors.data(), int(vectors.size()));
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        while (next < pieces.size() && n >= 0) {
            const std::size_t left = pieces[next].size() - offset;
            if (std::size_t(n) < left) {
                offset += std::size_t(n);
                break;
            }
            n -= ssize_t(left);
            ++next;
            offset = 0;
        }
    }
    return true;
}

}  // namespace

Expected<void> writeFileAtomically(const std::filesystem::path& path, std::string_view data,
                                   unsigned permissions) {
    return writeFileAtomically(path, std::span<const std::string_view>(&data, 1), permissions);
}

Expected<void> writeFileAtomically(const std::filesystem::path& path, std::span<const std::string_view> pieces,
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
    const bool written = writePiecesToDescriptor(fd, pieces) && ::fsync(fd) == 0;
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
    bool ok = ::fstat(fd, &st) == 0;
    if (ok && S_ISDIR(st.st_mode)) {
        // A stream would read a folder as empty text, and empty text would pass for the file.
        ok = false;
        errno = EISDIR;
    }
    if (ok) {
        const std::size_t size = S_ISREG(st.st_mode) ? std::size_t(st.st_size) : 0;
        bytes.resize(size);
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

Expected<std::shared_ptr<const MappedFile>> MappedFile::map(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) return Error{"file_missing", "文件不存在：" + path.string()};
        return Error{"file_unreadable", "无法读取文件：" + path.string() + "：" + std::strerror(errno)};
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return Error{"file_unreadable", "无法读取文件：" + path.string()};
    }
    const std::size_t size = std::size_t(st.st_size);
    void* data = nullptr;
    if (size > 0) {
        // Populated at once: the reader goes through all of it anyway.
        data = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
        if (data == MAP_FAILED) {
            const int savedErrno = errno;
            ::close(fd);
            return Error{"file_unreadable", "无法读取文件：" + path.string() + "：" + std::strerror(savedErrno)};
        }
    }
    ::close(fd);
    return std::shared_ptr<const MappedFile>(new MappedFile(static_cast<const char*>(data), size));
}

MappedFile::~MappedFile() {
    if (size_ > 0) ::munmap(const_cast<char*>(data_), size_);
}

}  // namespace osv
