#pragma once

// The stored recordings: the in-memory list (newest first) and the index on disk. Every
// change goes through updateRecording; saves are debounced and run in the background,
// serialised by generation, and never destroy what this build cannot read.
//
// Thread contract: every member is called on the main thread. Only the index write runs
// in the background, on a value snapshot; its failure comes back through the scheduler
// and is dropped if the library is gone.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "core/Scheduler.h"
#include "metering/DebugEvent.h"
#include "recordings/LibraryPaths.h"
#include "recordings/RecordingEntry.h"

namespace osv {

class SerialIndexWriter;

class RecordingLibrary {
public:
    // What the rest of the controller does around the index. Every hook is optional.
    struct Hooks {
        std::function<void(DebugEvent)> debug;
        std::function<void(const std::string&)> setLastError;
        std::function<void()> refreshCaptionColumns;
        std::function<void(const Uuid&)> dropCaptionCache;        // a selected "record" entry changed
        std::function<void(const Uuid&)> stopPlaybackIfLoaded;    // before its audio is deleted
        std::function<void(const Uuid&)> forgetReplayPerformance;  // the in-memory replay cache
        std::function<void()> clearSuggestion;
        std::function<void(const std::optional<SessionSummary>&)> setLatestSummary;
    };

    // The crash-recovery steps of loading, each run at its place when set.
    struct Recovery {
        // Before the index is read: logs left in transcripts/ by an older build.
        std::function<void(RecordingLibrary&)> adoptTranscriptsFromLogDirectory;
        // On the decoded entries, before they are stored: sessions cut off while running.
        std::function<void(std::vector<RecordingEntry>&)> settleInterruptedRecordings;
        // Last: abandoned journals, unmerged live audio, orphaned audio files, in that order.
        std::function<void(RecordingLibrary&)> recoverAbandonedSessions;
        std::function<void(RecordingLibrary&)> recoverUnmergedLiveAudio;
        std::function<void(RecordingLibrary&)> adoptOrphanedAudio;
    };

    struct Options {
        std::filesystem::path supportDirectory;
        // The preview: the one entry it makes is all there is, and nothing touches the disk.
        std::function<RecordingEntry()> previewRecording;
        std::string timeZone;  // empty: the user's own
        double saveDelaySeconds = 2.0;
        double onAirTranscriptSaveDelaySeconds = 60.0;
    };

    RecordingLibrary(Scheduler& scheduler, Options options, Hooks hooks = {}, Recovery recovery = {});
    ~RecordingLibrary();
    RecordingLibrary(const RecordingLibrary&) = delete;
    RecordingLibrary& operator=(const RecordingLibrary&) = delete;

    const LibraryPaths& paths() const { return paths_; }
    bool isPreview() const { return bool(options_.previewRecording); }

    // The list, newest first. Entries not used yet may hold their transcript encoded
    // (RecordingEntry::isTranscriptDecoded); every other field is there. recording(id)
    // gives the entry whole.
    const std::vector<RecordingEntry>& recordings() const { return recordings_; }
    // The entry with its transcript decoded (on first use).
    const RecordingEntry* recording(const Uuid& id) const;
    const std::optional<Uuid>& selectedRecordingID() const { return selectedRecordingID_; }
    const RecordingEntry* selectedRecording() const;
    void select(const std::optional<Uuid>& id);
    // The session on air, set at its start and cleared at its end: its log stays inline
    // (that is what makes it recoverable) and it cannot be deleted. While it is set, a
    // change through updateRecording that touches nothing of that entry but its transcript
    // (segments, sourceText, translatedText, segmentCount, updatedAt) may wait up to
    // `onAirTranscriptSaveDelaySeconds` to be saved, since the journal already holds it;
    // any other change saves on the usual delay and takes the transcript along.
    // persistRecordingsNow() still writes at once. Clearing it turns a waiting save into
    // an ordinary one.
    void setActiveRecordingID(const std::optional<Uuid>& id);
    const std::optional<Uuid>& activeRecordingID() const { return activeRecordingID_; }

