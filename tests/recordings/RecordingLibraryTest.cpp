#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "core/AtomicFile.h"
#include "core/Json.h"
#include "core/ManualScheduler.h"
#include "recordings/RecordingEntryJson.h"
#include "recordings/RecordingLibrary.h"
#include "recordings/SerialIndexWriter.h"
#include "transcript/TranscriptJournal.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using json::Json;

TranscriptEventLog logOf(std::size_t deltas) {
    TranscriptEventLog log;
    for (std::size_t i = 0; i < deltas; ++i)
        log.append(TranscriptEvent{Uuid::random(), Date(double(i)), std::nullopt, CaptureChannel::system,
                                   TranscriptEvent::SourceDelta{"字"}});
    return log;
}

class RecordingLibraryTest : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(dir); }
    void TearDown() override { fs::remove_all(dir); }

    std::unique_ptr<RecordingLibrary> open(std::function<RecordingEntry()> preview = {}) {
        RecordingLibrary::Options options;
        options.supportDirectory = dir;
        options.previewRecording = std::move(preview);
        options.timeZone = "UTC";
        RecordingLibrary::Hooks hooks;
        hooks.debug = [this](DebugEvent e) { debugCodes.push_back(e.code.value_or(e.title)); };
        hooks.setLastError = [this](const std::string& text) { lastError = text; };
        auto library = std::make_unique<RecordingLibrary>(scheduler, options, hooks);
        library->loadRecordings();
        return library;
    }

    RecordingEntry entry(const std::string& title, double createdAt) {
        RecordingEntry e = RecordingEntry::make(RecordingKind::live, RecordingStatus::complete, SessionLabel::interpret,
                                                AudioCaptureMode::mixed, RecognitionLanguage::automatic, Date(createdAt));
        e.title = title;
        e.titleIsAuto = false;
        return e;
    }

    Json indexOnDisk() const { return *json::parse(*readWholeFile(dir / "recordings.json")); }

    fs::path dir = fs::temp_directory_path() / ("osv-library-" + Uuid::random().text());
    ManualScheduler scheduler{Date(800000000.0)};
    std::vector<std::string> debugCodes;
    std::optional<std::string> lastError;
};

TEST_F(RecordingLibraryTest, AnIndexWithUnreadableAndNewerPartsIsNeverMadeWorseBySaving) {
    const std::string original = R"([
        42,
        {"id":"11111111-1111-4111-8111-111111111111","title":"坏字段","createdAt":100,"duration":"abc","segmentCount":3},
        {"id":"22222222-2222-4222-8222-222222222222","title":"新版本","createdAt":200,"mood":{"score":0.9}}
    ])";
    ASSERT_TRUE(writeFileAtomically(dir / "recordings.json", original));
    auto library = open();
    ASSERT_EQ(library->recordings().size(), 2u);
    EXPECT_EQ(library->recordings()[0].title, "新版本");  // newest first
    EXPECT_EQ(library->recordings()[1].duration, 0.0);
    EXPECT_EQ(lastError, "有历史记录读不出来，已原样保留");
    EXPECT_EQ(debugCodes.back(), "recording_index_partial_decode");

    library->renameRecording(library->recordings()[1].id, "改过的标题");
    ASSERT_TRUE(library->persistRecordingsNow());
    Json saved = indexOnDisk();
    ASSERT_EQ(saved.size(), 3u);
    EXPECT_EQ(saved[0]["title"], "新版本");
    EXPECT_EQ(saved[0]["mood"]["score"], 0.9);
    EXPECT_EQ(saved[1]["title"], "改过的标题");
    EXPECT_EQ(saved[1]["segmentCount"], 3);
    EXPECT_EQ(saved[2], 42);  // the unreadable element, after the known entries
    EXPECT_EQ(*readWholeFile(dir / "recordings.json.bak"), original);

    // A later run reads its own file back the same, and its save keeps the element too.
    library = open();
    EXPECT_EQ(library->recordings().size(), 2u);
    ASSERT_TRUE(library->persistRecordingsNow());
    EXPECT_EQ(indexOnDisk(), saved);
}

