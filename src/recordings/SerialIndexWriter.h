#pragma once

// Writes the index so that nothing this build cannot read is ever destroyed, and an older
// snapshot never overwrites a newer one whatever order the writes run in.

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "core/Expected.h"
#include "recordings/RecordingEntryJson.h"

namespace osv {

// Any thread; writes are serialised by the lock.
class SerialIndexWriter {
public:
    // Under the lock: skips (returns false) when generation `generation` or a newer one is
    // already on disk; otherwise encodes `entries` in the index's form (`filedLogs`: the
    // ids whose logs are filed), carries over what the present file holds that this build
    // does not write, keeps the present file as "<index>.bak" and replaces the index
    // atomically (returns true). A present file that cannot be read, or is no JSON array,
    // is set aside first. A failed backup or set-aside aborts the save and leaves the index
    // as it was. Error code "recording_index_write_failed".
    Expected<bool> write(const std::vector<RecordingEntry>& entries, const std::unordered_set<Uuid>& filedLogs,
                         std::uint64_t generation, const std::filesystem::path& indexFile,
                         const std::unordered_set<Uuid>& knownIDs);

    // `newData` (the encoded snapshot, whose ids are `newIDs`) followed by the elements of
    // the present file that are neither in it nor known to this run: entries this build
    // could not read, and entries of another copy of the program. None when nothing is to
    // be kept or the file is no JSON array (the new data then stands).
    static std::optional<std::string> carryingOverUnknownEntries(std::string_view newData,
                                                                 const std::unordered_set<Uuid>& newIDs,
                                                                 std::string_view file,
                                                                 const std::unordered_set<Uuid>& knownIDs);

    // Which file an index is: a save that finds the file it wrote or loaded last need not
    // read it again.
    struct FileIdentity {
        std::uintmax_t device = 0, inode = 0, size = 0;
        std::int64_t modifiedNanoseconds = 0;
        bool operator==(const FileIdentity&) const = default;
    };
    static std::optional<FileIdentity> identify(const std::filesystem::path& file);
    // The index as loaded (`file` is what identify() said before it was read) and the
    // elements of it this build could not read, which every save carries over.
    void rememberLoadedIndex(const FileIdentity& file, std::vector<IndexElement> unreadable);

    std::uint64_t lastWrittenGeneration() const;

    // Keeps an index this build cannot read under a name no save ever writes,
    // "<index>.unreadable-<its modification time>", as a hard link (a copy where links are
    // refused). The backup alone would not do: the save after next overwrites it. A file
    // already kept so is not kept twice. None when it could not be kept.
    static std::optional<std::filesystem::path> setAsideUnreadable(const std::filesystem::path& index);

private:
    // The index as this writer last left it (or loaded it). While the file on disk is still
    // that one, its elements are known without reading it: the entries written and what
    // was carried.
    struct Written {
        FileIdentity file;
        std::vector<IndexElement> carried;
    };

    mutable std::mutex lock_;
    std::uint64_t lastWrittenGeneration_ = 0;
    std::optional<Written> lastWritten_;
};

}  // namespace osv
