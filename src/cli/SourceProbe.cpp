#include "cli/SourceProbe.h"

#include <algorithm>
#include <ostream>

#include "audio/PCM16Resampler.h"
#include "audio/RealtimePCMEncoder.h"
#include "cli/Cli.h"
#include "core/Json.h"

namespace osv::cli {
namespace {

using json::Json;
using TKind = TranscriptionEvent::Kind;
using GKind = GeminiLiveEvent::Kind;

constexpr const char* kGeminiLiveDefault = "gemini-3.5-transcribe-live";

bool isGemini(std::string_view model) { return model.substr(0, 7) == "gemini-"; }

}  // namespace

std::string sourceProbeModel(SourceVendor vendor, const std::optional<std::string>& asked,
                             const TranslatorSettings& settings) {
    if (asked && !asked->empty()) return *asked;
    const std::string configured = settings.models.resolved(ModelJob::realtimeTranscribe, settings.activeMode);
    if (isGemini(configured) == (vendor == SourceVendor::gemini)) return configured;
    return vendor == SourceVendor::gemini ? kGeminiLiveDefault : std::string(builtInDefault(ModelJob::realtimeTranscribe));
}

SourceProbe::SourceProbe(Scheduler& scheduler, WebSocketTransport& sockets, HttpTransport& http,
                         const ServiceEndpoints& endpoints, std::ostream& out, std::ostream& err)
    : scheduler_(scheduler),
      out_(out),
      err_(err),
      openAI_(sockets, scheduler, endpoints.openAI),
      gemini_(sockets, http, scheduler, endpoints.gemini) {}

SourceProbe::~SourceProbe() = default;

void SourceProbe::print(const TranscriptionEvent& event) {
    Json line = Json::object();
    switch (event.kind) {
        case TKind::delta:
            line["event"] = "delta";
            line["text"] = event.text;
            break;
        case TKind::revised:
            line["event"] = "revised";
            line["previous"] = event.previous;
            line["text"] = event.text;
            break;
        case TKind::turnEnded: line["event"] = "turnEnded"; break;
        case TKind::failed:
            line["event"] = "failed";
            line["message"] = event.text;
            break;
    }
    out_ << json::dumpLine(line) << "\n" << std::flush;
}

void SourceProbe::print(const GeminiLiveEvent& event) {
    Json line = Json::object();
    switch (event.kind) {
        case GKind::interim:
            line["event"] = "interim";
            line["text"] = event.text;
            break;
        case GKind::final:
            line["event"] = "final";
            line["text"] = event.text;
            break;
        case GKind::speechStarted:
        case GKind::speechEnded:
            line["event"] = event.kind == GKind::speechStarted ? "speechStarted" : "speechEnded";
            line["offset"] = event.text;
            break;
        case GKind::goingAway:
            line["event"] = "goingAway";
            line["timeLeft"] = event.timeLeft ? Json(*event.timeLeft) : Json(nullptr);
            break;
        case GKind::turnComplete: line["event"] = "turnComplete"; break;
        case GKind::failed:
            line["event"] = "failed";
            line["message"] = event.text;
            break;
    }
    out_ << json::dumpLine(line) << "\n" << std::flush;
}

void SourceProbe::print(const OpenAIDebugLog& log) {
    Json record = Json::object();
    record["level"] = DebugEvent::rawValue(log.level);
    record["category"] = DebugEvent::rawValue(log.category);
    record["title"] = log.title;
    record["details"] = log.details;
    record["code"] = log.code ? Json(*log.code) : Json(nullptr);
    Json line = Json::object();
    line["debug"] = std::move(record);
    out_ << json::dumpLine(line) << "\n" << std::flush;
}

void SourceProbe::run(const TranslatorSettings& settings, std::vector<std::uint8_t> pcm24k, Options options,
                      std::function<void(int)> finished) {
    pcm_ = std::move(pcm24k);
    options_ = std::move(options);
    finished_ = std::move(finished);
    const auto guard = lifetime_.guard();
    auto onDebug = [this, guard](const OpenAIDebugLog& log) {
        if (!guard.expired()) print(log);
    };
    auto onStarted = [this, guard](Expected<void> result) {
        if (!guard.expired()) started(std::move(result));
    };
    if (options_.vendor == SourceVendor::openAI) {
        TranslatorSettings s = settings;
        s.recognitionLanguage = options_.language;
        openAI_.start(
            s, options_.model,
            [this, guard](const TranscriptionEvent& event) {
                if (guard.expired()) return;
                print(event);
                lastEventAt_ = scheduler_.now();
                if (event.kind == TKind::failed) lost_ = kFailed;
            },
            onDebug, onStarted);
        return;
    }
    gemini_.startLive(
        options_.model, GeminiRecognition::from(options_.language, settings.glossary), settings.geminiAPIKey,
        [this, guard](const GeminiLiveEvent& event) {
            if (guard.expired()) return;
            print(event);
            lastEventAt_ = scheduler_.now();
            if (event.kind == GKind::failed) lost_ = kFailed;
        },
        onDebug, onStarted);
}

void SourceProbe::started(Expected<void> result) {
    if (!result) {
        err_ << "ossevra-cli: " << result.error().message << "\n";
        // The socket a refused setup leaves is the caller's to close.
        openAI_.close();
        gemini_.closeLive();
        return finish(kFailed);
    }
    streamStartedAt_ = scheduler_.now();
    sendNext();
}

void SourceProbe::sendNext() {
    if (lost_) {
        openAI_.close();
        gemini_.closeLive();
        return finish(*lost_);
    }
    if (offset_ >= pcm_.size()) return endOfAudio();
    const std::size_t size = std::min(kChunkBytes, pcm_.size() - offset_);
    const std::vector<std::uint8_t> chunk(pcm_.begin() + std::ptrdiff_t(offset_),
                                          pcm_.begin() + std::ptrdiff_t(offset_ + size));
    offset_ += size;
    if (options_.vendor == SourceVendor::openAI) {
        openAI_.sendAudio(chunk);
        ++chunksSent_;
        bytesSent_ += size;
    } else {
        if (auto sent = gemini_.sendAudio(chunk); !sent) {
            err_ << "ossevra-cli: " << sent.error().message << "\n";
        } else {
            ++chunksSent_;
            bytesSent_ += PCM16Resampler::to16kFrom24k(chunk).size();
        }
    }
    const auto guard = lifetime_.guard();
    auto next = [this, guard] {
        if (!guard.expired()) sendNext();
    };
    if (!options_.realTime) {
        scheduler_.post(next);
        return;
    }
    // Paced from the start of the stream, so that slow turns of the loop don't add up.
    const Date due = streamStartedAt_ + double(chunksSent_) * kChunkSeconds;
    timer_ = scheduler_.after(std::max(0.0, due - scheduler_.now()), next);
}

void SourceProbe::endOfAudio() {
    const auto guard = lifetime_.guard();
    if (options_.vendor == SourceVendor::openAI) {
        openAI_.finishInput([this, guard] {
            if (guard.expired()) return;
            openAI_.close();
            finish(lost_.value_or(kOk));
        });
        return;
    }
    if (auto sent = gemini_.endLiveAudioStream(); !sent) err_ << "ossevra-cli: " << sent.error().message << "\n";
    audioEndedAt_ = scheduler_.now();
    drainDeadline_ = audioEndedAt_ + kDrainLimitSeconds;
    drain();
}

void SourceProbe::drain() {
    const Date now = scheduler_.now();
    // The last words come after the end of the audio: quiet counts from then at the earliest.
    const Date since = lastEventAt_ ? std::max(*lastEventAt_, audioEndedAt_) : audioEndedAt_;
    const bool quiet = now - since >= kDrainQuietSeconds;
    if (lost_ || quiet || now >= drainDeadline_) {
        gemini_.closeLive();
        return finish(lost_.value_or(kOk));
    }
    const auto guard = lifetime_.guard();
    timer_ = scheduler_.after(kDrainPollSeconds, [this, guard] {
        if (!guard.expired()) drain();
    });
}

void SourceProbe::finish(int status) {
    timer_.cancel();
    if (!finished_) return;
    auto finished = std::move(finished_);
    finished_ = nullptr;
    finished(status);
}

}  // namespace osv::cli
