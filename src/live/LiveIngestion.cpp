#include "live/LiveIngestion.h"

#include <algorithm>
#include <cmath>

#include "audio/ChannelGates.h"
#include <cstdio>

#include "core/Text.h"

namespace osv {

using Level = DebugEvent::Level;
using Category = DebugEvent::Category;

namespace {

std::string fixed(const char* pattern, double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, pattern, value);
    return buffer;
}

std::string firstCharacters(const std::string& text, std::size_t count) {
    std::string out;
    for (auto c : text::graphemes(text)) {
        if (count-- == 0) break;
        out += c;
    }
    return out;
}

}  // namespace

LiveIngestion::LiveIngestion(Scheduler& scheduler, LiveTranscriptSession& session, TranslationDispatch& dispatch,
                             Host& host)
    : scheduler_(scheduler), session_(session), dispatch_(dispatch), host_(host) {}

void LiveIngestion::reset() {
    cancelTimers();
    unheardDeltas_.clear();
    lastBoundaryAt_.clear();
    lastSourceEventAt_.clear();
    lastTranslationEventAt_.clear();
    sourceEventCounts_.clear();
    translationEventCounts_.clear();
    longestAcceptedGap_ = 0;
    lastDeltaAt_.reset();
    hasEverReceivedDelta_ = false;
    realtimeSpeechAnchorAt.reset();
}

void LiveIngestion::cancelTimers() { finalizeTasks_.clear(); }

int LiveIngestion::unheardDeltas(CaptureChannel channel) const {
    auto it = unheardDeltas_.find(channel);
    return it == unheardDeltas_.end() ? 0 : it->second;
}

std::optional<Date> LiveIngestion::lastBoundaryAt(CaptureChannel channel) const {
    auto it = lastBoundaryAt_.find(channel);
    return it == lastBoundaryAt_.end() ? std::nullopt : std::optional<Date>(it->second);
}

bool LiveIngestion::hasPendingFinalization(CaptureChannel channel) const {
    auto it = finalizeTasks_.find(channel);
    return it != finalizeTasks_.end() && it->second.isPending();
}

void LiveIngestion::ingestRealtimeDelta(const std::string& text, TranscriptSegmenter::DeltaKind kind,
                                        CaptureChannel channel, const Uuid& recordingID) {
    const Date now = scheduler_.now();
    const bool isSource = kind == TranscriptSegmenter::DeltaKind::source;

    // The speech gate comes first, so that text made up from silence costs nothing else.
    if (const SpeechWitness* witness = host_.witness(channel); witness && witness->shouldDrop(now)) {
        const int count = ++unheardDeltas_[channel];
        if (count == 1) {
            const std::string age = witness->lastSpeechAt ? fixed("%.1f", now - *witness->lastSpeechAt) : "整场";
            host_.debug(Level::warning, Category::transcription, "丢弃了没人说话时返回的原文",
                        "channel: " + std::string(rawValue(channel)) + "\n这一路已经安静了 " + age +
                            "s，而识别仍在返回文本：" + firstCharacters(text, 40) +
                            "\n本次会话该声道后续的同类丢弃只计数，不再逐条记录。",
                        "unheard_delta_dropped");
        }
        host_.resetReconnectAttempts(channel);
        if (isSource) lastSourceEventAt_[channel] = now;
        lastDeltaAt_ = now;
        return;
    }
    if (const SpeechWitness* witness = host_.witness(channel); witness && witness->lastSpeechAt)
        longestAcceptedGap_ = std::max(longestAcceptedGap_, now - *witness->lastSpeechAt);

    host_.resetReconnectAttempts(channel);
    if (isSource) {
        lastSourceEventAt_[channel] = now;
        ++sourceEventCounts_[channel];
    } else {
        lastTranslationEventAt_[channel] = now;
        ++translationEventCounts_[channel];
    }
    lastDeltaAt_ = now;

    const auto directive = session_.ingest(text, kind, channel, now, realtimeSpeechAnchorAt);
    if (!directive) return;

    if (!hasEverReceivedDelta_) {
        hasEverReceivedDelta_ = true;
        const auto latencyMs = std::llround((now - realtimeSpeechAnchorAt.value_or(sessionStartedAt)) * 1000.0);
        host_.debug(Level::info, Category::transcription, "同传首个结果",
                    "engine: realtime\nfirstVisibleLatencyMs: " + std::to_string(latencyMs) + "\nchannel: " +
                        std::string(rawValue(channel)) + "\nkind: " + (isSource ? "source" : "streamedTranslation"),
                    "live_first_visible_latency");
    }
    host_.transcriptChanged();
    dispatch_.submitClaimed(recordingID);
    scheduleRealtimeFinalization(recordingID, channel, directive->delay, directive->reason);
}

