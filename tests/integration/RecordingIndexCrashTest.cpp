// A writer killed at random moments during repeated saves must always leave an index that
// decodes completely: the atomic write, the backup step and the carry-over together never
// expose a half-written file.

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <thread>

#include "core/AtomicFile.h"
#include "core/ManualScheduler.h"
#include "recordings/RecordingEntryJson.h"
#include "recordings/RecordingLibrary.h"

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

}  // namespace
}  // namespace osv
