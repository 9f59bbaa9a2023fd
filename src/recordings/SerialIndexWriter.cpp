#include "recordings/SerialIndexWriter.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/AtomicFile.h"
#include "recordings/RecordingEntryJson.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

// The present index becomes the backup. A hard link does that without copying what may be
// hundreds of megabytes: the index is only ever replaced by rename, never rewritten in
// place, so the linked inode keeps the old bytes. Where links are refused, the bytes are
// copied.
Expected<void> keepBackup(const fs::path& index, const fs::path& backup, const IndexBytes& present) {
    const fs::path temporary = backup.string() + ".link";
    ::unlink(temporary.c_str());
    if (::link(index.c_str(), temporary.c_str()) == 0) {
        if (::rename(temporary.c_str(), backup.c_str()) == 0) return {};
        ::unlink(temporary.c_str());
    }
    return writeFileAtomically(backup, present.view());
}

}  // namespace

std::optional<std::string> SerialIndexWriter::carryingOverUnknownEntries(std::string_view newData,
                                                                         const std::unordered_set<Uuid>& newIDs,
                                                                         const IndexBytes& file,
                                                                         const std::unordered_set<Uuid>& knownIDs) {
    if (newData.size() < 2 || newData.front() != '[' || newData.back() != ']') return std::nullopt;
    auto kept = unknownIndexElements(file, newIDs, knownIDs);
    if (!kept) return std::nullopt;
    std::string out(newData.substr(0, newData.size() - 1));
    bool first = newData.size() == 2;
    for (const std::string& element : *kept) {
        if (!first) out.push_back(',');
        out.append(element);
        first = false;
    }
    out.push_back(']');
    return out;
}

Expected<bool> SerialIndexWriter::write(const std::vector<RecordingEntry>& snapshot, std::uint64_t generation,
                                        const fs::path& indexFile, const std::unordered_set<Uuid>& knownIDs) {
    std::lock_guard<std::mutex> guard(lock_);
    if (lastWrittenGeneration_ >= generation) return false;
    lastWrittenGeneration_ = generation;

    std::string data = encodeRecordingEntries(snapshot);
    auto present = IndexBytes::read(indexFile);
    if (present) {
        std::unordered_set<Uuid> newIDs;
        newIDs.reserve(snapshot.size());
        for (const RecordingEntry& e : snapshot) newIDs.insert(e.id);
        if (auto carried = carryingOverUnknownEntries(data, newIDs, *present, knownIDs)) data = std::move(*carried);
        if (!present->view().empty()) {
            fs::path backup = indexFile;
            backup += ".bak";
            if (auto kept = keepBackup(indexFile, backup, *present); !kept)
                return Error{"recording_index_write_failed", kept.error().message};
        }
    }
    if (auto written = writeFileAtomically(indexFile, data); !written)
        return Error{"recording_index_write_failed", written.error().message};
    return true;
}

std::uint64_t SerialIndexWriter::lastWrittenGeneration() const {
    std::lock_guard<std::mutex> guard(lock_);
    return lastWrittenGeneration_;
}

}  // namespace osv
