#include "cli/RealtimeProbe.h"

#include <algorithm>
#include <ostream>

#include "cli/Cli.h"
#include "core/Json.h"

namespace osv::cli {
namespace {

using json::Json;
using Kind = RealtimeTranslationEvent::Kind;

std::string_view eventName(Kind kind) {
    switch (kind) {
        case Kind::inputTranscriptDelta: return "inputTranscriptDelta";
        case Kind::outputTranscriptDelta: return "outputTranscriptDelta";
        case Kind::sourceStreamFailed: return "sourceStreamFailed";
        case Kind::failed: return "failed";
        case Kind::connected: return "connected";
        case Kind::closed: return "closed";
    }
    return "unknown";
}

}  // namespace

RealtimeProbe::RealtimeProbe(Scheduler& scheduler, WebSocketTransport& transport, std::string openAIBase,
                             std::ostream& out, std::ostream& err)
    : scheduler_(scheduler), out_(out), err_(err), client_(transport, scheduler, std::move(openAIBase)) {}

RealtimeProbe::~RealtimeProbe() = default;

void RealtimeProbe::print(const RealtimeTranslationEvent& event) {
    Json line = Json::object();
    line["event"] = eventName(event.kind);
    switch (event.kind) {
        case Kind::inputTranscriptDelta:
        case Kind::outputTranscriptDelta:
            line["text"] = event.text;
            break;
        case Kind::sourceStreamFailed:
            line["message"] = event.text;
            break;
        case Kind::failed:
            line["message"] = event.text;
            line["code"] = event.code ? Json(*event.code) : Json(nullptr);
            break;
        case Kind::connected:
        case Kind::closed:
            break;
    }
    out_ << json::dumpLine(line) << "\n" << std::flush;
}

void RealtimeProbe::print(const OpenAIDebugLog& log) {
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

void RealtimeProbe::run(const TranslatorSettings& settings, std::vector<std::uint8_t> pcm, Options options,
                        std::function<void(int)> finished) {
    pcm_ = std::move(pcm);
    options_ = std::move(options);
    finished_ = std::move(finished);
    const auto guard = lifetime_.guard();
    client_.start(
        settings, options_.targetLanguage, true,
        [this, guard](const RealtimeTranslationEvent& event) {
            if (guard.expired()) return;
            print(event);
            if (event.kind == Kind::inputTranscriptDelta || event.kind == Kind::outputTranscriptDelta)
                lastDeltaAt_ = scheduler_.now();
            // Nothing more can come once the socket is gone.
            if (event.kind == Kind::closed) lost_ = kOk;
            if (event.kind == Kind::failed && !client_.hasSocket()) lost_ = kFailed;
        },
        [this, guard](const OpenAIDebugLog& log) {
            if (!guard.expired()) print(log);
        },
        [this, guard](Expected<void> result) {
            if (!guard.expired()) started(std::move(result));
        });
}

void RealtimeProbe::started(Expected<void> result) {
    if (!result) {
        err_ << "ossevra-cli: " << result.error().message << "\n";
        return finish(kFailed);
    }
    streamStartedAt_ = scheduler_.now();
    sendNext();
}

void RealtimeProbe::sendNext() {
    if (lost_) return finish(*lost_);
    if (offset_ >= pcm_.size()) {
        drainDeadline_ = scheduler_.now() + kDrainLimitSeconds;
        return drain();
    }
    const std::size_t size = std::min(kChunkBytes, pcm_.size() - offset_);
    const std::vector<std::uint8_t> chunk(pcm_.begin() + std::ptrdiff_t(offset_),
                                          pcm_.begin() + std::ptrdiff_t(offset_ + size));
    offset_ += size;
    if (auto sent = client_.sendAudio(chunk); !sent) {
        err_ << "ossevra-cli: " << sent.error().message << "\n";
    } else {
        ++chunksSent_;
        bytesSent_ += size;
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

void RealtimeProbe::drain() {
    if (lost_) return finish(*lost_);
    const Date now = scheduler_.now();
    const bool quiet = !lastDeltaAt_ || now - *lastDeltaAt_ >= kDrainQuietSeconds;
    if (quiet || now >= drainDeadline_) return stop();
    const auto guard = lifetime_.guard();
    timer_ = scheduler_.after(kDrainPollSeconds, [this, guard] {
        if (!guard.expired()) drain();
    });
}

void RealtimeProbe::stop() {
    if (!client_.hasSocket() || client_.isClosing()) return finish(lost_.value_or(kOk));
    client_.markClosing();
    Json close = Json::object();
    close["type"] = "session.close";
    if (auto sent = client_.sendJSON(close); !sent) err_ << "ossevra-cli: " << sent.error().message << "\n";
    const auto guard = lifetime_.guard();
    timer_ = scheduler_.after(kCloseWaitSeconds, [this, guard] {
        if (!guard.expired()) finish(kOk);
    });
    client_.close([this, guard] {
        if (!guard.expired()) finish(kOk);
    });
}

void RealtimeProbe::finish(int status) {
    timer_.cancel();
    if (!finished_) return;
    auto finished = std::move(finished_);
    finished_ = nullptr;
    finished(status);
}

}  // namespace osv::cli
