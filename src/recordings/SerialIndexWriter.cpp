#include "recordings/SerialIndexWriter.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/AtomicFile.h"
#include "core/DateFormat.h"
#include "recordings/RecordingEntryJson.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

// The present index becomes the backup. A hard link does that without copying what may be
// hundreds of megabytes: the index is only ever replaced by rename, never rewritten in
// place, so the linked inode keeps the old bytes. Where links are refused, the bytes are
// copied.
Expected<void> keepBackup(const fs::path& index, const fs::path& backup, const std::string* present) {
    const fs::path temporary = backup.string() + ".link";
    ::unlink(temporary.c_str());
    if (::link(index.c_str(), temporary.c_str()) == 0) {
        if (::rename(temporary.c_str(), backup.c_str()) == 0) return {};
        ::unlink(temporary.c_str());
    }
    if (present) return writeFileAtomically(backup, *present);
    auto bytes = readWholeFile(index);
    if (!bytes) return bytes.error();
    return writeFileAtomically(backup, *bytes);
}

// Appends the elements inside the closing bracket of `data`, in place: the data can be
// hundreds of megabytes.
void appendElements(std::string& data, const std::vector<IndexElement>& elements) {
    if (elements.empty()) return;
    bool first = data.size() == 2;
    data.pop_back();
    for (const IndexElement& element : elements) {
        if (!first) data.push_back(',');
        data.append(element.json);
        first = false;
    }
    data.push_back(']');
}

bool stillUnknown(const IndexElement& e, const std::unordered_set<Uuid>& newIDs, const std::unordered_set<Uuid>& known) {
    return !e.id || (!newIDs.contains(*e.id) && !known.contains(*e.id));
}

}  // namespace

std::optional<fs::path> SerialIndexWriter::setAsideUnreadable(const fs::path& index) {
    struct stat st {};
    if (::stat(index.c_str(), &st) != 0) return std::nullopt;
    const std::string prefix = index.filename().string() + ".unreadable-";
    const fs::path folder = index.parent_path().empty() ? fs::path(".") : index.parent_path();
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        struct stat other {};
        if (it->path().filename().string().starts_with(prefix) && ::stat(it->path().c_str(), &other) == 0 &&
            other.st_dev == st.st_dev && other.st_ino == st.st_ino)
            return it->path();
    }
    const std::string stamp =
        formatDate(Date::fromUnixSeconds(double(st.st_mtim.tv_sec)), "yyyyMMdd-HHmmss", "UTC");
    for (int n = 0; n < 100; ++n) {
        fs::path aside = index;
        // Appended piece by piece: `"…" + std::string` makes GCC 12 report a false -Wrestrict
        // at -O2 and above (GCC bug 105329).
        std::string suffix = ".unreadable-";
        suffix.append(stamp);
        if (n) suffix.append("-").append(std::to_string(n));
        aside += suffix;
        if (::link(index.c_str(), aside.c_str()) == 0) return aside;
        if (errno == EEXIST) continue;
        auto bytes = readWholeFile(index);
        if (bytes && !fs::exists(aside, ec) && writeFileAtomically(aside, *bytes)) return aside;
        return std::nullopt;
    }
    return std::nullopt;
}

std::optional<std::string> SerialIndexWriter::carryingOverUnknownEntries(std::string_view newData,
                                                                         const std::unordered_set<Uuid>& newIDs,
                                                                         std::string_view file,
                                                                         const std::unordered_set<Uuid>& knownIDs) {
    if (newData.size() < 2 || newData.front() != '[' || newData.back() != ']') return std::nullopt;
    auto kept = unknownIndexElements(file, newIDs, knownIDs);
    if (!kept || kept->empty()) return std::nullopt;
    std::string out(newData);
    appendElements(out, *kept);
    return out;
}

std::optional<SerialIndexWriter::FileIdentity> SerialIndexWriter::identify(const fs::path& file) {
    struct stat st {};
    if (::stat(file.c_str(), &st) != 0) return std::nullopt;
    FileIdentity id;
    id.device = st.st_dev;
    id.inode = st.st_ino;
    id.size = std::uintmax_t(st.st_size);
    id.modifiedNanoseconds = std::int64_t(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec;
    return id;
}

void SerialIndexWriter::rememberLoadedIndex(const FileIdentity& file, std::vector<IndexElement> unreadable) {
    std::lock_guard<std::mutex> guard(lock_);
    lastWritten_ = Written{file, std::move(unreadable)};
}

Expected<bool> SerialIndexWriter::write(const std::vector<RecordingEntry>& entries,
                                        const std::unordered_set<Uuid>& filedLogs, std::uint64_t generation,
                                        const fs::path& indexFile, const std::unordered_set<Uuid>& knownIDs) {
    std::lock_guard<std::mutex> guard(lock_);
    if (lastWrittenGeneration_ >= generation) return false;
    lastWrittenGeneration_ = generation;

    std::unordered_set<Uuid> newIDs;
    newIDs.reserve(entries.size());
    for (const RecordingEntry& e : entries) newIDs.insert(e.id);

    // What the present file holds that this build does not write. When the file is still
    // the one this writer left or loaded, that is what it carried then; otherwise the file
    // is read.
    std::vector<IndexElement> carried;
    const std::optional<FileIdentity> present = identify(indexFile);
    std::optional<std::string> presentBytes;
    bool backupWanted = false;
    if (present && lastWritten_ && *present == lastWritten_->file) {
        for (const IndexElement& e : lastWritten_->carried)
            if (stillUnknown(e, newIDs, knownIDs)) carried.push_back(e);
        backupWanted = present->size > 0;
    } else if (present) {
        // Nothing this build cannot read is written over before it is kept.
        auto bytes = readWholeFile(indexFile);
        std::optional<std::vector<IndexElement>> kept;
        if (bytes) {
            presentBytes = std::move(*bytes);
            kept = unknownIndexElements(*presentBytes, newIDs, knownIDs);
        }
        const bool empty = presentBytes && presentBytes->empty();
        if (kept) carried = std::move(*kept);
        else if (!empty && !setAsideUnreadable(indexFile))
            return Error{"recording_index_write_failed",
                         "无法保留读不出来的 " + indexFile.filename().string() + "，未保存"};
        backupWanted = !empty;
    }
    const EncodedIndex data = encodeRecordingIndex(entries, &filedLogs, carried);

    if (backupWanted) {
        fs::path backup = indexFile;
        backup += ".bak";
        if (auto kept = keepBackup(indexFile, backup, presentBytes ? &*presentBytes : nullptr); !kept)
            return Error{"recording_index_write_failed", kept.error().message};
    }
    if (auto written = writeFileAtomically(indexFile, data.pieces()); !written)
        return Error{"recording_index_write_failed", written.error().message};
    lastWritten_.reset();
    if (auto written = identify(indexFile)) lastWritten_ = Written{*written, std::move(carried)};
    return true;
}

std::uint64_t SerialIndexWriter::lastWrittenGeneration() const {
    std::lock_guard<std::mutex> guard(lock_);
    return lastWrittenGeneration_;
}

}  // namespace osv