TEST_F(RecordingLibraryTest, AnEntryWithoutAnIdIsNotCopiedOnEveryLoadAndSave) {
    ASSERT_TRUE(writeFileAtomically(dir / "recordings.json", R"([{"title":"旧版本的条目","createdAt":5}])"));
    for (int run = 0; run < 3; ++run) {
        auto library = open();
        ASSERT_EQ(library->recordings().size(), 1u);
        ASSERT_TRUE(library->persistRecordingsNow());
    }
    EXPECT_EQ(indexOnDisk().size(), 1u);
}

TEST_F(RecordingLibraryTest, DeletedEntriesAreNotResurrectedButAnotherCopysEntriesAreKept) {
    auto library = open();
    library->insertRecording(entry("甲", 1));
    library->insertRecording(entry("乙", 2));
    ASSERT_TRUE(library->persistRecordingsNow());
    const Uuid first = library->recordings()[1].id;

    // Another running copy of the program added an entry meanwhile.
    Json onDisk = indexOnDisk();
    onDisk.push_back(Json::parse(encodeRecordingEntries({entry("别处", 3)}))[0]);
    ASSERT_TRUE(writeFileAtomically(dir / "recordings.json", json::dumpLine(onDisk)));

    library->deleteRecording(first);
    Json saved = indexOnDisk();
    ASSERT_EQ(saved.size(), 2u);
    EXPECT_EQ(saved[0]["title"], "乙");
    EXPECT_EQ(saved[1]["title"], "别处");
}

TEST_F(RecordingLibraryTest, ChangesRideOnOneDebouncedBackgroundSave) {
    auto library = open();
    library->insertRecording(entry("甲", 1));
    const Uuid id = library->recordings()[0].id;
    library->updateRecording(id, true, [](RecordingEntry& e) { e.title = "一"; });
    scheduler.advance(1.5);
    library->updateRecording(id, true, [](RecordingEntry& e) { e.title = "二"; });  // rides along
    EXPECT_FALSE(fs::exists(dir / "recordings.json"));
    scheduler.advance(0.5);
    EXPECT_EQ(indexOnDisk()[0]["title"], "二");
    EXPECT_EQ(library->indexSaveGeneration(), 1u);
    EXPECT_FALSE(library->isSaveScheduled());

    library->updateRecording(id, true, [](RecordingEntry& e) { e.title = "三"; });
    library->updateRecording(Uuid::random(), true, [](RecordingEntry& e) { e.title = "无"; });  // unknown: nothing
    library.reset();  // gone before the timer: nothing runs, nothing crashes
    scheduler.advance(5);
    EXPECT_EQ(indexOnDisk()[0]["title"], "二");
}

