#pragma once

// Where a library's files live, all below one support directory:
//   recordings.json, recordings.json.bak   the index and the index before the last save
//   Recordings/                            audio: <UUID>.<ext>, <UUID>-chunk-<UUID>.<ext>
//   transcripts/<UUID>.jsonl               the compacted event log of a finished recording
//   replays/<UUID>.jsonl                   the uncompacted log with arrival times
//   replay-performance/<UUID>/             replay's record and the coach's speech audio
//   revalidations/<UUID>/                  history revalidation
//   journals/                              write-ahead journals of unfinished sessions
//   logs/session-yyyy-MM-dd.log            plain session logs

#include <filesystem>
#include <optional>
#include <string_view>

#include "core/Uuid.h"

namespace osv {

struct LibraryPaths {
    std::filesystem::path root;

    std::filesystem::path index() const { return root / "recordings.json"; }
    std::filesystem::path indexBackup() const { return root / "recordings.json.bak"; }
    std::filesystem::path audio() const { return root / "Recordings"; }
    std::filesystem::path transcripts() const { return root / "transcripts"; }
    std::filesystem::path replays() const { return root / "replays"; }
    std::filesystem::path replayPerformance() const { return root / "replay-performance"; }
    std::filesystem::path revalidations() const { return root / "revalidations"; }
    std::filesystem::path journals() const { return root / "journals"; }
    std::filesystem::path logs() const { return root / "logs"; }

    // Creates Recordings/ and transcripts/ with their parents; failures are left for the
    // write that needs the folder to report.
    void ensureLibraryDirectories() const;

    // The file a stored relative path names, only when it stays below the support
    // directory: a damaged or hostile index must never make deletion reach elsewhere.
    std::optional<std::filesystem::path> resolve(std::string_view relativePath) const;
};

}  // namespace osv
