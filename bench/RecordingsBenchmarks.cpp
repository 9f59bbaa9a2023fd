// The recording index at the size of years of use: 5,000 entries of 100 caption segments
// each. "Load" is what launch does (read, decode, relabel, sort); "Save" is a synchronous
// save as at quit (snapshot, encode, carry-over scan of the present file, backup, atomic
// write with fsync). Goals on this machine: load at most 300 ms, save at most 200 ms.

#include <benchmark/benchmark.h>

#include <filesystem>

#include "core/ManualScheduler.h"
#include "recordings/RecordingEntryJson.h"
#include "recordings/RecordingLibrary.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

constexpr int kEntries = 5000;
constexpr int kSegments = 100;

// Sentence pairs of ordinary conversational length (8 to 25 characters), as captions hold them.
const std::pair<std::string, std::string> kLines[] = {
    {"本日はお忙しいところありがとうございます。", "感谢您今天在百忙之中抽出时间。"},
    {"さっそくですが、新しい見積もりをご説明します。", "那我们直接开始，我来说明一下新的报价。"},
    {"好的，请您先介绍一下价格。", "はい、まず価格についてご説明ください。"},
    {"月額はお一人あたり三千円です。", "每人每月三千日元。"},
    {"这个价格包含培训吗？", "この価格には研修も含まれていますか？"},
    {"はい、導入時の研修は無料です。", "是的，导入时的培训是免费的。"},
    {"嗯，我们内部商量一下。", "社内で相談します。"},
    {"来月からご利用いただけます。", "下个月起就可以使用。"},
};

std::vector<RecordingEntry> library() {
    std::vector<RecordingEntry> entries;
    entries.reserve(kEntries);
    for (int i = 0; i < kEntries; ++i) {
        const Date created(700000000.0 + i * 3600.0);
        RecordingEntry e = RecordingEntry::make(RecordingKind::live, RecordingStatus::complete, SessionLabel::interpret,
                                                AudioCaptureMode::mixed, RecognitionLanguage::automatic, created);
        e.relativeAudioPath = "Recordings/" + e.id.text() + ".m4a";
        e.duration = 1800.5;
        e.byteSize = 14'000'000;
        for (int s = 0; s < kSegments; ++s) {
            TranscriptSegment seg;
            seg.id = Uuid::random();
            seg.sequence = s + 1;
            seg.channel = s % 2 ? CaptureChannel::microphone : CaptureChannel::system;
            seg.startedAt = created + s * 17.25;
            const auto& line = kLines[std::size_t(s + i) % std::size(kLines)];
            seg.sourceText = line.first;
            seg.translatedText = line.second;
            seg.status = TranscriptSegment::SegmentStatus::complete;
            seg.firstVisibleLatencyMilliseconds = 640 + s;
            seg.finalLatencyMilliseconds = 1900 + s;
            e.segments.push_back(std::move(seg));
        }
        e.refreshDerivedText();
        entries.push_back(std::move(e));
    }
    return entries;
}

struct Fixture {
    fs::path dir = fs::temp_directory_path() / ("osv-bench-index-" + Uuid::random().text());
    std::vector<RecordingEntry> entries = library();

    Fixture() {
        fs::create_directories(dir);
        const std::string data = encodeRecordingEntries(entries);
        FILE* f = std::fopen((dir / "recordings.json").c_str(), "wb");
        std::fwrite(data.data(), 1, data.size(), f);
        std::fclose(f);
    }
    ~Fixture() { fs::remove_all(dir); }
    RecordingLibrary::Options options() const {
        RecordingLibrary::Options o;
        o.supportDirectory = dir;
        return o;
    }
};

Fixture& fixture() {
    static Fixture f;
    return f;
}

void Load(benchmark::State& state) {
    Fixture& f = fixture();
    ManualScheduler scheduler(Date(800000000.0));
    for (auto _ : state) {
        auto lib = std::make_unique<RecordingLibrary>(scheduler, f.options());
        lib->loadRecordings();
        if (lib->recordings().size() != std::size_t(kEntries)) state.SkipWithError("entries lost");
        state.PauseTiming();
        lib.reset();  // freeing the list is not part of loading
        state.ResumeTiming();
    }
    state.counters["MB"] = double(fs::file_size(f.dir / "recordings.json")) / 1e6;
}

void Save(benchmark::State& state) {
    Fixture& f = fixture();
    ManualScheduler scheduler(Date(800000000.0));
    RecordingLibrary lib(scheduler, f.options());
    lib.loadRecordings();
    for (auto _ : state) {
        lib.updateRecording(lib.recordings().front().id, false, [](RecordingEntry& e) { e.updatedAt = e.updatedAt + 1; });
        if (!lib.persistRecordingsNow()) state.SkipWithError("save failed");
    }
}

void EncodeOnly(benchmark::State& state) {
    Fixture& f = fixture();
    for (auto _ : state) benchmark::DoNotOptimize(encodeRecordingEntries(f.entries).size());
}

void DecodeOnly(benchmark::State& state) {
    Fixture& f = fixture();
    auto bytes = IndexBytes::read(f.dir / "recordings.json");
    for (auto _ : state) benchmark::DoNotOptimize(decodeRecordingEntryList(*bytes, Date(0))->entries.size());
}

BENCHMARK(Load)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(Save)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(EncodeOnly)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(DecodeOnly)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
}  // namespace osv

BENCHMARK_MAIN();