TEST_F(RecordingLibraryTest, OnAirTheTranscriptAloneWaitsUpToAMinuteAndAnyOtherChangeDoesNot) {
    auto library = open();
    library->insertRecording(entry("别的", 1));
    library->insertRecording(entry("直播", 2));
    const Uuid other = library->recordings()[1].id, live = library->recordings()[0].id;
    ASSERT_TRUE(library->persistRecordingsNow());
    library->setActiveRecordingID(live);
    int sequence = 0;
    auto caption = [&] {
        library->updateRecording(live, true, [&](RecordingEntry& e) {
            TranscriptSegment s;
            s.id = Uuid::random();
            s.sequence = ++sequence;
            s.sourceText = "第" + std::to_string(sequence) + "句";
            e.upsertSegmentInTimelineOrder(s);
            e.updatedAt = scheduler.now();
        });
    };
    auto captionsOnDisk = [&] { return indexOnDisk()[0]["segments"].size(); };

    caption();
    scheduler.advance(30);
    caption();  // rides along
    scheduler.advance(29.5);
    EXPECT_EQ(captionsOnDisk(), 0u);
    scheduler.advance(0.5);
    EXPECT_EQ(captionsOnDisk(), 2u);  // a minute after the first

    // Any other change, even to the entry on air, saves on the usual delay and takes the
    // waiting transcript along.
    caption();
    scheduler.advance(10);
    library->renameRecording(other, "改名");
    scheduler.advance(2);
    EXPECT_EQ(captionsOnDisk(), 3u);
    EXPECT_EQ(indexOnDisk()[1]["title"], "改名");
    EXPECT_FALSE(library->isSaveScheduled());
    library->updateRecording(live, true, [](RecordingEntry& e) { e.status = RecordingStatus::transcribing; });
    scheduler.advance(2);
    EXPECT_EQ(indexOnDisk()[0]["status"], "transcribing");

    // A save at once is at once; going off air turns a waiting save into an ordinary one.
    caption();
    ASSERT_TRUE(library->persistRecordingsNow());
    EXPECT_EQ(captionsOnDisk(), 4u);
    EXPECT_FALSE(library->isSaveScheduled());
    caption();
    scheduler.advance(5);
    library->setActiveRecordingID(std::nullopt);
    scheduler.advance(2);
    EXPECT_EQ(captionsOnDisk(), 5u);
    caption();  // off air: the usual delay
    scheduler.advance(2);
    EXPECT_EQ(captionsOnDisk(), 6u);
}

TEST_F(RecordingLibraryTest, AnOlderSnapshotNeverOverwritesANewerOne) {
    SerialIndexWriter writer;
    const fs::path index = dir / "recordings.json";
    RecordingEntry e = entry("新", 1);
    ASSERT_TRUE(*writer.write({e}, {}, 2, index, {}));
    e.title = "旧";
    auto stale = writer.write({e}, {}, 1, index, {});  // the earlier save's task ran last
    ASSERT_TRUE(stale);
    EXPECT_FALSE(*stale);
    EXPECT_EQ(indexOnDisk()[0]["title"], "新");
    EXPECT_EQ(writer.lastWrittenGeneration(), 2u);
}

TEST_F(RecordingLibraryTest, AFailedBackupAbortsTheSaveAndLeavesTheIndex) {
    auto library = open();
    library->insertRecording(entry("甲", 1));
    ASSERT_TRUE(library->persistRecordingsNow());
    const std::string before = *readWholeFile(dir / "recordings.json");
    fs::remove(dir / "recordings.json.bak");
    fs::create_directories(dir / "recordings.json.bak" / "blocked");  // the backup cannot be written

    library->renameRecording(library->recordings()[0].id, "乙");
    EXPECT_FALSE(library->persistRecordingsNow());
    EXPECT_EQ(*readWholeFile(dir / "recordings.json"), before);
    EXPECT_EQ(debugCodes.back(), "recording_index_write_failed");
    EXPECT_TRUE(lastError->starts_with("历史记录保存失败，请尽快复制重要内容："));

    // The background save reports the same way, on the main thread.
    lastError.reset();
    library->saveRecordings();
    scheduler.runUntilIdle();
    EXPECT_TRUE(lastError.has_value());
    EXPECT_EQ(library->recordings()[0].title, "乙");  // memory stays as it was
}

