// A writer killed at random moments during repeated saves must always leave an index that
// decodes completely: the atomic write, the backup step and the carry-over together never
// expose a half-written file. And a writer killed during a live session, whose captions
// save only once a minute, loses nothing that its journal and the index do not restore.

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>
#include <thread>

#include "core/AtomicFile.h"
#include "core/ManualScheduler.h"
#include "recordings/RecordingEntryJson.h"
#include "recordings/RecordingLibrary.h"
#include "transcript/TranscriptJournal.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

constexpr int kKills = 200;
constexpr std::size_t kSeedEntries = 60;

RecordingEntry sampleEntry(int n) {
    RecordingEntry e = RecordingEntry::make(RecordingKind::live, RecordingStatus::complete, SessionLabel::interpret,
                                            AudioCaptureMode::mixed, RecognitionLanguage::automatic, Date(700000000.0 + n));
    for (int s = 1; s <= 12; ++s) {
        TranscriptSegment seg;
        seg.id = Uuid::random();
        seg.sequence = s;
        seg.startedAt = e.createdAt + s;
        seg.sourceText = "本日はお忙しいところありがとうございます。";
        seg.translatedText = "感谢您今天在百忙之中抽出时间。";
        e.segments.push_back(seg);
    }
    e.refreshDerivedText();
    return e;
}

// The child: opens the library as a launch does and saves changes as fast as it can.
[[noreturn]] void writeForever(const fs::path& dir, unsigned seed) {
    ManualScheduler scheduler(Date(800000000.0));
    RecordingLibrary::Options options;
    options.supportDirectory = dir;
    RecordingLibrary library(scheduler, options);
    library.loadRecordings();
    std::mt19937 random(seed);
    for (int n = 0;; ++n) {
        if (library.recordings().empty() || random() % 4 == 0) {
            library.insertRecording(sampleEntry(n));
        } else {
            const Uuid id = library.recordings()[random() % library.recordings().size()].id;
            library.renameRecording(id, "改名 " + std::to_string(n));
        }
        if (!library.persistRecordingsNow()) _exit(3);
    }
}

TEST(RecordingIndexCrash, AWriterKilledAtRandomMomentsAlwaysLeavesAReadableIndex) {
    const fs::path dir = fs::temp_directory_path() / ("osv-crash-" + Uuid::random().text());
    fs::create_directories(dir);
    {
        std::vector<RecordingEntry> seed;
        for (std::size_t i = 0; i < kSeedEntries; ++i) seed.push_back(sampleEntry(int(i)));
        // An element this build cannot read must survive every one of the kills too.
        std::string data = encodeRecordingEntries(seed);
        data.insert(data.size() - 1, ",{\"id\":\"not yet\",\"fromTheFuture\":true},7");
        FILE* f = std::fopen((dir / "recordings.json").c_str(), "wb");
        std::fwrite(data.data(), 1, data.size(), f);
        std::fclose(f);
    }

    std::mt19937 random(20261123);
    std::uniform_int_distribution<int> delayMicroseconds(0, 12000);
    std::size_t lastCount = kSeedEntries;
    for (int kill = 0; kill < kKills; ++kill) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) writeForever(dir, unsigned(kill));
        std::this_thread::sleep_for(std::chrono::microseconds(2000 + delayMicroseconds(random)));
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself, status " << status;

        auto bytes = readWholeFile(dir / "recordings.json");
        ASSERT_TRUE(bytes) << "kill " << kill;
        auto list = decodeRecordingEntryList(*bytes, Date(0));
        ASSERT_TRUE(list) << "kill " << kill << ": " << list.error().message;
        EXPECT_EQ(list->skippedCount, 1u) << "kill " << kill;  // the 7
        // The future entry decodes (with a derived id) and is never dropped or doubled.
        std::size_t future = 0;
        for (const auto& e : list->entries) future += e.unknownFields.size() == 1 && e.unknownFields[0].first == "fromTheFuture";
        ASSERT_EQ(future, 1u) << "kill " << kill;
        ASSERT_GE(list->entries.size(), lastCount) << "kill " << kill << ": entries were lost";
        lastCount = list->entries.size();
    }
    // Killed writes leave their temporary files: proof that kills landed inside writes.
    int interrupted = 0;
    for (const auto& f : fs::directory_iterator(dir)) interrupted += f.path().filename().string().starts_with(".recordings.json");
    std::printf("%d of %d kills interrupted a write\n", interrupted, kKills);
    EXPECT_GT(interrupted, kKills / 10);
    fs::remove_all(dir);
}

std::string captionText(std::size_t n) { return "第" + std::to_string(n) + "句。"; }

