// The recording index at the size of years of use (5,000 entries of 100 caption segments)
// and of the common case (500 entries of 100). Each benchmark reports wall time ("Time")
// and CPU time ("CPU", and the counter rusage_cpu_ms from getrusage, which counts every
// thread of the process):
//   Load/N               what launch does: read, decode, relabel, sort, select the newest
//   SaveAfterOneChange/N one entry renamed, then a synchronous save as at quit (encode,
//                        carry-over, backup link, atomic write with fsync)
//   ResidentMemory/N     resident memory the loaded history adds to a fresh process, over
//                        the file's size (counter rss_per_file_byte)
//   LiveMinute/N         bytes written to the support directory during one minute of a
//                        live session adding a caption a second, with the saves of the
//                        session on air deferred, and as every change saved on the 2 s
//                        debounce did before (at 500 entries measured, at 5,000 the same
//                        count of saves times the file's size)
//   Parse*/5000          ways of reading the file, to choose the reader: simdjson's DOM,
//                        nlohmann's SAX with a handler that keeps nothing, and this
//                        build's element scanner (Decode)
// Goals at 5,000: load at most 300 ms, a save at most 200 ms of CPU time, memory at most
// 1.5 times the file, a live minute at most 1/20 of the bytes written before.

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>
#include <simdjson.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>

#include "core/AtomicFile.h"
#include "core/ManualScheduler.h"
#include "recordings/RecordingEntryJson.h"
#include "recordings/RecordingLibrary.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

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

TranscriptSegment segmentOf(const Date& created, int s, int i) {
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
    return seg;
}

std::string indexText(int entries) {
    std::string out = "[";
    for (int i = 0; i < entries; ++i) {
        const Date created(700000000.0 + (entries - i) * 3600.0);  // newest first, as saved
        RecordingEntry e = RecordingEntry::make(RecordingKind::live, RecordingStatus::complete, SessionLabel::interpret,
                                                AudioCaptureMode::mixed, RecognitionLanguage::automatic, created);
        e.relativeAudioPath = "Recordings/" + e.id.text() + ".m4a";
        e.duration = 1800.5;
        e.byteSize = 14'000'000;
        for (int s = 0; s < kSegments; ++s) e.segments.push_back(segmentOf(created, s, i));
        e.refreshDerivedText();
        e.usage.add(UsageTally::Kind::refine, true, 1200, 300, std::string("gpt-5-mini"));
        const std::string one = encodeRecordingEntries({e});
        if (i) out.push_back(',');
        out.append(one, 1, one.size() - 2);
    }
    out.push_back(']');
    return out;
}

// One support directory per size, written once.
struct Library {
    fs::path dir;
    std::uintmax_t fileSize = 0;

    explicit Library(int entries) : dir(fs::temp_directory_path() / ("osv-bench-index-" + Uuid::random().text())) {
        fs::create_directories(dir);
        const std::string text = indexText(entries);
        if (!writeFileAtomically(dir / "recordings.json", text)) std::abort();
        fileSize = text.size();
    }
    ~Library() { fs::remove_all(dir); }
    RecordingLibrary::Options options() const {
        RecordingLibrary::Options o;
        o.supportDirectory = dir;
        return o;
    }
};

Library& library(int entries) {
    static std::map<int, std::unique_ptr<Library>> libraries;
    auto& l = libraries[entries];
    if (!l) l = std::make_unique<Library>(entries);
    return *l;
}

double processCpuMilliseconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return (u.ru_utime.tv_sec + u.ru_stime.tv_sec) * 1e3 + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e3;
}

long statusKilobytes(const char* field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(field, 0) == 0) return std::stol(line.substr(std::strlen(field)));
    return -1;
}

long long writtenBytes() {
    std::ifstream in("/proc/self/io");
    std::string key;
    long long value = 0;
    while (in >> key >> value)
        if (key == "wchar:") return value;
    return -1;
}

void Load(benchmark::State& state) {
    Library& l = library(int(state.range(0)));
    ManualScheduler scheduler(Date(800000000.0));
    double cpu = 0;
    for (auto _ : state) {
        const double before = processCpuMilliseconds();
        auto lib = std::make_unique<RecordingLibrary>(scheduler, l.options());
        lib->loadRecordings();
        cpu += processCpuMilliseconds() - before;
        if (lib->recordings().size() != std::size_t(state.range(0))) state.SkipWithError("entries lost");
        state.PauseTiming();
        lib.reset();  // freeing the list is not part of loading
        state.ResumeTiming();
    }
    state.counters["rusage_cpu_ms"] = cpu / double(state.iterations());
    state.counters["MB"] = double(l.fileSize) / 1e6;
}

void SaveAfterOneChange(benchmark::State& state) {
    Library& l = library(int(state.range(0)));
    ManualScheduler scheduler(Date(800000000.0));
    RecordingLibrary lib(scheduler, l.options());
    lib.loadRecordings();
    lib.persistRecordingsNow();  // the first save after launch, left out like the load
    double cpu = 0;
    int n = 0;
    for (auto _ : state) {
        const double before = processCpuMilliseconds();
        const auto& list = lib.recordings();
        ++n;
        lib.renameRecording(list[std::size_t(n * 7919) % list.size()].id, "周会 " + std::to_string(n));
        if (!lib.persistRecordingsNow()) state.SkipWithError("save failed");
        cpu += processCpuMilliseconds() - before;
    }
    state.counters["rusage_cpu_ms"] = cpu / double(state.iterations());
}