TEST_F(RecordingLibraryTest, DeletionRemovesExactlyTheFilesOfItsEntry) {
    auto library = open();
    RecordingEntry gone = entry("删", 1), kept = entry("留", 2);
    gone.relativeAudioPath = "Recordings/" + gone.id.text() + ".m4a";
    kept.relativeAudioPath = "Recordings/" + kept.id.text() + ".m4a";
    library->insertRecording(gone);
    library->insertRecording(kept);
    library->select(gone.id);
    auto touch = [](const fs::path& p) {
        fs::create_directories(p.parent_path());
        ASSERT_TRUE(writeFileAtomically(p, "x"));
    };
    std::vector<fs::path> goneFiles, keptFiles;
    for (const RecordingEntry* e : {&gone, &kept}) {
        auto& files = e == &gone ? goneFiles : keptFiles;
        const std::string u = e->id.text();
        files = {dir / *e->relativeAudioPath, dir / "transcripts" / (u + ".jsonl"), dir / "replays" / (u + ".jsonl"),
                 dir / "replay-performance" / u / "performance.json", dir / "revalidations" / u / "input.json"};
        for (const auto& f : files) touch(f);
    }
    library->deleteRecording(gone.id);
    for (const auto& f : goneFiles) EXPECT_FALSE(fs::exists(f)) << f;
    EXPECT_FALSE(fs::exists(dir / "replay-performance" / gone.id.text()));
    EXPECT_FALSE(fs::exists(dir / "revalidations" / gone.id.text()));
    for (const auto& f : keptFiles) EXPECT_TRUE(fs::exists(f)) << f;
    EXPECT_EQ(library->selectedRecordingID(), kept.id);
    ASSERT_EQ(indexOnDisk().size(), 1u);
    EXPECT_EQ(debugCodes.back(), "删除录音记录");

    // A path that climbs out of the support directory is never followed.
    const fs::path outside = dir.parent_path() / ("osv-outside-" + kept.id.text());
    touch(outside);
    library->updateRecording(kept.id, false, [&](RecordingEntry& e) { e.relativeAudioPath = "../" + outside.filename().string(); });
    library->setActiveRecordingID(kept.id);
    library->deleteRecording(kept.id);  // refused: it is on air
    EXPECT_NE(library->recording(kept.id), nullptr);
    library->setActiveRecordingID(std::nullopt);
    library->deleteRecordings({kept.id});
    EXPECT_TRUE(fs::exists(outside));
    fs::remove(outside);
    EXPECT_TRUE(library->recordings().empty());
    EXPECT_EQ(library->selectedRecordingID(), std::nullopt);
}

TEST_F(RecordingLibraryTest, LogsAreFiledEightASaveAndTheSessionOnAirKeepsItsLogInline) {
    auto library = open();
    std::vector<Uuid> ids;
    for (int i = 0; i < 10; ++i) {
        RecordingEntry e = entry("条目", i);
        e.eventLog = logOf(3);
        ids.push_back(e.id);
        library->insertRecording(e);
    }
    library->setActiveRecordingID(ids[0]);
    ASSERT_TRUE(library->persistRecordingsNow());
    auto inlineCount = [&] {
        int n = 0;
        for (const Json& e : indexOnDisk()) n += e.contains("eventLog");
        return n;
    };
    EXPECT_EQ(inlineCount(), 2);  // the active one and the ninth changed log
    ASSERT_TRUE(library->persistRecordingsNow());
    EXPECT_EQ(inlineCount(), 1);
    for (std::size_t i = 1; i < ids.size(); ++i)
        EXPECT_TRUE(fs::exists(dir / "transcripts" / (ids[i].text() + ".jsonl")));
    EXPECT_FALSE(fs::exists(dir / "transcripts" / (ids[0].text() + ".jsonl")));

    // A filed log is read back on demand, and an unchanged one is not written again.
    library = open();
    EXPECT_EQ(library->recording(ids[5])->eventLog, std::nullopt);
    auto log = library->loadEventLog(ids[5]);
    ASSERT_TRUE(log);
    EXPECT_EQ(log->size(), 1u);  // compacted when filed
    fs::remove(dir / "transcripts" / (ids[5].text() + ".jsonl"));
    ASSERT_TRUE(library->persistRecordingsNow());
    EXPECT_FALSE(fs::exists(dir / "transcripts" / (ids[5].text() + ".jsonl")));
    EXPECT_EQ(library->loadEventLog(Uuid::random()), std::nullopt);
}

