// Costs of the transcript spine over sessions of hours:
//  - LiveSessionPerDelta: a three-hour two-channel conversation, each delta through
//    ingest, advance and snapshot as the live session does it. Reports the median and
//    99th percentile cost per delta in the first and in the last ten minutes.
//  - CaptionRefreshPerDelta: the same conversation through the live session, with the
//    caption blocks refreshed after every delta.
//  - Compaction of a log of 1,000,000 events.
//  - Decoding a journal of 200,000 lines.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "transcript/LiveTranscriptSession.h"
#include "transcript/TranscriptEventJson.h"
#include "transcript/TranscriptReadModel.h"
#include "transcript/TranscriptSegmenter.h"

#include "SyntheticConversation.h"

namespace osv {
namespace {

using namespace osv::bench;

// Reports the median and 99th percentile of the first and last ten minutes, each as its
// median over several replays, so that a preempted run on a shared machine doesn't decide
// the figure.
template <class Sink>
void reportOverReplays(benchmark::State& state, int runs) {
    std::vector<double> figures[4];
    std::size_t samples = 0, events = 0, sentences = 0;
    for (auto _ : state) {
        for (int run = 0; run < runs; ++run) {
            Sink sink;
            playConversation(sink);
            std::vector<double> first, last;
            for (const Timing& t : sink.timings) {
                if (t.at < kWindow) first.push_back(t.micros);
                if (t.at >= kSessionSeconds - kWindow) last.push_back(t.micros);
            }
            figures[0].push_back(percentile(first, 0.5));
            figures[1].push_back(percentile(first, 0.99));
            figures[2].push_back(percentile(last, 0.5));
            figures[3].push_back(percentile(last, 0.99));
            samples = sink.timings.size();
            events = sink.log().size();
            sentences = sink.closedSentences();
        }
    }
    state.counters["deltas"] = double(samples);
    state.counters["events"] = double(events);
    state.counters["sentences"] = double(sentences);
    state.counters["first10_p50_us"] = percentile(figures[0], 0.5);
    state.counters["first10_p99_us"] = percentile(figures[1], 0.5);
    state.counters["last10_p50_us"] = percentile(figures[2], 0.5);
    state.counters["last10_p99_us"] = percentile(figures[3], 0.5);
}

// Each delta through ingest, advance and snapshot, as the live session does it.
struct FoldSink {
    TranscriptSegmenter segmenter;
    TranscriptEventLog events;
    TranscriptReadModel::Fold fold;
    std::vector<Timing> timings;

    std::optional<TranscriptSegmenter::Directive> delta(const std::string& text, CaptureChannel c, Date at, Date anchor) {
        const auto start = Clock::now();
        auto directive = segmenter.ingest(text, TranscriptSegmenter::DeltaKind::source, c, at, anchor, events);
        fold.advance(events);
        const TranscriptSnapshot snapshot = fold.snapshot();
        benchmark::DoNotOptimize(snapshot.sentences().size());
        timings.push_back({at.seconds, microsSince(start)});
        return directive;
    }
    void streamed(const std::string& text, CaptureChannel c, Date at) {
        segmenter.ingest(text, TranscriptSegmenter::DeltaKind::streamedTranslation, c, at, std::nullopt, events);
    }
    void closeUtterance(CaptureChannel c, BoundaryReason r, Date at) { segmenter.closeUtterance(c, r, at, events); }
    void append(TranscriptEvent e) { events.append(std::move(e)); }
    const TranscriptEventLog& log() const { return events; }
    std::size_t closedSentences() const { return fold.closedSentenceCount(); }
};

void LiveSessionPerDelta(benchmark::State& state) { reportOverReplays<FoldSink>(state, 5); }
BENCHMARK(LiveSessionPerDelta)->Iterations(1)->Unit(benchmark::kMillisecond);

// The caption refresh after each delta, through the live session with its frozen head.
struct CaptionSink {
    LiveTranscriptSession session;
    std::vector<Timing> timings;
    CaptionSink() { session.labelsChannels = true; }

    std::optional<TranscriptSegmenter::Directive> delta(const std::string& text, CaptureChannel c, Date at, Date anchor) {
        auto directive = session.ingest(text, TranscriptSegmenter::DeltaKind::source, c, at, anchor);
        session.snapshot();  // as the controller has taken it already for its claims
        const auto start = Clock::now();
        const CaptionBlockList blocks = session.captionBlocks(true, at);
        benchmark::DoNotOptimize(blocks.size());
        timings.push_back({at.seconds, microsSince(start)});
        return directive;
    }
    void streamed(const std::string& text, CaptureChannel c, Date at) {
        session.ingest(text, TranscriptSegmenter::DeltaKind::streamedTranslation, c, at, std::nullopt);
    }
    void closeUtterance(CaptureChannel c, BoundaryReason r, Date at) { session.closeUtterance(c, r, at); }
    void append(TranscriptEvent e) { session.append(std::move(e)); }
    const TranscriptEventLog& log() const { return session.log(); }
    std::size_t closedSentences() {
        std::size_t n = 0;
        for (const Sentence& s : session.snapshot().sentences()) n += s.isClosed;
        return n;
    }
};

void CaptionRefreshPerDelta(benchmark::State& state) { reportOverReplays<CaptionSink>(state, 3); }
BENCHMARK(CaptionRefreshPerDelta)->Iterations(1)->Unit(benchmark::kMillisecond);

// A log shaped like a long session: runs of deltas on two channels and two streams,
// broken by boundaries and results.
TranscriptEventLog syntheticLog(std::size_t count) {
    std::mt19937 rng(7);
    TranscriptEventLog log;
    log.events.reserve(count);
    double at = 0;
    for (std::size_t i = 0; i < count; ++i) {
        at += 0.2;
        const auto channel = rng() % 3 == 0 ? CaptureChannel::microphone : CaptureChannel::system;
        TranscriptEvent::Payload payload;
        const unsigned kind = rng() % 10;
        if (kind < 6) payload = TranscriptEvent::SourceDelta{"你好"};
        else if (kind < 8) payload = TranscriptEvent::StreamedTranslationDelta{"はい"};
        else if (kind < 9) payload = TranscriptEvent::SentenceClosed{SentenceID{Uuid::random()}, BoundaryReason::punctuation};
        else payload = TranscriptEvent::UtteranceClosed{BoundaryReason::idle};
        log.append(TranscriptEvent{Uuid::random(), Date(at), Date(at + 0.1), channel, std::move(payload)});
    }
    return log;
}

void CompactMillionEvents(benchmark::State& state) {
    const TranscriptEventLog log = syntheticLog(1'000'000);
    std::size_t kept = 0;
    for (auto _ : state) {
        const TranscriptEventLog c = log.compacted();
        kept = c.size();
        benchmark::DoNotOptimize(kept);
    }
    state.counters["events_in"] = double(log.size());
    state.counters["events_out"] = double(kept);
}
BENCHMARK(CompactMillionEvents)->Unit(benchmark::kMillisecond)->Iterations(3);

void DecodeJournal200kLines(benchmark::State& state) {
    const std::string bytes = encodeJsonLines(syntheticLog(200'000));
    std::size_t decoded = 0;
    for (auto _ : state) {
        const JsonLinesReading r = decodeJsonLines(bytes);
        decoded = r.log.size();
        benchmark::DoNotOptimize(decoded);
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(decoded));
    state.counters["megabytes"] = double(bytes.size()) / 1e6;
}
BENCHMARK(DecodeJournal200kLines)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
}  // namespace osv

BENCHMARK_MAIN();
