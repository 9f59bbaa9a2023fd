#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "LogBuilder.h"
#include "core/AtomicFile.h"
#include "core/Json.h"
#include "transcript/TranscriptEventJson.h"
#include "transcript/TranscriptJournal.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using namespace osv::testing;

class Journal : public ::testing::Test {
protected:
    void SetUp() override { dir = fs::temp_directory_path() / ("osv-journal-" + Uuid::random().text()); }
    void TearDown() override { fs::remove_all(dir); }

    static TranscriptEventLog sampleLog(int count) {
        LogBuilder b;
        for (int i = 0; i < count; ++i) b.source(i % 2 ? kSystem : kMic, i, "字" + std::to_string(i));
        return b.log;
    }
    fs::path dir;
};

TEST_F(Journal, RecordsEachEventOnceAndAppendsWhenReopened) {
    const Uuid id = Uuid::random();
    const TranscriptEventLog log = sampleLog(5);
    TranscriptEventLog firstPart;
    firstPart.events.assign(log.events.begin(), log.events.begin() + 3);
    {
        TranscriptJournal journal(id, dir);
        ASSERT_TRUE(journal.isOpen());
        journal.record(firstPart);
        journal.record(firstPart);  // nothing new: nothing written
        EXPECT_EQ(journal.written(), 3u);
    }
    {
        TranscriptJournal resumed(id, dir);
        TranscriptEventLog rest;
        rest.events.assign(log.events.begin() + 3, log.events.end());
        resumed.record(rest);
    }
    const auto recovered = TranscriptJournal::recover(dir / (id.text() + ".jsonl"));
    ASSERT_TRUE(recovered);
    EXPECT_EQ(recovered->recordingID, id);
    EXPECT_EQ(recovered->log, log);
    EXPECT_EQ(TranscriptJournal::abandoned(dir), (std::vector<fs::path>{dir / (id.text() + ".jsonl")}));

    TranscriptJournal again(id, dir);
    again.discard();
    EXPECT_TRUE(TranscriptJournal::abandoned(dir).empty());
}

// A real writer killed with SIGKILL while it writes: every complete line comes back, and a
// journal reopened after it keeps its new lines whole even after a cut-off one.
TEST_F(Journal, AWriterKilledMidWriteLosesNoCompleteLine) {
    const Uuid id = Uuid::random();
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(ready[0]);
        Uuid::DeterministicSequence ids;
        TranscriptJournal journal(id, dir);
        TranscriptEventLog log;
        for (int batch = 0;; ++batch) {
            for (int i = 0; i < 2000; ++i)
                log.append(TranscriptEvent{Uuid::random(), Date(batch * 2000 + i), Date(batch), kSystem,
                                           TranscriptEvent::SourceDelta{std::string(40, 'x')}});
            journal.record(log);
            if (::write(ready[1], "b", 1) != 1) ::_exit(1);
        }
    }
    ::close(ready[1]);
    char c;
    for (int batches = 0; batches < 3; ++batches) ASSERT_EQ(::read(ready[0], &c, 1), 1);
    ::kill(child, SIGKILL);  // most likely in the middle of the fourth batch
    int status = 0;
    ::waitpid(child, &status, 0);
    ::close(ready[0]);
    ASSERT_TRUE(WIFSIGNALED(status));

    const fs::path url = dir / (id.text() + ".jsonl");
    const std::string bytes = readWholeFile(url).value();
    const std::size_t completeLines = std::size_t(std::count(bytes.begin(), bytes.end(), '\n'));
    const auto recovered = TranscriptJournal::recover(url);
    ASSERT_TRUE(recovered);
    ASSERT_EQ(recovered->log.size(), completeLines);
    EXPECT_GE(completeLines, 6000u);
    for (std::size_t i = 0; i < completeLines; i += 997)  // in order, none missing
        EXPECT_EQ(recovered->log.events[i].at, Date(double(i)));

    {
        TranscriptJournal resumed(id, dir);
        resumed.record(sampleLog(2));
    }
    const auto after = TranscriptJournal::recover(url);
    ASSERT_TRUE(after);
    EXPECT_EQ(after->log.size(), completeLines + 2);
}

TEST_F(Journal, ReopeningAfterACutOffLineStartsOnALineOfItsOwn) {
    const Uuid id = Uuid::random();
    const TranscriptEventLog old = sampleLog(2);
    const std::string cut = encodeEventLine(sampleLog(3).events[2]).substr(0, 25);
    ASSERT_TRUE(writeFileAtomically(dir / (id.text() + ".jsonl"), encodeJsonLines(old) + cut));
    {
        TranscriptJournal resumed(id, dir);
        resumed.record(sampleLog(1));
    }
    const auto recovered = TranscriptJournal::recover(dir / (id.text() + ".jsonl"));
    ASSERT_TRUE(recovered);
    ASSERT_EQ(recovered->log.size(), 3u);
    EXPECT_EQ(recovered->log.events[2], sampleLog(1).events[0]);
}