TEST_F(RecordingLibraryTest, StaleCrashNoticesAreSettledAgainstTheAudioOnDisk) {
    RecordingEntry withAudio = entry("有音频", 1), captionsOnly = entry("只有字幕", 2), nothing = entry("空", 3);
    withAudio.relativeAudioPath = "Recordings/a.m4a";
    withAudio.errorMessage = "同传音频尚未合并，稍后重试";
    captionsOnly.relativeAudioPath = "Recordings/missing.m4a";
    captionsOnly.errorMessage = "上次会话没有正常结束";
    captionsOnly.segmentCount = 4;
    nothing.errorMessage = "上次会话没有正常结束";
    fs::create_directories(dir / "Recordings");
    ASSERT_TRUE(writeFileAtomically(dir / "Recordings" / "a.m4a", "x"));
    ASSERT_TRUE(writeFileAtomically(dir / "recordings.json", encodeRecordingEntries({withAudio, captionsOnly, nothing})));
    auto library = open();
    EXPECT_EQ(library->recording(withAudio.id)->errorMessage, std::nullopt);
    EXPECT_EQ(library->recording(captionsOnly.id)->errorMessage, "上次会话没有正常结束，字幕已恢复；录音尚未恢复。");
    EXPECT_EQ(library->recording(nothing.id)->errorMessage, "上次会话没有正常结束");
    const Json saved = indexOnDisk();  // saved at once; newest first
    EXPECT_EQ(saved[2]["title"], "有音频");
    EXPECT_FALSE(saved[2].contains("errorMessage"));
}

TEST_F(RecordingLibraryTest, AnIndexThatCannotBeReadIsSetAsideBeforeAnySaveReplacesIt) {
    const std::string damaged = R"([{"title":"半截)";
    ASSERT_TRUE(writeFileAtomically(dir / "recordings.json", damaged));
    auto library = open();
    EXPECT_TRUE(library->recordings().empty());
    EXPECT_EQ(debugCodes.back(), "recording_index_decode_failed");
    EXPECT_EQ(*readWholeFile(dir / "recordings.json"), damaged);  // untouched by loading

    library->insertRecording(entry("新", 1));
    ASSERT_TRUE(library->persistRecordingsNow());
    ASSERT_TRUE(library->persistRecordingsNow());  // the backup now holds the first save
    bool setAside = false;
    for (const auto& f : fs::directory_iterator(dir))
        if (f.path().filename().string().starts_with("recordings.json.unreadable-"))
            setAside = *readWholeFile(f.path()) == damaged;
    EXPECT_TRUE(setAside);
}

std::vector<fs::path> setAsideFiles(const fs::path& dir) {
    std::vector<fs::path> out;
    for (const auto& f : fs::directory_iterator(dir))
        if (f.path().filename().string().starts_with("recordings.json.unreadable-")) out.push_back(f.path());
    return out;
}

TEST_F(RecordingLibraryTest, AnIndexDamagedAfterLoadingIsKeptBeforeASaveReplacesIt) {
    auto library = open();
    library->insertRecording(entry("甲", 1));
    ASSERT_TRUE(library->persistRecordingsNow());
    // Something else left a file this build cannot read in its place.
    const std::string damaged = "[{\"id\":\"11111111-1111-4111-8111-111111111111\",\"title\":";
    ASSERT_TRUE(writeFileAtomically(dir / "recordings.json", damaged));
    library->renameRecording(library->recordings()[0].id, "乙");
    ASSERT_TRUE(library->persistRecordingsNow());
    ASSERT_TRUE(library->persistRecordingsNow());
    ASSERT_TRUE(library->persistRecordingsNow());  // the backup no longer holds it
    const auto kept = setAsideFiles(dir);
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(*readWholeFile(kept[0]), damaged);
    EXPECT_EQ(indexOnDisk()[0]["title"], "乙");
}

