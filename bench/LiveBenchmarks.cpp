// The live controller's cost per delta over the synthetic three-hour two-channel
// conversation: from a client's event handed to the main thread to the state and the
// caption blocks published, with the journal written, the sentence claims made after every
// delta and the boundaries, ticks and the recording's refresh running in virtual time.
// Reports the median and 99th percentile in the first and in the last ten minutes.

#include <benchmark/benchmark.h>

#include <filesystem>

#include "Conversation.h"
#include "core/ManualScheduler.h"
#include "live/LiveController.h"
#include "live/LiveLanes.h"
#include "recordings/RecordingLibrary.h"
#include "services/FakeHttpTransport.h"
#include "services/FakeWebSocketTransport.h"

namespace osv {
namespace {

using namespace osv::bench;
namespace fs = std::filesystem;

struct NoSources final : FrameSourceFactory {
    struct Silent final : FrameSource {
        Expected<void> start(OnFrames, OnEvent) override { return {}; }
        void stop() override {}
    };
    std::unique_ptr<FrameSource> make(CaptureSide) override { return std::make_unique<Silent>(); }
};

struct DiscardingWriter final : ChunkFileWriter {
    void write(std::string, std::string, std::function<void(bool)> done) override {
        if (done) done(false);
    }
};

struct NoMerge final : AudioMerger {
    Expected<MergedAudio> merge(const std::vector<fs::path>&, const fs::path&) override { return MergedAudio{}; }
};

// The claims a live session makes after each delta and boundary; the passes themselves are
// the lanes' (measured with them).
struct ClaimingDispatch final : TranslationDispatch {
    LiveTranscriptSession* session = nullptr;
    Scheduler* scheduler = nullptr;
    std::size_t claimed = 0;
    void submitClaimed(const Uuid&) override {
        claimed += session->claimPendingRequests(scheduler->now()).size();
        claimed += session->claimProvisionalRequests().size();
    }
    void dispatchPendingTranslations(const Uuid& id) override { submitClaimed(id); }
    void armGraceTimer(const Uuid&) override {}
    void cancelGrace() override {}
    void sweepOutstandingTranslations(const Uuid&) override {}
    void retryFailedTranslations(const Uuid&, bool) override {}
    bool hasTrackedWork(const Uuid&) const override { return false; }
};

template <bool WithLanes>
struct ControllerSink {
    fs::path dir = fs::temp_directory_path() / ("osv-bench-live-" + Uuid::random().text());
    testing::FakeWebSocketTransport transport;
    ManualScheduler scheduler{Date(-1.0)};
    NoSources sources;
    DiscardingWriter writer;
    NoMerge merger;
    ClaimingDispatch dispatch;
    testing::FakeHttpTransport http;
    TranslatorSettings settings;
    std::unique_ptr<RecordingLibrary> library;
    std::unique_ptr<LiveLanes> lanes;
    std::unique_ptr<LiveController> controller;
    Uuid id;
    std::vector<Timing> timings;

    ControllerSink() {
        fs::create_directories(dir);
        RecordingLibrary::Options options;
        options.supportDirectory = dir;
        options.timeZone = "UTC";
        library = std::make_unique<RecordingLibrary>(scheduler, options);
        library->loadRecordings();
        settings.apiKey = "sk-bench";
        settings.captureMode = AudioCaptureMode::mixed;
        settings.separateChannels = true;
        if (WithLanes)
            lanes = std::make_unique<LiveLanes>(scheduler, http, "http://127.0.0.1:9/v1", *library,
                                                [this] { return settings; });
        TranslationDispatch* used = WithLanes ? static_cast<TranslationDispatch*>(lanes.get()) : &dispatch;
        controller = std::make_unique<LiveController>(LiveController::Dependencies{
            scheduler, *library, [this] { return settings; }, sources, writer, merger,
            [this] { return std::make_unique<OpenAIRealtimeTranslationClient>(transport, scheduler, "http://127.0.0.1:9/v1"); },
            used, std::nullopt});
        if (lanes) lanes->attach(*controller);
        dispatch.session = &controller->liveTranscript();
        dispatch.scheduler = &scheduler;
        controller->startLiveInterpretation();
        scheduler.runUntilIdle();
        for (auto& c : transport.connections) c->accept();
        scheduler.runUntilIdle();
        id = *controller->state().activeRecordingID;
    }
    ~ControllerSink() {
        if (lanes) lanes->detach();
        controller.reset();
        library.reset();
        std::error_code ec;
        fs::remove_all(dir, ec);
    }

    std::optional<TranscriptSegmenter::Directive> delta(const std::string& text, CaptureChannel c, Date at, Date) {
        scheduler.advanceTo(at);  // boundaries, ticks and refreshes fall due on the way
        const auto start = Clock::now();
        scheduler.post([this, text, c] {
            controller->handleRealtimeEvent(RealtimeTranslationEvent::inputTranscriptDelta(text), c, id);
        });
        scheduler.runUntilIdle();
        benchmark::DoNotOptimize(controller->state().captions.size());
        timings.push_back({at.seconds, microsSince(start)});
        answerRequests();
        return std::nullopt;  // the controller arms its own boundaries
    }
    void streamed(const std::string& text, CaptureChannel c, Date at) {
        scheduler.advanceTo(at);
        controller->handleRealtimeEvent(RealtimeTranslationEvent::outputTranscriptDelta(text), c, id);
        scheduler.runUntilIdle();
    }
    void closeUtterance(CaptureChannel, BoundaryReason, Date) {}
    // The text model answers every pass at once, so that results are filed as in a session.
    void answerRequests() {
        if (!WithLanes) return;
        while (http.unansweredCount() > 0) http.reply(200, testing::FakeHttpTransport::responsesBody("译文"));
        scheduler.runUntilIdle();
    }
    void append(TranscriptEvent e) {
        // With lanes, results come from the passes themselves.
        if (WithLanes) return;
        // A lane's result filed into the live session.
        controller->liveTranscript().append(std::move(e));
        controller->projectTranscript();
        scheduler.runUntilIdle();
    }
    const TranscriptEventLog& log() const { return controller->liveTranscript().log(); }
    std::size_t closedSentences() {
        std::size_t n = 0;
        const auto& sentences = controller->liveTranscript().snapshot().sentences();
        for (std::size_t i = 0; i < sentences.size(); ++i) n += sentences[i].isClosed;
        return n;
    }
};

void ControllerPerDelta(benchmark::State& state) { reportOverReplays<ControllerSink<false>>(state, 3); }
BENCHMARK(ControllerPerDelta)->Iterations(1)->Unit(benchmark::kMillisecond);

// The same with the sentence lanes behind the seam: claims, lane submission and the
// request sent at each delta; each reply filed as it comes.
void ControllerPerDeltaWithLanes(benchmark::State& state) { reportOverReplays<ControllerSink<true>>(state, 3); }
BENCHMARK(ControllerPerDeltaWithLanes)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace osv

BENCHMARK_MAIN();