    // Step by step as at launch; see the .cpp. Called once, before any session starts.
    void loadRecordings();
    // A new entry goes to the top of the list; it is saved with the next save.
    void insertRecording(RecordingEntry entry);

    // The one mutator. Does nothing for an unknown id. Callers that change visible fields
    // set updatedAt inside `mutate`.
    void updateRecording(const Uuid& id, bool persist, const std::function<void(RecordingEntry&)>& mutate);
    void renameRecording(const Uuid& id, std::string_view to);
    void setSelectedFeedback(RecordingFeedback feedback);

    // The first request arms a save in `saveDelaySeconds`; later ones ride along.
    void scheduleSaveRecordings();
    bool isSaveScheduled() const { return pendingSaveTask_.isPending() || pendingTranscriptSaveTask_.isPending(); }
    // Snapshot now, write in the background.
    void saveRecordings();
    // Snapshot and write now, on this thread; true when the index holds this state (or a
    // newer one). For where nothing may be lost: before deleting files, at quit, at the end
    // of a session.
    bool persistRecordingsNow();

    // What a save writes: logs filed where possible, the rest compacted inline, every
    // transcript decoded. (Saves encode the list in this form directly, without the copy
    // and without decoding: over a long history this copy is costly.)
    std::vector<RecordingEntry> indexSnapshot();
    // Files the changed inline logs under transcripts/, at most 8 a pass, never the active
    // session's; returns the ids whose logs are on disk as they stand in memory.
    std::unordered_set<Uuid> flushChangedLogs();
    // Files a finished session's log: compacted, under transcripts/; and when given, the
    // uncompacted log with arrival times under replays/.
    bool fileSessionLog(const Uuid& id, const TranscriptEventLog& log, const TranscriptEventLog* replayLog = nullptr);
    // The entry's log: inline, or read from transcripts/ (and kept in the entry, unsaved).
    std::optional<TranscriptEventLog> loadEventLog(const Uuid& id);

    // Removes the entries from the list, saves the index at once, and only then deletes
    // every file they own. Refused for the session on air. False when nothing was deleted;
    // when the save fails, the entries are back in the list and every file is kept.
    bool deleteRecording(const Uuid& id);
    bool deleteRecordings(const std::vector<Uuid>& ids);

    // The selected entry as Markdown; none without a selection.
    std::optional<std::string> selectedTranscriptMarkdown() const;

    std::uint64_t indexSaveGeneration() const { return indexSaveGeneration_; }
    const std::unordered_set<Uuid>& knownRecordingIDs() const { return knownRecordingIDs_; }

private:
    struct Prepared {
        std::unordered_set<Uuid> filedLogs;
        std::unordered_set<Uuid> known;
        std::uint64_t generation = 0;
    };
    Prepared prepareSave();
    void reportIndexWriteFailure(const std::string& text);
    void scheduleOnAirTranscriptSave();
    void debug(DebugEvent::Level level, std::string title, std::string details, std::optional<std::string> code);
    void removeFilesOf(const RecordingEntry& entry);
    void reconcileStaleCrashNotices();
    RecordingEntry* find(const Uuid& id);

    Scheduler& scheduler_;
    Options options_;
    Hooks hooks_;
    Recovery recovery_;
    LibraryPaths paths_;
    std::shared_ptr<SerialIndexWriter> indexWriter_;

    std::vector<RecordingEntry> recordings_;
    std::optional<Uuid> selectedRecordingID_;
    std::optional<Uuid> activeRecordingID_;
    TimerHandle pendingSaveTask_;
    TimerHandle pendingTranscriptSaveTask_;  // the session on air's transcript alone changed
    std::uint64_t indexSaveGeneration_ = 0;
    std::unordered_set<Uuid> knownRecordingIDs_;
    std::map<Uuid, std::size_t> persistedLogEventCounts_;
    Lifetime lifetime_;
};

}  // namespace osv
