#include "recordings/RecordingLibrary.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <unistd.h>

#include "core/AtomicFile.h"
#include "core/DateFormat.h"
#include "recordings/RecordingEntryJson.h"
#include "recordings/SerialIndexWriter.h"
#include "transcript/TranscriptJournal.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLogsFiledPerPass = 8;
constexpr std::string_view kInterruptedNotice = "上次会话没有正常结束";
constexpr std::string_view kUnmergedNotice = "同传音频尚未合并";
constexpr std::string_view kCaptionsOnlyNotice = "上次会话没有正常结束，字幕已恢复；录音尚未恢复。";

bool startsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

double finiteOrZero(double v) { return std::isfinite(v) ? v : 0.0; }

// Temporary files of index writes that a killed process left behind; each can be as large
// as the index. Only old ones go: a fresh one may belong to another running copy.
void sweepAbandonedTemporaries(const LibraryPaths& paths) {
    constexpr auto kAbandonedAfter = std::chrono::minutes(10);
    const std::string index = paths.index().filename().string();
    const auto now = fs::file_time_type::clock::now();
    std::error_code ec;
    for (fs::directory_iterator it(paths.root, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        const bool temporary = name.starts_with("." + index + ".tmp-") || name.starts_with("." + index + ".bak.tmp-") ||
                               name == index + ".bak.link";
        if (!temporary) continue;
        std::error_code timeError;
        const auto modified = fs::last_write_time(it->path(), timeError);
        if (!timeError && now - modified > kAbandonedAfter) fs::remove(it->path(), timeError);
    }
}

}  // namespace

RecordingLibrary::RecordingLibrary(Scheduler& scheduler, Options options, Hooks hooks, Recovery recovery)
    : scheduler_(scheduler),
      options_(std::move(options)),
      hooks_(std::move(hooks)),
      recovery_(std::move(recovery)),
      paths_{options_.supportDirectory},
      indexWriter_(std::make_shared<SerialIndexWriter>()) {}

RecordingLibrary::~RecordingLibrary() = default;

RecordingEntry* RecordingLibrary::find(const Uuid& id) {
    auto it = std::find_if(recordings_.begin(), recordings_.end(), [&](const RecordingEntry& e) { return e.id == id; });
    return it == recordings_.end() ? nullptr : &*it;
}

const RecordingEntry* RecordingLibrary::recording(const Uuid& id) const {
    // Decoding on first use changes how the entry is held, not what it is.
    RecordingEntry* e = const_cast<RecordingLibrary*>(this)->find(id);
    if (e) e->decodeTranscript();
    return e;
}

const RecordingEntry* RecordingLibrary::selectedRecording() const {
    return selectedRecordingID_ ? recording(*selectedRecordingID_) : nullptr;
}

void RecordingLibrary::select(const std::optional<Uuid>& id) {
    selectedRecordingID_ = id;
    if (hooks_.setLatestSummary) {
        const RecordingEntry* e = selectedRecording();
        hooks_.setLatestSummary(e ? e->summary : std::nullopt);
    }
    if (hooks_.refreshCaptionColumns) hooks_.refreshCaptionColumns();
}

void RecordingLibrary::debug(DebugEvent::Level level, std::string title, std::string details,
                             std::optional<std::string> code) {
    if (!hooks_.debug) return;
    hooks_.debug(DebugEvent{Uuid::random(), scheduler_.now(), level, DebugEvent::Category::app, std::move(title),
                            std::move(details), std::move(code)});
}