// The file size limit stands in for a full disk: it cuts a write in the middle of a line.
TEST_F(Journal, AFailedWriteIsToldOnceAndItsEventsArriveLater) {
    const Uuid id = Uuid::random();
    std::vector<OpenAIDebugLog> problems;
    const TranscriptEventLog log = sampleLog(6);
    TranscriptEventLog firstPart;
    firstPart.events.assign(log.events.begin(), log.events.begin() + 2);
    TranscriptJournal journal(id, dir, [&](const OpenAIDebugLog& p) { problems.push_back(p); });
    journal.record(firstPart);
    const auto size = fs::file_size(journal.path());

    struct rlimit old {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    const auto previous = ::signal(SIGXFSZ, SIG_IGN);
    struct rlimit tight = old;
    tight.rlim_cur = size + 30;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
    journal.record(log);
    journal.record(log);
    ::setrlimit(RLIMIT_FSIZE, &old);
    ::signal(SIGXFSZ, previous);

    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].code, "journal_write_failed");
    EXPECT_EQ(problems[0].level, DebugEvent::Level::warning);
    EXPECT_EQ(journal.written(), 2u);
    journal.record(log);
    EXPECT_EQ(journal.written(), 6u);
    EXPECT_EQ(problems.size(), 1u);
    const auto recovered = TranscriptJournal::recover(journal.path());
    ASSERT_TRUE(recovered);
    EXPECT_EQ(recovered->log.events, log.events);
}

TEST_F(Journal, AJournalThatCanNotOpenSaysSoOnce) {
    ASSERT_TRUE(writeFileAtomically(dir / "not-a-folder", ""));
    std::vector<OpenAIDebugLog> problems;
    TranscriptJournal journal(Uuid::random(), dir / "not-a-folder", [&](const OpenAIDebugLog& p) { problems.push_back(p); });
    EXPECT_FALSE(journal.isOpen());
    journal.record(sampleLog(2));
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].code, "journal_open_failed");
    EXPECT_EQ(journal.written(), 0u);
}

TEST_F(Journal, RecoverNeedsAUuidNameAndSomethingReadable) {
    ASSERT_TRUE(writeFileAtomically(dir / "notes.jsonl", encodeJsonLines(sampleLog(2))));
    EXPECT_FALSE(TranscriptJournal::recover(dir / "notes.jsonl"));
    const fs::path garbage = dir / (Uuid::random().text() + ".jsonl");
    ASSERT_TRUE(writeFileAtomically(garbage, "not json\n{\"id\":"));
    EXPECT_FALSE(TranscriptJournal::recover(garbage));
    EXPECT_FALSE(TranscriptJournal::recover(dir / (Uuid::random().text() + ".jsonl")));
    EXPECT_TRUE(TranscriptJournal::abandoned(dir / "missing").empty());
}

TEST_F(Journal, LogStoreSavesAtomicallyAndNothingForAnEmptyLog) {
    const Uuid id = Uuid::random();
    ASSERT_TRUE(TranscriptLogStore::save(TranscriptEventLog{}, id, dir));
    EXPECT_FALSE(fs::exists(dir / (id.text() + ".jsonl")));
    ASSERT_TRUE(TranscriptLogStore::save(sampleLog(3), id, dir));
    EXPECT_EQ(TranscriptLogStore::load(id, dir), std::optional(sampleLog(3)));
    TranscriptLogStore::remove(id, dir);
    EXPECT_FALSE(TranscriptLogStore::load(id, dir));
}

TEST(TranscriptSegmentJson, RoundTripsAndReadsForgivingly) {
    TranscriptSegment s;
    s.id = uuidNumber(7);
    s.sequence = 3;
    s.channel = kMic;
    s.startedAt = Date(712345678.25);
    s.sourceText = "好的";
    s.translatedText = "はい";
    s.status = TranscriptSegment::SegmentStatus::translating;
    s.finalLatencyMilliseconds = 1200;
    EXPECT_EQ(transcriptSegmentFromJson(toJson(s)).value(), s);
    EXPECT_EQ(json::dumpLine(toJson(s)).find("firstVisible"), std::string::npos);
    const auto forgiving = transcriptSegmentFromJson(*json::parse(
        R"({"id":"00000000-0000-0000-0000-000000000007","sequence":"x","status":"exploded","channel":"radio","startedAt":5})"));
    ASSERT_TRUE(forgiving);
    EXPECT_EQ(forgiving->sequence, 0);
    EXPECT_EQ(forgiving->status, TranscriptSegment::SegmentStatus::provisional);
    EXPECT_EQ(forgiving->channel, std::nullopt);
    EXPECT_EQ(forgiving->startedAt, Date(5));
    EXPECT_FALSE(transcriptSegmentFromJson(*json::parse(R"({"sequence":1})")));
}

}  // namespace
}  // namespace osv
