// Entries are read with their transcripts left encoded, and saves write those back as they
// were read. Nothing downstream may be able to tell: over random histories (written the
// way this build writes them, or by hand, or by anything else) and random changes, a save
// is byte for byte what encoding every entry in full writes.

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <random>

#include "core/AtomicFile.h"
#include "core/Json.h"
#include "core/ManualScheduler.h"
#include "recordings/RecordingEntryJson.h"
#include "recordings/RecordingLibrary.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using Random = std::mt19937;

const Date kNow(800000000.0);

int pick(Random& r, int n) { return int(r() % unsigned(n)); }

std::string randomText(Random& r) {
    static const char* pieces[] = {"本日は", "感谢", " ", "\n", "\t", "\"引号\"", "\\", "\x01", "\x1f", "😀", "a",
                                   "ｶﾀｶﾅ", "\xC3(", "\xED\xA0\x80", "/", "\x7f", "。", "  留白  "};
    std::string s;
    const int n = pick(r, 6);
    for (int i = 0; i < n; ++i) s += pieces[pick(r, int(std::size(pieces)))];
    return s;
}

double randomNumber(Random& r) {
    static const double values[] = {0, -0.0, 1, 0.1, 17.25, 1e-7, 3e-5, 1e15, 1e16, 1e300, 1.0 / 3, -2.5,
                                    700000000.123456789, NAN, INFINITY};
    return values[pick(r, int(std::size(values)))];
}

TranscriptSegment randomSegment(Random& r, int sequence) {
    TranscriptSegment s;
    s.id = Uuid::random();
    s.sequence = pick(r, 5) == 0 ? pick(r, 3) : sequence;  // sometimes out of order, or repeated
    if (pick(r, 3)) s.channel = pick(r, 2) ? CaptureChannel::system : CaptureChannel::microphone;
    s.startedAt = Date(pick(r, 4) ? 700000000.0 + sequence * 1.5 : randomNumber(r));
    s.sourceText = randomText(r);
    s.translatedText = randomText(r);
    s.status = TranscriptSegment::SegmentStatus(pick(r, 6));
    if (pick(r, 2)) s.firstVisibleLatencyMilliseconds = pick(r, 3) ? 640 : -7;
    if (pick(r, 2)) s.finalLatencyMilliseconds = 1900;
    return s;
}

RecordingEntry randomEntry(Random& r) {
    RecordingEntry e = RecordingEntry::make(pick(r, 2) ? RecordingKind::live : RecordingKind::manual,
                                            RecordingStatus(pick(r, 6)), SessionLabel(pick(r, 4)),
                                            AudioCaptureMode(pick(r, 3)), RecognitionLanguage(pick(r, 3)),
                                            Date(700000000.0 + pick(r, 100000)));
    if (pick(r, 3) == 0) e.title = randomText(r), e.titleIsAuto = pick(r, 2);
    e.duration = randomNumber(r);
    e.byteSize = pick(r, 4) ? 14000000 : -3;
    if (pick(r, 2)) e.relativeAudioPath = "Recordings/" + e.id.text() + ".m4a";
    const int segments = pick(r, 4) == 0 ? 0 : pick(r, 12);
    for (int i = 0; i < segments; ++i) e.segments.push_back(randomSegment(r, i + 1));
    if (pick(r, 2)) e.refreshDerivedText();  // otherwise texts and list disagree, as old files may
    else e.sourceText = randomText(r);
    e.segmentCount = pick(r, 3) ? std::int64_t(e.segments.size()) : pick(r, 30);
    if (pick(r, 4) == 0) e.summary = SessionSummary{randomText(r), {{"题", {"点"}}}, {"做"}, kNow, 3};
    e.peakLevel = randomNumber(r);
    e.averageLevel = pick(r, 2) ? 0.125 : -1;
    if (pick(r, 4) == 0) e.errorMessage = randomText(r);
    e.feedback = RecordingFeedback(pick(r, 3));
    if (pick(r, 3) == 0) e.usage.add(UsageTally::Kind::refine, true, 100, 20, std::string("gpt-5-mini"));
    return e;
}

// One element of an index as someone may have written it: as this build writes it, or
// pretty-printed by another tool, or with its segments listed in another order.
std::string elementText(Random& r, const RecordingEntry& e) {
    std::string text = encodeRecordingEntries({e});
    text = text.substr(1, text.size() - 2);
    switch (pick(r, 6)) {
        case 0: return json::dumpPretty(*json::parse(text));
        case 1: {
            json::Json j = *json::parse(text);
            json::Json reordered = json::Json::object();
            reordered["segments"] = j["segments"];
            for (auto& [k, v] : j.items()) reordered[k] = v;
            if (pick(r, 2)) reordered["futureField"] = {{"x", 1.5}};
            return json::dumpLine(reordered);
        }
        case 2: {
            const auto at = text.find("\"segments\":");
            if (at != std::string::npos) text.insert(at + 11, " ");
            return text;
        }
        default: return text;
    }
}

std::string randomIndex(Random& r, std::vector<std::string>& elements) {
    const int n = pick(r, 15);
    for (int i = 0; i < n; ++i) elements.push_back(pick(r, 12) == 0 ? std::string("42") : elementText(r, randomEntry(r)));
    std::string file = "[";
    for (std::size_t i = 0; i < elements.size(); ++i) file += (i ? (pick(r, 2) ? ",\n " : ",") : "") + elements[i];
    return file + "]";
}

std::string fullEncoding(const std::vector<RecordingEntry>& entries, const std::vector<std::string>& carried) {
    std::vector<RecordingEntry> decoded = entries;
    for (RecordingEntry& e : decoded) e.decodeTranscript();
    const std::unordered_set<Uuid> noneFiled;
    std::string out = encodeRecordingEntries(decoded, &noneFiled);
    for (const std::string& c : carried) out.insert(out.size() - 1, (out.size() > 2 ? "," : "") + c);
    return out;
}