void RecordingLibrary::loadRecordings() {
    // 1. The preview shows its one entry and reads nothing.
    if (isPreview()) {
        recordings_ = {options_.previewRecording()};
        select(recordings_.front().id);
        return;
    }
    // 2.
    paths_.ensureLibraryDirectories();
    sweepAbandonedTemporaries(paths_);
    if (recovery_.adoptTranscriptsFromLogDirectory) recovery_.adoptTranscriptsFromLogDirectory(*this);

    // 3. A missing index is a first launch; an unreadable one is reported and kept.
    std::vector<RecordingEntry> entries;
    std::size_t skipped = 0;
    const auto identity = SerialIndexWriter::identify(paths_.index());
    // Mapped, not copied: the entries keep their transcripts as this text until first use,
    // and the index is only ever replaced by rename, never rewritten in place.
    auto mapped = MappedFile::map(paths_.index());
    Expected<LossyRecordingEntryList> decoded =
        mapped ? decodeRecordingEntryList((*mapped)->bytes(), *mapped, scheduler_.now())
               : Expected<LossyRecordingEntryList>(mapped.error());
    if (decoded) {
        entries = std::move(decoded->entries);
        skipped = decoded->skippedCount;
        // The first save need not read the file again to know what to carry over, unless it
        // changed while it was read.
        if (identity && identity == SerialIndexWriter::identify(paths_.index()))
            indexWriter_->rememberLoadedIndex(*identity, std::move(decoded->unreadable));
    } else if (decoded.error().code != "file_missing") {
        const auto aside = SerialIndexWriter::setAsideUnreadable(paths_.index());
        if (hooks_.setLastError) hooks_.setLastError("读取历史记录失败：" + decoded.error().message);
        debug(DebugEvent::Level::error, "读取历史记录失败",
              decoded.error().message + (aside ? "\n原文件另存为 " + aside->filename().string() : std::string()),
              "recording_index_decode_failed");
    }

    // 4.
    if (recovery_.settleInterruptedRecordings) {
        // The sessions it settles are those cut off while recording; they are used whole.
        for (RecordingEntry& e : entries)
            if (e.status == RecordingStatus::recording) e.decodeTranscript();
        recovery_.settleInterruptedRecordings(entries);
    }
    relabelPlaceholderTitles(entries, options_.timeZone);
    std::stable_sort(entries.begin(), entries.end(),
                     [](const RecordingEntry& a, const RecordingEntry& b) { return a.createdAt > b.createdAt; });
    recordings_ = std::move(entries);

    // 5.
    knownRecordingIDs_.clear();
    for (const RecordingEntry& e : recordings_) knownRecordingIDs_.insert(e.id);

    // 6.
    reconcileStaleCrashNotices();

    // 7.
    select(recordings_.empty() ? std::nullopt : std::optional<Uuid>(recordings_.front().id));

    // 8.
    if (skipped > 0) {
        if (hooks_.setLastError) hooks_.setLastError("有历史记录读不出来，已原样保留");
        debug(DebugEvent::Level::warning, "有历史记录读不出来，已原样保留",
              "skipped: " + std::to_string(skipped) + "，备份见 recordings.json.bak", "recording_index_partial_decode");
    }

    // 9.
    if (recovery_.recoverAbandonedSessions) recovery_.recoverAbandonedSessions(*this);
    if (recovery_.recoverUnmergedLiveAudio) recovery_.recoverUnmergedLiveAudio(*this);
    if (recovery_.adoptOrphanedAudio) recovery_.adoptOrphanedAudio(*this);
}

void RecordingLibrary::reconcileStaleCrashNotices() {
    bool changed = false;
    for (RecordingEntry& e : recordings_) {
        if (!e.errorMessage || !(startsWith(*e.errorMessage, kInterruptedNotice) || startsWith(*e.errorMessage, kUnmergedNotice)))
            continue;
        std::error_code ec;
        const auto audio = e.relativeAudioPath ? paths_.resolve(*e.relativeAudioPath) : std::nullopt;
        if (audio && fs::exists(*audio, ec)) {
            e.errorMessage.reset();
            changed = true;
        } else if (e.segmentCount > 0 && *e.errorMessage != kCaptionsOnlyNotice) {
            e.errorMessage = std::string(kCaptionsOnlyNotice);
            changed = true;
        }
    }
    if (changed) persistRecordingsNow();
}

void RecordingLibrary::insertRecording(RecordingEntry entry) { recordings_.insert(recordings_.begin(), std::move(entry)); }

