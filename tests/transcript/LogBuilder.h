#pragma once

// Builds event logs by hand for tests, with readable ids.

#include "transcript/TranscriptEvent.h"

namespace osv::testing {

inline Uuid uuidNumber(int n) {
    std::array<std::uint8_t, 16> b{};
    b[14] = std::uint8_t(n >> 8);
    b[15] = std::uint8_t(n);
    return Uuid(b);
}
inline SentenceID sid(int n) { return SentenceID{uuidNumber(n)}; }

class LogBuilder {
public:
    using E = TranscriptEvent;
    TranscriptEventLog log;

    // Adds an event with id `n` (or the next free number).
    LogBuilder& add(CaptureChannel channel, double at, E::Payload payload, std::optional<double> receivedAt = {},
                    int n = 0) {
        const int number = n ? n : ++next_;
        log.append(E{uuidNumber(number), Date(at), receivedAt ? std::optional<Date>(Date(*receivedAt)) : std::nullopt,
                     channel, std::move(payload)});
        return *this;
    }
    LogBuilder& source(CaptureChannel c, double at, std::string text, int n = 0) {
        return add(c, at, E::SourceDelta{std::move(text)}, std::nullopt, n);
    }
    LogBuilder& streamed(CaptureChannel c, double at, std::string text, int n = 0) {
        return add(c, at, E::StreamedTranslationDelta{std::move(text)}, std::nullopt, n);
    }
    LogBuilder& closeSentence(CaptureChannel c, double at, int sentence,
                              BoundaryReason r = BoundaryReason::punctuation) {
        return add(c, at, E::SentenceClosed{sid(sentence), r});
    }
    LogBuilder& closeUtterance(CaptureChannel c, double at, BoundaryReason r = BoundaryReason::idle) {
        return add(c, at, E::UtteranceClosed{r});
    }
    LogBuilder& translate(CaptureChannel c, double at, int sentence, std::string text,
                          TranslationOrigin o = TranslationOrigin::refined) {
        return add(c, at, E::SentenceTranslated{sid(sentence), std::move(text), o});
    }
    LogBuilder& revise(CaptureChannel c, double at, int sentence, std::string text,
                       SourceRevisionOrigin o = SourceRevisionOrigin::repaired) {
        return add(c, at, E::SourceRevised{sid(sentence), std::move(text), o});
    }
    LogBuilder& fail(CaptureChannel c, double at, int sentence, std::string reason) {
        return add(c, at, E::SentenceTranslationFailed{sid(sentence), std::move(reason)});
    }

private:
    int next_ = 1000;
};

constexpr auto kSystem = CaptureChannel::system;
constexpr auto kMic = CaptureChannel::microphone;

}  // namespace osv::testing