void LiveIngestion::scheduleRealtimeFinalization(const Uuid& recordingID, CaptureChannel channel, double delay,
                                                 BoundaryReason reason) {
    // Each delta pushes the boundary back: it takes effect once the channel was quiet for `delay`.
    finalizeTasks_[channel] = scheduler_.after(delay, [this, recordingID, channel, reason] {
        finalizeRealtimeSegment(recordingID, channel, reason);
    });
}

void LiveIngestion::finalizeRealtimeSegment(const Uuid& recordingID, CaptureChannel channel, BoundaryReason reason) {
    finalizeTasks_.erase(channel);
    const std::size_t before = session_.log().size();
    session_.closeUtterance(channel, reason, scheduler_.now());
    if (session_.log().size() == before) return;
    lastBoundaryAt_[channel] = scheduler_.now();

    std::vector<SentenceID> closed;
    const auto& events = session_.log().events;
    for (std::size_t i = before; i < events.size(); ++i)
        if (auto* c = std::get_if<TranscriptEvent::SentenceClosed>(&events[i].payload)) closed.push_back(c->id);
    std::size_t sourceCharacters = 0;
    // What just closed sits at the end of the timeline: look back only that far.
    const auto& sentences = session_.snapshot().sentences();
    std::size_t found = 0;
    for (std::size_t i = sentences.size(); i-- > 0 && found < closed.size() && sentences.size() - i <= 16;) {
        const Sentence& s = sentences[i];
        if (std::find(closed.begin(), closed.end(), s.id) == closed.end()) continue;
        sourceCharacters += text::graphemeCount(s.bestText());
        ++found;
    }
    const int sentenceCount = int(closed.size());
    host_.transcriptChanged();
    dispatch_.submitClaimed(recordingID);
    dispatch_.armGraceTimer(recordingID);
    host_.debug(Level::info, Category::transcription, "同传片段完成",
                "engine: realtime\nchannel: " + std::string(rawValue(channel)) + "\nreason: " +
                    std::string(rawValue(reason)) + "\nsentences: " + std::to_string(sentenceCount) +
                    "\nsourceChars: " + std::to_string(sourceCharacters) +
                    "\nsentencePass: " + (session_.configuredRouting.refineFinishedSentences ? "true" : "false"),
                std::nullopt);
    realtimeSpeechAnchorAt.reset();
}

void LiveIngestion::flushPendingReverseTranslation(const Uuid& recordingID) {
    const std::size_t before = session_.log().size();
    session_.finish(BoundaryReason::sessionEnd, scheduler_.now());
    if (session_.log().size() != before) host_.transcriptChanged();
    dispatch_.dispatchPendingTranslations(recordingID);
}

void LiveIngestion::reportUnheardDeltas() {
    int total = 0;
    for (const auto& [channel, n] : unheardDeltas_) total += n;
    const std::string gap = "\n接受的原文里，距最近一次语音最久的一条: " + fixed("%.1f", longestAcceptedGap_) +
                            "s（见 SpeechWitness）\n门限: " + fixed("%.0f", SpeechWitness::kMaximumSilenceSeconds) + "s";
    if (total > 0)
        host_.debug(Level::warning, Category::transcription, "本场丢弃了 " + std::to_string(total) + " 条没人说话时返回的原文",
                    gap.substr(1), "unheard_delta_summary");
    else
        host_.debug(Level::info, Category::transcription, "静音门本场没有丢弃任何原文", gap.substr(1),
                    "unheard_delta_summary");
}

}  // namespace osv
