// The sentence passes over a three-hour two-channel conversation, in virtual time: each
// delta's claims and lane submissions, each boundary's, each reply's filing into the live
// log, and the grace timer's sweeps. The HTTP side answers every request 1.2 seconds
// later with a short translation, as a loopback would; the costs measured are the
// program's own. Reports the median and 99th percentile of each in the first and in the
// last ten minutes.

#include <benchmark/benchmark.h>

#include <filesystem>
#include <map>

#include "core/ManualScheduler.h"
#include "lanes/SentenceTranslationPass.h"
#include "recordings/RecordingLibrary.h"
#include "services/OpenAIClient.h"
#include "transcript/LiveTranscriptSession.h"

#include "Conversation.h"

namespace osv {
namespace {

using namespace osv::bench;

constexpr double kReplySeconds = 1.2;
const std::string kReply =
    R"({"output":[{"type":"message","content":[{"type":"output_text","text":"译文译文译文"}]}],"usage":{"input_tokens":180,"output_tokens":9}})";

// Answers every request after kReplySeconds of virtual time, timing what the reply costs.
class DelayedHttp final : public HttpTransport {
public:
    DelayedHttp(ManualScheduler& scheduler, std::vector<Timing>& filings) : scheduler_(scheduler), filings_(filings) {}

    std::unique_ptr<HttpCall> send(const HttpRequest&, Completion done) override {
        ++requests;
        auto timer = std::make_shared<TimerHandle>();
        *timer = scheduler_.after(kReplySeconds, [this, done = std::move(done)] {
            HttpResponse r;
            r.status = 200;
            r.body = kReply;
            const auto start = Clock::now();
            done(std::move(r));
            scheduler_.runUntilIdle();  // the lane's filing and the job's end
            filings_.push_back({scheduler_.now().seconds, microsSince(start)});
        });
        return std::make_unique<Call>(timer);
    }
    std::size_t requests = 0;

private:
    struct Call final : HttpCall {
        explicit Call(std::shared_ptr<TimerHandle> t) : timer(std::move(t)) {}
        ~Call() override { cancel(); }
        void cancel() override { timer->cancel(); }
        std::shared_ptr<TimerHandle> timer;
    };
    ManualScheduler& scheduler_;
    std::vector<Timing>& filings_;
};

struct Host final : SentenceTranslationPass::Host {
    LiveTranscriptSession* session = nullptr;
    TranslatorSettings current;
    UsageTally tally;
    std::size_t debugEvents = 0;
    LiveTranscriptSession* liveTranscript(const Uuid&) override { return session; }
    void transcriptChanged(const Uuid&) override {}
    TranslatorSettings settings() override { return current; }
    ModelPreferences modelPreferences() override { return current.models; }
    UsageTally& usageTally() override { return tally; }
    void debug(DebugEvent) override { ++debugEvents; }
    void trackedWorkFinished(const Uuid&) override {}
};

struct LaneSink {
    std::filesystem::path dir = std::filesystem::temp_directory_path() / ("osv-bench-lanes-" + Uuid::random().text());
    ManualScheduler scheduler{Date(0.0)};
    std::vector<Timing> timings;  // per delta
    std::vector<Timing> boundaries;
    std::vector<Timing> filings;
    std::vector<Timing> graceSweeps;
    DelayedHttp http{scheduler, filings};
    OpenAIClient client{http, scheduler, "http://127.0.0.1:9/v1"};
    LaneRunner lanes{scheduler};
    std::unique_ptr<RecordingLibrary> library;
    LiveTranscriptSession session;
    Host host;
    Uuid recordingID = Uuid::random();
    std::unique_ptr<SentenceTranslationPass> pass;

    LaneSink() {
        std::filesystem::create_directories(dir);
        RecordingLibrary::Options options;
        options.supportDirectory = dir;
        options.timeZone = "UTC";
        library = std::make_unique<RecordingLibrary>(scheduler, options);
        library->loadRecordings();
        host.current.apiKey = "sk-bench";
        host.session = &session;
        session.labelsChannels = true;
        session.configuredRouting = SentenceTranslationPass::routingConfig(host.current, true);
        pass = std::make_unique<SentenceTranslationPass>(host, lanes, client, *library, scheduler);
    }
    ~LaneSink() {
        pass.reset();
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }

    // Brings virtual time to `at`: replies land and grace timers fire on the way.
    void reach(Date at) {
        if (at <= scheduler.now()) return;
        const bool armed = pass->isGraceArmed();
        const auto start = Clock::now();
        const std::size_t before = filings.size();
        scheduler.advanceTo(at);
        // What is left once the replies' own share is taken out is the grace sweeps'.
        double micros = microsSince(start);
        for (std::size_t i = before; i < filings.size(); ++i) micros -= filings[i].micros;
        if (armed && !pass->isGraceArmed()) graceSweeps.push_back({at.seconds, std::max(0.0, micros)});
    }

    std::optional<TranscriptSegmenter::Directive> delta(const std::string& text, CaptureChannel c, Date at, Date anchor) {
        reach(at);
        auto directive = session.ingest(text, TranscriptSegmenter::DeltaKind::source, c, at, anchor);
        session.snapshot();  // the controller has taken it for its projection already
        const auto start = Clock::now();
        pass->submitClaimed(recordingID);
        scheduler.runUntilIdle();  // the lanes start their jobs and send
        timings.push_back({at.seconds, microsSince(start)});
        return directive;
    }
    void streamed(const std::string& text, CaptureChannel c, Date at) {
        reach(at);
        session.ingest(text, TranscriptSegmenter::DeltaKind::streamedTranslation, c, at, std::nullopt);
    }
    void closeUtterance(CaptureChannel c, BoundaryReason r, Date at) {
        reach(at);
        session.closeUtterance(c, r, at);
        session.snapshot();
        const auto start = Clock::now();
        pass->submitClaimed(recordingID);
        pass->armGraceTimer(recordingID);
        scheduler.runUntilIdle();
        boundaries.push_back({at.seconds, microsSince(start)});
    }
    // The conversation's own translations stand in for the passes: the passes file theirs.
    void append(TranscriptEvent) {}
    const TranscriptEventLog& log() const { return session.log(); }
};

struct Figures {
    std::vector<double> values[4];  // first ten minutes p50, p99; last ten minutes p50, p99
    std::size_t count = 0;

    void add(const std::vector<Timing>& timings) {
        std::vector<double> first, last;
        for (const Timing& t : timings) {
            if (t.at < kWindow) first.push_back(t.micros);
            if (t.at >= kSessionSeconds - kWindow) last.push_back(t.micros);
        }
        values[0].push_back(percentile(first, 0.5));
        values[1].push_back(percentile(first, 0.99));
        values[2].push_back(percentile(last, 0.5));
        values[3].push_back(percentile(last, 0.99));
        count = timings.size();
    }
    // Each figure as its median over the replays, so that a preempted replay on a shared
    // machine doesn't decide it.
    void report(benchmark::State& state, const std::string& name) const {
        state.counters[name + "_n"] = double(count);
        state.counters[name + "_first10_p50_us"] = percentile(values[0], 0.5);
        state.counters[name + "_first10_p99_us"] = percentile(values[1], 0.5);
        state.counters[name + "_last10_p50_us"] = percentile(values[2], 0.5);
        state.counters[name + "_last10_p99_us"] = percentile(values[3], 0.5);
    }
};

void SentencePassesPerDelta(benchmark::State& state) {
    constexpr int kReplays = 3;
    Figures delta, boundary, filing;
    for (auto _ : state) {
        for (int replay = 0; replay < kReplays; ++replay) {
            LaneSink sink;
            playConversation(sink);
            sink.reach(Date(kSessionSeconds + 10));
            delta.add(sink.timings);
            boundary.add(sink.boundaries);
            filing.add(sink.filings);
            state.counters["requests"] = double(sink.http.requests);
            state.counters["events"] = double(sink.session.log().size());
            state.counters["refine_requests"] = double(sink.host.tally.requests["refine"]);
            state.counters["reverse_requests"] = double(sink.host.tally.requests["reverse"]);
            state.counters["provisional_requests"] = double(sink.host.tally.requests["provisional"]);
            state.counters["grace_sweeps"] = double(sink.graceSweeps.size());
        }
    }
    delta.report(state, "delta");
    boundary.report(state, "boundary");
    filing.report(state, "filing");
}
BENCHMARK(SentencePassesPerDelta)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace osv

BENCHMARK_MAIN();