// Runs `f` in a child process that cannot read files it has no permission for (as root,
// that takes another user, who then owns the folder and, with `ownIndex`, the index too);
// the child's exit status is what `f` returns.
int asUnprivileged(const fs::path& dir, bool ownIndex, const std::function<int()>& f) {
    const pid_t child = fork();
    if (child == 0) {
        if (geteuid() == 0) {
            if (::chown(dir.c_str(), 65534, 65534) != 0) _exit(100);
            if (ownIndex && ::chown((dir / "recordings.json").c_str(), 65534, 65534) != 0) _exit(100);
            if (::setgid(65534) != 0 || ::setuid(65534) != 0) _exit(100);
        }
        _exit(f());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 101;
}

TEST_F(RecordingLibraryTest, AnIndexThatCannotBeReadIsNeverReplacedWithoutBeingKept) {
    const std::string original = encodeRecordingEntries({entry("读不到", 1)});
    auto saveNew = [&] {
        SerialIndexWriter writer;
        auto written = writer.write({entry("新", 2)}, {}, 1, dir / "recordings.json", {});
        if (written && *written) return 0;
        return !written && written.error().code == "recording_index_write_failed" ? 1 : 2;
    };
    ASSERT_TRUE(writeFileAtomically(dir / "recordings.json", original));
    ::chmod((dir / "recordings.json").c_str(), 0);
    // Its owner can still link a file it cannot read: it is kept, then replaced.
    ASSERT_EQ(asUnprivileged(dir, true, saveNew), 0);
    const auto kept = setAsideFiles(dir);
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(*readWholeFile(kept[0]), original);
    EXPECT_EQ(indexOnDisk()[0]["title"], "新");

    // Another user's file can be neither read nor linked (protected hard links): the save
    // fails and the file stays.
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make a file of another user";
    fs::remove(kept[0]);
    ASSERT_TRUE(writeFileAtomically(dir / "recordings.json", original));
    ::chmod((dir / "recordings.json").c_str(), 0);
    EXPECT_EQ(asUnprivileged(dir, false, saveNew), 1);
    EXPECT_EQ(*readWholeFile(dir / "recordings.json"), original);
    EXPECT_TRUE(setAsideFiles(dir).empty());
}

TEST_F(RecordingLibraryTest, FilesAreDeletedOnlyAfterTheIndexWithoutTheEntryIsSaved) {
    auto library = open();
    RecordingEntry gone = entry("删", 1);
    gone.relativeAudioPath = "Recordings/" + gone.id.text() + ".m4a";
    library->insertRecording(gone);
    ASSERT_TRUE(library->persistRecordingsNow());
    ASSERT_TRUE(writeFileAtomically(dir / *gone.relativeAudioPath, "audio"));
    fs::remove(dir / "recordings.json.bak");
    fs::create_directories(dir / "recordings.json.bak" / "blocked");  // the save will fail

    EXPECT_FALSE(library->deleteRecording(gone.id));
    EXPECT_TRUE(fs::exists(dir / *gone.relativeAudioPath));
    ASSERT_NE(library->recording(gone.id), nullptr);  // still listed, as the index still holds it
    EXPECT_EQ(indexOnDisk().size(), 1u);

    fs::remove_all(dir / "recordings.json.bak");
    EXPECT_TRUE(library->deleteRecording(gone.id));
    EXPECT_FALSE(fs::exists(dir / *gone.relativeAudioPath));
    EXPECT_EQ(indexOnDisk().size(), 0u);
}

TEST_F(RecordingLibraryTest, ThePreviewShowsItsEntryAndTouchesNoFile) {
    RecordingEntry sample = entry("示例", 1);
    auto library = open([&] { return sample; });
    ASSERT_EQ(library->recordings().size(), 1u);
    EXPECT_EQ(library->selectedRecordingID(), sample.id);
    EXPECT_TRUE(library->persistRecordingsNow());
    library->renameRecording(sample.id, "改名");
    library->deleteRecording(sample.id);
    scheduler.advance(10);
    EXPECT_TRUE(fs::is_empty(dir));
}

}  // namespace
}  // namespace osv