// Loads the index in a fresh process and reports what its resident memory grew by.
long residentKilobytesOfLoading(const fs::path& dir) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0) return -1;
    const pid_t child = fork();
    if (child == 0) {
        close(pipeFds[0]);
        dup2(pipeFds[1], STDOUT_FILENO);
        execl("/proc/self/exe", "bench_recordings", "--measure-resident", dir.c_str(), nullptr);
        _exit(127);
    }
    close(pipeFds[1]);
    char buffer[64] = {};
    const ssize_t n = read(pipeFds[0], buffer, sizeof buffer - 1);
    close(pipeFds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return n > 0 ? std::atol(buffer) : -1;
}

void ResidentMemory(benchmark::State& state) {
    Library& l = library(int(state.range(0)));
    long kilobytes = 0;
    for (auto _ : state) kilobytes = residentKilobytesOfLoading(l.dir);
    state.counters["rss_MB"] = double(kilobytes) * 1024 / 1e6;
    state.counters["file_MB"] = double(l.fileSize) / 1e6;
    state.counters["rss_per_file_byte"] = double(kilobytes) * 1024 / double(l.fileSize);
}

// A minute on air: a caption a second reaches the entry of the session, through the
// library as the live controller files it.
long long bytesOfALiveMinute(const Library& l, bool onAir) {
    ManualScheduler scheduler(Date(800000000.0));
    RecordingLibrary lib(scheduler, l.options());
    lib.loadRecordings();
    RecordingEntry live = RecordingEntry::make(RecordingKind::live, RecordingStatus::recording, SessionLabel::interpret,
                                               AudioCaptureMode::mixed, RecognitionLanguage::automatic, scheduler.now());
    const Uuid id = live.id;
    lib.insertRecording(std::move(live));
    lib.persistRecordingsNow();  // as at the start of a session
    if (onAir) lib.setActiveRecordingID(id);
    const long long before = writtenBytes();
    for (int second = 0; second < 60; ++second) {
        lib.updateRecording(id, true, [&](RecordingEntry& e) {
            e.upsertSegmentInTimelineOrder(segmentOf(e.createdAt, second, 0));
            e.updatedAt = scheduler.now();
        });
        scheduler.advance(1.0);
    }
    return writtenBytes() - before;
}

void LiveMinute(benchmark::State& state) {
    Library& l = library(int(state.range(0)));
    const bool measureBefore = state.range(0) <= 500;
    long long deferred = 0, before = 0;
    for (auto _ : state) {
        deferred = bytesOfALiveMinute(l, true);
        // Before: every change saved on the 2 s debounce, 30 saves of the whole file.
        before = measureBefore ? bytesOfALiveMinute(l, false) : 30LL * (long long)l.fileSize;
    }
    state.counters["MB_written_deferred"] = double(deferred) / 1e6;
    state.counters["MB_written_before"] = double(before) / 1e6;
    state.counters["fraction_of_before"] = double(deferred) / double(before);
}

void ParseSimdjsonDom(benchmark::State& state) {
    Library& l = library(int(state.range(0)));
    const std::string text = *readWholeFile(l.dir / "recordings.json");
    simdjson::dom::parser parser;
    for (auto _ : state) {
        simdjson::dom::element root;
        if (parser.parse(text).get(root) != simdjson::SUCCESS) state.SkipWithError("parse failed");
        benchmark::DoNotOptimize(root);
    }
}

struct NullSax : nlohmann::json_sax<nlohmann::json> {
    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t&) override { return true; }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool start_object(std::size_t) override { return true; }
    bool key(string_t&) override { return true; }
    bool end_object() override { return true; }
    bool start_array(std::size_t) override { return true; }
    bool end_array() override { return true; }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override { return false; }
};

void ParseNlohmannSax(benchmark::State& state) {
    Library& l = library(int(state.range(0)));
    const std::string text = *readWholeFile(l.dir / "recordings.json");
    for (auto _ : state) {
        NullSax sax;
        if (!nlohmann::json::sax_parse(text, &sax)) state.SkipWithError("parse failed");
    }
}

void ParseDecode(benchmark::State& state) {
    Library& l = library(int(state.range(0)));
    auto text = std::make_shared<const std::string>(*readWholeFile(l.dir / "recordings.json"));
    for (auto _ : state) benchmark::DoNotOptimize(decodeRecordingEntryList(*text, text, Date(0))->entries.size());
}

BENCHMARK(Load)->Arg(500)->Arg(5000)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
BENCHMARK(SaveAfterOneChange)->Arg(500)->Arg(5000)->Unit(benchmark::kMillisecond)->Iterations(10)->UseRealTime();
BENCHMARK(ResidentMemory)->Arg(500)->Arg(5000)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(LiveMinute)->Arg(500)->Arg(5000)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(ParseSimdjsonDom)->Arg(5000)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(ParseNlohmannSax)->Arg(5000)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(ParseDecode)->Arg(5000)->Unit(benchmark::kMillisecond)->Iterations(5);

// The child of ResidentMemory: resident memory before and after loading, in kilobytes.
int measureResident(const char* dir) {
    ManualScheduler scheduler(Date(800000000.0));
    RecordingLibrary::Options options;
    options.supportDirectory = dir;
    const long before = statusKilobytes("VmRSS:");
    RecordingLibrary lib(scheduler, options);
    lib.loadRecordings();
    const long after = statusKilobytes("VmRSS:");
    std::printf("%ld\n", after - before);
    return 0;
}

}  // namespace
}  // namespace osv

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--measure-resident") == 0) return osv::measureResident(argv[2]);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