namespace {

// Everything of an entry but its transcript (segments, the text derived from them, and
// the time of the change), to tell a change of the transcript alone from any other.
struct BesidesTranscript {
    RecordingEntry rest;
    std::optional<std::size_t> logSize;

    explicit BesidesTranscript(RecordingEntry& e) {
        std::vector<TranscriptSegment> segments;
        std::string source, translation;
        std::optional<TranscriptEventLog> log;
        segments.swap(e.segments);
        source.swap(e.sourceText);
        translation.swap(e.translatedText);
        log.swap(e.eventLog);
        rest = e;  // cheap without the bulky parts
        segments.swap(e.segments);
        source.swap(e.sourceText);
        translation.swap(e.translatedText);
        log.swap(e.eventLog);
        if (e.eventLog) logSize = e.eventLog->size();
        rest.segmentCount = 0;
        rest.updatedAt = Date();
    }
    bool operator==(const BesidesTranscript&) const = default;
};

}  // namespace

void RecordingLibrary::updateRecording(const Uuid& id, bool persist, const std::function<void(RecordingEntry&)>& mutate) {
    RecordingEntry* e = find(id);
    if (!e) return;
    e->decodeTranscript();
    std::optional<BesidesTranscript> before;
    if (persist && id == activeRecordingID_) before.emplace(*e);
    mutate(*e);
    if (e->mode == SessionLabel::record && selectedRecordingID_ == id && hooks_.dropCaptionCache)
        hooks_.dropCaptionCache(id);
    if (hooks_.refreshCaptionColumns) hooks_.refreshCaptionColumns();
    if (!persist) return;
    // The journal holds the transcript of the session on air as it happens, so saving it
    // can wait; anything else cannot.
    if (before && *before == BesidesTranscript(*e)) scheduleOnAirTranscriptSave();
    else scheduleSaveRecordings();
}

void RecordingLibrary::setActiveRecordingID(const std::optional<Uuid>& id) {
    activeRecordingID_ = id;
    // Off air, a waiting transcript saves as any change does.
    if (!id && pendingTranscriptSaveTask_.isPending()) {
        pendingTranscriptSaveTask_.cancel();
        scheduleSaveRecordings();
    }
}

void RecordingLibrary::scheduleOnAirTranscriptSave() {
    if (pendingSaveTask_.isPending() || pendingTranscriptSaveTask_.isPending()) return;
    pendingTranscriptSaveTask_ = scheduler_.after(options_.onAirTranscriptSaveDelaySeconds, [this, guard = lifetime_.guard()] {
        if (guard.expired()) return;
        saveRecordings();
    });
}

void RecordingLibrary::renameRecording(const Uuid& id, std::string_view to) {
    const Date now = scheduler_.now();
    updateRecording(id, true, [&](RecordingEntry& e) {
        e.title = std::string(to);
        e.titleIsAuto = false;
        e.updatedAt = now;
    });
}

void RecordingLibrary::setSelectedFeedback(RecordingFeedback feedback) {
    if (!selectedRecordingID_) return;
    const Uuid id = *selectedRecordingID_;
    updateRecording(id, true, [&](RecordingEntry& e) { e.feedback = feedback; });
    debug(DebugEvent::Level::info, "记录反馈", "recording: " + id.text() + "\nfeedback: " + std::string(rawValue(feedback)),
          std::nullopt);
}

void RecordingLibrary::scheduleSaveRecordings() {
    if (pendingSaveTask_.isPending()) return;
    pendingSaveTask_ = scheduler_.after(options_.saveDelaySeconds, [this, guard = lifetime_.guard()] {
        if (guard.expired()) return;
        saveRecordings();
    });
}

RecordingLibrary::Prepared RecordingLibrary::prepareSave() {
    paths_.ensureLibraryDirectories();
    Prepared p;
    p.filedLogs = flushChangedLogs();
    for (const RecordingEntry& e : recordings_) knownRecordingIDs_.insert(e.id);
    p.known = knownRecordingIDs_;
    p.generation = ++indexSaveGeneration_;
    return p;
}

