#pragma once

// Random but plausible sessions, made by driving the real segmenter with random deltas on
// two channels and mixing in the session's result events. For property tests.

#include <random>
#include <string>
#include <vector>

#include "transcript/TranscriptSegmenter.h"

namespace osv::testing {

inline TranscriptEventLog randomSession(std::mt19937& rng, int steps, bool finish = true) {
    using E = TranscriptEvent;
    static const std::vector<std::string> pieces = {"你", "好", "說", "話", "今天", "天气", "。", "！", "？", "?",
                                                    " ", "はい", "そう", "です", "東京", "、", "，", "\n", "ガ",
                                                    "OK", "嗯", "…", "e\u0301", "ア"};
    TranscriptSegmenter segmenter;
    TranscriptEventLog log;
    std::vector<SentenceID> ids;
    double now = 100.0;
    auto pick = [&](int n) { return int(rng() % unsigned(n)); };
    auto randomText = [&] {
        std::string s;
        for (int k = 1 + pick(6); k > 0; --k) s += pieces[std::size_t(pick(int(pieces.size())))];
        return s;
    };
    auto someID = [&] {
        if (ids.empty() || pick(8) == 0) return SentenceID{Uuid::random()};
        return ids[std::size_t(pick(int(ids.size())))];
    };
    for (int step = 0; step < steps; ++step) {
        now += 0.05 * pick(20);
        const CaptureChannel channel = pick(3) == 0 ? CaptureChannel::microphone : CaptureChannel::system;
        const std::size_t before = log.size();
        const int action = pick(100);
        if (action < 55) {
            std::optional<Date> anchor;
            if (pick(3) == 0) anchor = Date(now - 0.1 * pick(40));
            segmenter.ingest(randomText(), TranscriptSegmenter::DeltaKind::source, channel, Date(now), anchor, log);
        } else if (action < 70) {
            segmenter.ingest(randomText(), TranscriptSegmenter::DeltaKind::streamedTranslation, channel, Date(now),
                             std::nullopt, log);
        } else if (action < 78) {
            segmenter.closeUtterance(channel, pick(2) ? BoundaryReason::idle : BoundaryReason::punctuation, Date(now),
                                     log);
        } else if (action < 80) {
            segmenter.buildFromTranslation(pick(2) == 0, channel, Date(now), log);
        } else if (action < 88) {
            const auto origin = static_cast<TranslationOrigin>(pick(4));
            log.append(E{Uuid::random(), Date(now), std::nullopt, channel,
                         E::SentenceTranslated{someID(), randomText(), origin}});
        } else if (action < 92) {
            std::optional<Date> none;
            log.append(E{Uuid::random(), Date(now), none, channel,
                         E::SourceRevised{someID(), randomText(), static_cast<SourceRevisionOrigin>(pick(2))}});
        } else if (action < 95) {
            log.append(E{Uuid::random(), Date(now), std::nullopt, channel, E::SentenceTranslationFailed{someID(), "失败"}});
        } else if (action < 97) {
            log.append(E{Uuid::random(), Date(now), std::nullopt, channel, E::SentenceFurigana{someID(), randomText()}});
        } else {
            const std::string written = pick(4) == 0 ? "" : pieces[std::size_t(pick(6))];
            log.append(E{Uuid::random(), Date(now), std::nullopt, CaptureChannel::system,
                         E::GlossaryLearned{{GlossaryTerm{written, randomText(), randomText()}}}});
        }
        for (std::size_t i = before; i < log.size(); ++i) {
            if (auto* c = std::get_if<E::SentenceClosed>(&log.events[i].payload)) ids.push_back(c->id);
            if (std::holds_alternative<E::SourceDelta>(log.events[i].payload)) ids.push_back(SentenceID{log.events[i].id});
        }
    }
    if (finish) segmenter.finish(BoundaryReason::sessionEnd, Date(now + 1), log);
    return log;
}

}  // namespace osv::testing
