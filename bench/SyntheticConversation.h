#pragma once

// The synthetic conversation the benchmarks replay: three hours, two channels, a Japanese
// speaker on the system channel and a Chinese one on the microphone, with the
// controller's timed boundaries and sentence translations arriving after each sentence.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "transcript/TranscriptEvent.h"
#include "transcript/TranscriptSegmenter.h"

namespace osv::bench {

const std::vector<std::string> kJapanese = {"は", "い", "そ", "う", "で", "す", "ね", "見", "積", "も", "り", "に",
                                            "つ", "て", "説", "明", "し", "ま", "本", "日", "会", "議", "の", "件"};
const std::vector<std::string> kChinese = {"我", "们", "今", "天", "讨", "论", "一", "下", "价", "格", "的", "问",
                                           "题", "请", "先", "介", "绍", "这", "个", "方", "案", "好", "吧", "对"};

// One speaker: speaks in turns, a few characters a second, in deltas of 1 to 6 characters,
// with a sentence end every 10 to 30 characters.
struct Speaker {
    CaptureChannel channel = CaptureChannel::system;
    const std::vector<std::string>* alphabet = nullptr;
    double nextDeltaAt = 0;
    double turnEndsAt = 0;
    double quietUntil = 0;
    int charactersToSentenceEnd = 0;
    std::optional<TranscriptSegmenter::Directive> directive;
    double directiveArmedAt = 0;
};

struct Timing {
    double at;
    double micros;
};

inline double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, std::size_t(p * double(v.size())))];
}

constexpr double kSessionSeconds = 3 * 3600.0;
constexpr double kWindow = 600.0;

// Plays a three-hour two-channel conversation into `sink`: source deltas, the streamed
// translation beside them, the controller's timed boundaries, and sentence translations
// arriving a second or two after each sentence closes. The sink times what it measures.
template <class Sink>
void playConversation(Sink& sink) {
    std::mt19937 rng(42);
    auto uniform = [&](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); };
    auto between = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    std::vector<std::pair<double, TranscriptEvent>> translationsDue;
    std::size_t eventsSeen = 0;
    Speaker speakers[2];
    speakers[0].channel = CaptureChannel::system;
    speakers[0].alphabet = &kJapanese;
    speakers[1].channel = CaptureChannel::microphone;
    speakers[1].alphabet = &kChinese;
    speakers[1].quietUntil = 20;

    auto fireTimer = [&](Speaker& s, double until) {
        // The controller's timed boundary: fires when no delta came within its delay.
        if (s.directive && s.directiveArmedAt + s.directive->delay <= until) {
            sink.closeUtterance(s.channel, s.directive->reason, Date(s.directiveArmedAt + s.directive->delay));
            s.directive.reset();
        }
    };

    for (;;) {
        Speaker& s = speakers[0].nextDeltaAt <= speakers[1].nextDeltaAt ? speakers[0] : speakers[1];
        const double now = std::max(s.nextDeltaAt, s.quietUntil);
        if (now > kSessionSeconds) break;
        fireTimer(speakers[0], now);
        fireTimer(speakers[1], now);
        while (!translationsDue.empty() && translationsDue.front().first <= now) {
            sink.append(std::move(translationsDue.front().second));
            translationsDue.erase(translationsDue.begin());
        }
        if (now >= s.turnEndsAt) {
            s.turnEndsAt = now + uniform(4, 25);
            s.charactersToSentenceEnd = between(10, 30);
        }
        std::string text;
        for (int i = between(1, 6); i > 0; --i) {
            text += (*s.alphabet)[std::size_t(between(0, int(s.alphabet->size()) - 1))];
            if (--s.charactersToSentenceEnd == 0) {
                text += s.channel == CaptureChannel::system ? "。" : "？";
                s.charactersToSentenceEnd = between(10, 30);
            }
        }
        s.directive = sink.delta(text, s.channel, Date(now), Date(now - 0.3));
        s.directiveArmedAt = now;
        if (s.channel == CaptureChannel::system && between(0, 1) == 0)
            sink.streamed("訳文", s.channel, Date(now + 0.1));

        // Each newly closed sentence gets its translation a little later.
        const TranscriptEventLog& log = sink.log();
        for (; eventsSeen < log.size(); ++eventsSeen) {
            if (auto* c = std::get_if<TranscriptEvent::SentenceClosed>(&log.events[eventsSeen].payload)) {
                const double at = now + uniform(0.8, 2.5);
                translationsDue.push_back({at, TranscriptEvent{Uuid::random(), Date(at), std::nullopt,
                                                               log.events[eventsSeen].channel,
                                                               TranscriptEvent::SentenceTranslated{
                                                                   c->id, "译文", TranslationOrigin::refined}}});
            }
        }
        s.nextDeltaAt = now + uniform(0.4, 1.4);
        if (s.nextDeltaAt > s.turnEndsAt) s.quietUntil = s.turnEndsAt + uniform(2, 15);
    }
}

using Clock = std::chrono::steady_clock;
inline double microsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

}  // namespace osv::bench