TEST(IndexIncrementalSave, AnEntryKeptEncodedDecodesToWhatAFullReadGives) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        Random r(seed);
        std::vector<std::string> elements;
        const std::string file = randomIndex(r, elements);
        auto lazy = decodeRecordingEntryList(file, kNow);
        ASSERT_TRUE(lazy) << file;
        std::size_t entry = 0;
        for (const std::string& element : elements) {
            auto full = decodeRecordingEntry(element, kNow);
            if (!full) continue;
            ASSERT_LT(entry, lazy->entries.size());
            const RecordingEntry& kept = lazy->entries[entry++];
            EXPECT_EQ(encodeRecordingEntries({kept}), encodeRecordingEntries({*full})) << "seed " << seed;
            EXPECT_EQ(kept.withDecodedTranscript(), *full) << "seed " << seed << "\n" << element;
        }
        EXPECT_EQ(entry, lazy->entries.size());
        EXPECT_EQ(lazy->skippedCount, elements.size() - entry);
    }
}

TEST(IndexIncrementalSave, EverySaveIsByteForByteWhatAFullEncodeWrites) {
    const fs::path dir = fs::temp_directory_path() / ("osv-incremental-" + Uuid::random().text());
    std::size_t keptEncoded = 0, saves = 0;
    for (unsigned seed = 0; seed < 60; ++seed) {
        fs::remove_all(dir);
        fs::create_directories(dir);
        Random r(1000 + seed);
        std::vector<std::string> elements;
        ASSERT_TRUE(writeFileAtomically(dir / "recordings.json", randomIndex(r, elements)));
        std::vector<std::string> carried;
        for (const std::string& e : elements)
            if (e == "42") carried.push_back(e);

        ManualScheduler scheduler(kNow);
        RecordingLibrary::Options options;
        options.supportDirectory = dir;
        options.timeZone = "UTC";
        RecordingLibrary library(scheduler, options);
        library.loadRecordings();
        for (int round = 0; round < 6; ++round) {
            for (int change = pick(r, 4); change > 0; --change) {
                const auto& list = library.recordings();
                const std::optional<Uuid> some =
                    list.empty() ? std::nullopt : std::optional<Uuid>(list[std::size_t(pick(r, int(list.size())))].id);
                switch (pick(r, 8)) {
                    case 0: library.insertRecording(randomEntry(r)); break;
                    case 1: if (some) library.renameRecording(*some, randomText(r)); break;
                    case 2: if (some) library.deleteRecording(*some); break;
                    case 3: if (some) (void)library.recording(*some); break;  // used, not changed
                    case 4:
                        if (some)
                            library.updateRecording(*some, true, [&](RecordingEntry& e) {
                                e.upsertSegmentInTimelineOrder(randomSegment(r, int(e.segments.size()) + 1));
                            });
                        break;
                    case 5:
                        if (some) library.updateRecording(*some, true, [&](RecordingEntry& e) { e.duration = randomNumber(r); });
                        break;
                    case 6: library.setActiveRecordingID(some); break;
                    default: scheduler.advance(pick(r, 90)); break;
                }
            }
            ASSERT_TRUE(library.persistRecordingsNow());
            ++saves;
            for (const RecordingEntry& e : library.recordings()) keptEncoded += !e.isTranscriptDecoded();
            ASSERT_EQ(*readWholeFile(dir / "recordings.json"), fullEncoding(library.recordings(), carried))
                << "seed " << seed << " round " << round;
        }
    }
    EXPECT_GT(keptEncoded, saves * 2);  // the test must exercise encoded entries, not only decoded ones
    fs::remove_all(dir);
}

TEST(IndexIncrementalSave, AnIndexWrittenByThePreviousBuildLoadsAndSavesUnchanged) {
    // The previous build decoded every entry and encoded it in full; its files are what
    // that encoding writes for entries as they are read back.
    const fs::path dir = fs::temp_directory_path() / ("osv-previous-" + Uuid::random().text());
    fs::create_directories(dir);
    Random r(7);
    std::vector<RecordingEntry> entries;
    for (int i = 0; i < 30; ++i) entries.push_back(randomEntry(r));
    auto settled = decodeRecordingEntryList(encodeRecordingEntries(entries), kNow);  // as read back once
    ASSERT_TRUE(settled);
    for (RecordingEntry& e : settled->entries) e.decodeTranscript(), e.title = "录音 · 周会", e.titleIsAuto = false;
    std::stable_sort(settled->entries.begin(), settled->entries.end(),
                     [](const RecordingEntry& a, const RecordingEntry& b) { return a.createdAt > b.createdAt; });
    const std::string previous = encodeRecordingEntries(settled->entries);
    const std::string file = previous.substr(0, previous.size() - 1) + ",42]";
    ASSERT_TRUE(writeFileAtomically(dir / "recordings.json", file));

    ManualScheduler scheduler(kNow);
    RecordingLibrary::Options options;
    options.supportDirectory = dir;
    RecordingLibrary library(scheduler, options);
    library.loadRecordings();
    ASSERT_TRUE(library.persistRecordingsNow());
    EXPECT_EQ(*readWholeFile(dir / "recordings.json"), file);
    std::size_t encoded = 0;
    for (const RecordingEntry& e : library.recordings()) encoded += !e.isTranscriptDecoded();
    EXPECT_GE(encoded, 29u);  // all but the one selected at load
    fs::remove_all(dir);
}

}  // namespace
}  // namespace osv