// The child: a live session over the library, as the controller runs one. Each caption
// reaches the journal first and then the entry on air, whose saves wait up to a minute;
// now and then another entry is renamed, which saves on the usual delay. Virtual time
// runs fast, so both kinds of save happen before the kill.
[[noreturn]] void liveSessionForever(const fs::path& dir, unsigned seed) {
    ManualScheduler scheduler(Date(800000000.0));
    RecordingLibrary::Options options;
    options.supportDirectory = dir;
    RecordingLibrary library(scheduler, options);
    library.loadRecordings();
    RecordingEntry live = RecordingEntry::make(RecordingKind::live, RecordingStatus::recording, SessionLabel::interpret,
                                               AudioCaptureMode::mixed, RecognitionLanguage::automatic, scheduler.now());
    // Forked children share the random state they inherited: the id must differ anyway.
    live.id = derivedRecordingID("live session " + std::to_string(::getpid()));
    library.insertRecording(live);
    if (!library.persistRecordingsNow()) _exit(3);  // the entry is on disk before anything is said
    library.setActiveRecordingID(live.id);
    TranscriptJournal journal(live.id, dir / "journals");
    TranscriptEventLog log;
    std::mt19937 random(seed);
    for (std::size_t n = 1;; ++n) {
        log.append(TranscriptEvent{Uuid::random(), scheduler.now(), std::nullopt, CaptureChannel::system,
                                   TranscriptEvent::SourceDelta{captionText(n)}});
        journal.record(log);
        library.updateRecording(live.id, true, [&](RecordingEntry& e) {
            TranscriptSegment s;
            s.id = log.events.back().id;
            s.sequence = int(n);
            s.startedAt = scheduler.now();
            s.sourceText = captionText(n);
            e.upsertSegmentInTimelineOrder(s);
            e.updatedAt = scheduler.now();
        });
        if (random() % 10 == 0) {
            const Uuid other = library.recordings()[1 + random() % (library.recordings().size() - 1)].id;
            library.renameRecording(other, "改名 " + std::to_string(n));
        }
        scheduler.advance(0.5);
    }
}

TEST(RecordingIndexCrash, AWriterKilledOnAirLosesNothingTheJournalAndTheIndexDoNotRestore) {
    const fs::path dir = fs::temp_directory_path() / ("osv-crash-live-" + Uuid::random().text());
    fs::create_directories(dir);
    {
        std::vector<RecordingEntry> seed;
        for (std::size_t i = 0; i < kSeedEntries; ++i) seed.push_back(sampleEntry(int(i)));
        ASSERT_TRUE(writeFileAtomically(dir / "recordings.json", encodeRecordingEntries(seed)));
    }
    std::mt19937 random(20261124);
    std::uniform_int_distribution<int> delayMicroseconds(0, 25000);
    std::size_t longestWait = 0, captionsInIndex = 0;
    for (int kill = 0; kill < kKills / 2; ++kill) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) liveSessionForever(dir, unsigned(kill));
        std::this_thread::sleep_for(std::chrono::microseconds(5000 + delayMicroseconds(random)));
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself, status " << status;

        auto list = decodeRecordingEntryList(*readWholeFile(dir / "recordings.json"), Date(0));
        ASSERT_TRUE(list) << "kill " << kill << ": " << list.error().message;
        ASSERT_EQ(list->skippedCount, 0u);
        // Every session's captions: the journal holds all of them in order, the index a
        // prefix of them, never one the journal lacks, and never more than a minute behind.
        for (const fs::path& journal : TranscriptJournal::abandoned(dir / "journals")) {
            auto recovered = TranscriptJournal::recover(journal);
            if (!recovered) continue;  // killed before its first caption
            auto entry = std::find_if(list->entries.begin(), list->entries.end(),
                                      [&](const RecordingEntry& e) { return e.id == recovered->recordingID; });
            ASSERT_NE(entry, list->entries.end()) << "kill " << kill << ": the session's entry is lost";
            entry->decodeTranscript();
            const auto& events = recovered->log.events;
            for (std::size_t i = 0; i < events.size(); ++i)
                ASSERT_EQ(std::get<TranscriptEvent::SourceDelta>(events[i].payload).text, captionText(i + 1));
            ASSERT_LE(entry->segments.size(), events.size()) << "kill " << kill;
            for (std::size_t i = 0; i < entry->segments.size(); ++i)
                ASSERT_EQ(entry->segments[i].sourceText, captionText(i + 1)) << "kill " << kill;
            longestWait = std::max(longestWait, events.size() - entry->segments.size());
            captionsInIndex += entry->segments.size();
            ASSERT_LE(events.size() - entry->segments.size(), 121u) << "kill " << kill;  // 60 s of captions, 2 a second
        }
    }
    std::printf("captions found in the index over all checks: %zu; most captions of a session only in its journal: %zu\n", captionsInIndex,
                longestWait);
    EXPECT_GT(captionsInIndex, 0u);  // the deferred saves did happen
    EXPECT_GT(longestWait, 4u);      // and captions did wait for them
    fs::remove_all(dir);
}

}  // namespace
}  // namespace osv