void RecordingLibrary::saveRecordings() {
    pendingSaveTask_.cancel();
    pendingTranscriptSaveTask_.cancel();
    if (isPreview()) return;
    auto prepared = std::make_shared<Prepared>(prepareSave());
    // The background write sees a copy: the list goes on changing here.
    auto entries = std::make_shared<const std::vector<RecordingEntry>>(recordings_);
    scheduler_.runInBackground([writer = indexWriter_, prepared, entries, index = paths_.index(), scheduler = &scheduler_,
                                this, guard = lifetime_.guard()] {
        auto result = writer->write(*entries, prepared->filedLogs, prepared->generation, index, prepared->known);
        if (result) return;
        scheduler->post([this, guard, text = result.error().message] {
            if (!guard.expired()) reportIndexWriteFailure(text);
        });
    });
}

bool RecordingLibrary::persistRecordingsNow() {
    if (isPreview()) return true;
    pendingSaveTask_.cancel();
    pendingTranscriptSaveTask_.cancel();
    Prepared p = prepareSave();
    auto result = indexWriter_->write(recordings_, p.filedLogs, p.generation, paths_.index(), p.known);
    if (!result) {
        reportIndexWriteFailure(result.error().message);
        return false;
    }
    return true;
}

void RecordingLibrary::reportIndexWriteFailure(const std::string& text) {
    if (hooks_.setLastError) hooks_.setLastError("历史记录保存失败，请尽快复制重要内容：" + text);
    debug(DebugEvent::Level::error, "保存历史记录失败", text, "recording_index_write_failed");
}

std::vector<RecordingEntry> RecordingLibrary::indexSnapshot() {
    const std::unordered_set<Uuid> flushed = flushChangedLogs();
    std::vector<RecordingEntry> snapshot;
    snapshot.reserve(recordings_.size());
    for (const RecordingEntry& e : recordings_) {
        RecordingEntry& copy = snapshot.emplace_back(e);
        copy.decodeTranscript();
        if (copy.eventLog) {
            if (flushed.contains(copy.id)) copy.eventLog.reset();
            else copy.eventLog = copy.eventLog->compacted();
        }
        copy.duration = finiteOrZero(copy.duration);
        copy.peakLevel = finiteOrZero(copy.peakLevel);
        copy.averageLevel = finiteOrZero(copy.averageLevel);
    }
    return snapshot;
}

std::unordered_set<Uuid> RecordingLibrary::flushChangedLogs() {
    std::unordered_set<Uuid> flushed;
    std::size_t filed = 0;
    for (const RecordingEntry& e : recordings_) {
        if (!e.eventLog || e.id == activeRecordingID_) continue;
        auto count = persistedLogEventCounts_.find(e.id);
        if (count != persistedLogEventCounts_.end() && count->second == e.eventLog->size()) {
            flushed.insert(e.id);
            continue;
        }
        if (filed >= kLogsFiledPerPass) continue;  // the next save files it
        if (TranscriptLogStore::save(e.eventLog->compacted(), e.id, paths_.transcripts())) {
            persistedLogEventCounts_[e.id] = e.eventLog->size();
            flushed.insert(e.id);
            ++filed;
        }
    }
    return flushed;
}

bool RecordingLibrary::fileSessionLog(const Uuid& id, const TranscriptEventLog& log, const TranscriptEventLog* replayLog) {
    if (isPreview()) return true;
    bool ok = true;
    if (auto saved = TranscriptLogStore::save(log.compacted(), id, paths_.transcripts()); saved) {
        persistedLogEventCounts_[id] = log.size();
    } else {
        ok = false;
        debug(DebugEvent::Level::error, "同传记录未能归档", saved.error().message, "transcript_log_store_failed");
    }
    if (replayLog) {
        if (auto saved = TranscriptLogStore::save(*replayLog, id, paths_.replays()); !saved) {
            ok = false;
            debug(DebugEvent::Level::error, "回放事件未能归档", saved.error().message, "replay_log_store_failed");
        }
    }
    return ok;
}

