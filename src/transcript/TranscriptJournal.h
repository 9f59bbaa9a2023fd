#pragma once

// The files of a session's transcript. The journal is the append-only JSON Lines file of
// the session on air: every event reaches it within one main-thread step, so a crash loses
// nothing that was said. The log store holds the compacted log of a finished session.

#include <filesystem>
#include <functional>
#include <optional>
#include <vector>

#include "core/Expected.h"
#include "core/Uuid.h"
#include "metering/DebugEvent.h"
#include "transcript/TranscriptEvent.h"

namespace osv {

// Main thread; one per session on air. Best effort: a journal that can't be opened or
// written never stalls the session, but says so once through `onProblem` (a warning with
// code "journal_open_failed" or "journal_write_failed"), not at every event.
class TranscriptJournal {
public:
    using ProblemHandler = std::function<void(const OpenAIDebugLog&)>;

    // Opens "{recordingID}.jsonl" in `directory` (both created if needed) for appending: a
    // resumed recording continues the same file.
    TranscriptJournal(const Uuid& recordingID, const std::filesystem::path& directory,
                      ProblemHandler onProblem = {});
    ~TranscriptJournal();
    TranscriptJournal(const TranscriptJournal&) = delete;
    TranscriptJournal& operator=(const TranscriptJournal&) = delete;

    bool isOpen() const { return fd_ >= 0; }
    const std::filesystem::path& path() const { return path_; }
    const Uuid& recordingID() const { return recordingID_; }
    std::size_t written() const { return written_; }

    // Writes the events of `log` from `written` on, in one write. `written` counts the
    // events whose lines reached the file whole; the rest are tried again at the next call.
    void record(const TranscriptEventLog& log);
    void close();
    // Closes and deletes the file.
    void discard();

    struct Recovered {
        Uuid recordingID;
        TranscriptEventLog log;
    };
    // The log of a journal left behind; lines that don't decode (the cut-off last line of a
    // killed process) are skipped. None when the name is no UUID, the file can't be read
    // or no event decodes.
    static std::optional<Recovered> recover(const std::filesystem::path& file);
    // The journals in `directory`: sessions that never finished.
    static std::vector<std::filesystem::path> abandoned(const std::filesystem::path& directory);

private:
    void report(std::string code, std::string title, std::string details);

    std::filesystem::path path_;
    Uuid recordingID_;
    ProblemHandler onProblem_;
    int fd_ = -1;
    std::size_t written_ = 0;
    bool endsMidLine_ = false;  // a failed write left part of a line behind
    bool reported_ = false;
};

// The compacted logs of finished recordings, "{recordingID}.jsonl", written atomically.
namespace TranscriptLogStore {
// Nothing to do (and no file) for an empty log.
Expected<void> save(const TranscriptEventLog& log, const Uuid& recordingID, const std::filesystem::path& directory);
std::optional<TranscriptEventLog> load(const Uuid& recordingID, const std::filesystem::path& directory);
// ("delete", which C++ reserves.)
void remove(const Uuid& recordingID, const std::filesystem::path& directory);
}  // namespace TranscriptLogStore

}  // namespace osv
