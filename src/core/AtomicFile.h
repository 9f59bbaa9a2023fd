#pragma once

#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "core/Expected.h"

namespace osv {

// Writes `data` to a temporary file beside `path`, flushes it to disk and renames it over
// `path`, so that a reader sees either the old file whole or the new one whole. Creates
// the parent folder if needed. `permissions` are the new file's mode (0600 for secrets).
// Error codes: "atomic_write_failed".
Expected<void> writeFileAtomically(const std::filesystem::path& path, std::string_view data,
                                   unsigned permissions = 0644);
// The same for a file made of `pieces`, written in order without joining them first (the
// recording index writes back most of itself from the text it read).
Expected<void> writeFileAtomically(const std::filesystem::path& path, std::span<const std::string_view> pieces,
                                   unsigned permissions = 0644);

// Writes all of `data` to an open file descriptor, retrying short and interrupted writes.
bool writeAllToDescriptor(int fd, std::string_view data);

// The whole file. Error codes: "file_missing", "file_unreadable".
Expected<std::string> readWholeFile(const std::filesystem::path& path);

// A whole file mapped read-only, for a file too large to copy cheaply (the recording
// index: reading it into fresh memory costs ten times what mapping does). The mapping is
// private, and a file replaced by rename, as writeFileAtomically replaces files, keeps its
// old bytes here; a file truncated in place while mapped would fault on access, so map only
// files that are never rewritten in place.
class MappedFile {
public:
    // Error codes as readWholeFile's.
    static Expected<std::shared_ptr<const MappedFile>> map(const std::filesystem::path& path);
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    ~MappedFile();
    std::string_view bytes() const { return {data_, size_}; }

private:
    MappedFile(const char* data, std::size_t size) : data_(data), size_(size) {}
    const char* data_;
    std::size_t size_;
};

}  // namespace osv