std::optional<TranscriptEventLog> RecordingLibrary::loadEventLog(const Uuid& id) {
    RecordingEntry* e = find(id);
    if (!e) return std::nullopt;
    if (e->eventLog) return e->eventLog;
    auto log = TranscriptLogStore::load(id, paths_.transcripts());
    if (!log) return std::nullopt;
    e->eventLog = *log;
    persistedLogEventCounts_[id] = log->size();
    return log;
}

void RecordingLibrary::removeFilesOf(const RecordingEntry& e) {
    std::error_code ec;
    if (e.relativeAudioPath)
        if (auto audio = paths_.resolve(*e.relativeAudioPath)) fs::remove(*audio, ec);
    TranscriptLogStore::remove(e.id, paths_.transcripts());
    TranscriptLogStore::remove(e.id, paths_.replays());
    fs::remove_all(paths_.replayPerformance() / e.id.text(), ec);
    fs::remove_all(paths_.revalidations() / e.id.text(), ec);
    if (hooks_.forgetReplayPerformance) hooks_.forgetReplayPerformance(e.id);
}

bool RecordingLibrary::deleteRecording(const Uuid& id) { return deleteRecordings({id}); }

bool RecordingLibrary::deleteRecordings(const std::vector<Uuid>& ids) {
    // The entries leave the list and the index first; their files go only once the index
    // without them is on disk, so a failed save loses nothing.
    struct Removed {
        std::size_t position;
        RecordingEntry entry;
        std::optional<std::size_t> loggedCount;
    };
    std::vector<Removed> removed;
    for (const Uuid& id : ids) {
        if (id == activeRecordingID_) continue;
        auto it = std::find_if(recordings_.begin(), recordings_.end(), [&](const RecordingEntry& e) { return e.id == id; });
        if (it == recordings_.end()) continue;
        if (selectedRecordingID_ == id && hooks_.stopPlaybackIfLoaded) hooks_.stopPlaybackIfLoaded(id);
        Removed r{std::size_t(it - recordings_.begin()), std::move(*it), std::nullopt};
        if (auto count = persistedLogEventCounts_.find(id); count != persistedLogEventCounts_.end()) {
            r.loggedCount = count->second;
            persistedLogEventCounts_.erase(count);
        }
        recordings_.erase(it);
        removed.push_back(std::move(r));
    }
    if (removed.empty()) return false;
    if (!persistRecordingsNow()) {
        for (auto r = removed.rbegin(); r != removed.rend(); ++r) {
            if (r->loggedCount) persistedLogEventCounts_[r->entry.id] = *r->loggedCount;
            recordings_.insert(recordings_.begin() + std::ptrdiff_t(r->position), std::move(r->entry));
        }
        if (hooks_.refreshCaptionColumns) hooks_.refreshCaptionColumns();
        return false;
    }
    bool selectionGone = false;
    for (const Removed& r : removed) {
        if (!isPreview()) removeFilesOf(r.entry);
        selectionGone = selectionGone || selectedRecordingID_ == r.entry.id;
    }
    if (selectionGone) {
        select(recordings_.empty() ? std::nullopt : std::optional<Uuid>(recordings_.front().id));
        if (hooks_.clearSuggestion) hooks_.clearSuggestion();
    } else if (hooks_.refreshCaptionColumns) {
        hooks_.refreshCaptionColumns();
    }
    if (ids.size() == 1) debug(DebugEvent::Level::info, "删除录音记录", ids.front().text(), std::nullopt);
    else debug(DebugEvent::Level::info, "批量删除录音", "count: " + std::to_string(removed.size()), std::nullopt);
    return true;
}

std::optional<std::string> RecordingLibrary::selectedTranscriptMarkdown() const {
    const RecordingEntry* e = selectedRecording();
    if (!e) return std::nullopt;
    return transcriptMarkdown(*e, options_.timeZone);
}

}  // namespace osv
