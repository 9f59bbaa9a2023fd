#pragma once

// The vocabulary of a session's record: one ordered, append-only list of immutable
// events. Everything shown or stored about a conversation is recomputed from it.

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/Date.h"
#include "core/Uuid.h"
#include "transcript/CaptureChannel.h"
#include "transcript/GlossaryTerm.h"
#include "transcript/TranscriptIds.h"

namespace osv {

// Why a sentence or an utterance ended. The enumerator order is the comparison order.
enum class BoundaryReason { punctuation, idle, lengthCap, channelChange, sessionEnd };

// Who produced a translation.
enum class TranslationOrigin { streamed, refined, reverseToJapanese, provisional };

// Who corrected a source text.
enum class SourceRevisionOrigin { repaired, contextual };

std::string_view rawValue(BoundaryReason r);
std::string_view rawValue(TranslationOrigin o);
std::string_view rawValue(SourceRevisionOrigin o);
std::optional<BoundaryReason> boundaryReasonFromRaw(std::string_view raw);
std::optional<TranslationOrigin> translationOriginFromRaw(std::string_view raw);
std::optional<SourceRevisionOrigin> sourceRevisionOriginFromRaw(std::string_view raw);

struct TranscriptEvent {
    // Written by the segmenter.
    struct SourceDelta {
        std::string text;
        bool operator==(const SourceDelta&) const = default;
    };
    struct StreamedTranslationDelta {
        std::string text;
        bool operator==(const StreamedTranslationDelta&) const = default;
    };
    struct SentenceClosed {
        SentenceID id;
        BoundaryReason reason;
        bool operator==(const SentenceClosed&) const = default;
    };
    struct UtteranceClosed {
        BoundaryReason reason;
        bool operator==(const UtteranceClosed&) const = default;
    };
    // Written by the session, from later language work.
    struct SentenceTranslated {
        SentenceID id;
        std::string text;
        TranslationOrigin origin;
        bool operator==(const SentenceTranslated&) const = default;
    };
    struct GlossaryLearned {
        std::vector<GlossaryTerm> terms;
        bool operator==(const GlossaryLearned&) const = default;
    };
    struct SourceRevised {
        SentenceID id;
        std::string text;
        SourceRevisionOrigin origin;
        bool operator==(const SourceRevised&) const = default;
    };
    struct SentenceFurigana {
        SentenceID id;
        std::string ruby;
        bool operator==(const SentenceFurigana&) const = default;
    };
    struct SentenceTranslationFailed {
        SentenceID id;
        std::string reason;
        bool operator==(const SentenceTranslationFailed&) const = default;
    };
    // From here on sentences of this channel are built from the translation stream.
    struct SourceStreamLost {
        bool operator==(const SourceStreamLost&) const = default;
    };
    // Source recognition is back.
    struct SourceStreamRestored {
        bool operator==(const SourceStreamRestored&) const = default;
    };

    using Payload = std::variant<SourceDelta, StreamedTranslationDelta, SentenceClosed, UtteranceClosed,
                                 SentenceTranslated, GlossaryLearned, SourceRevised, SentenceFurigana,
                                 SentenceTranslationFailed, SourceStreamLost, SourceStreamRestored>;

    Uuid id;
    // The moment on the speech timeline; the first delta of an utterance is stamped back
    // to when speech began.
    Date at;
    // When the delta or boundary actually arrived; none where the two cannot differ.
    std::optional<Date> receivedAt;
    CaptureChannel channel = CaptureChannel::system;
    Payload payload;

    bool operator==(const TranscriptEvent&) const = default;
};

// The case name of a payload, as it stands in JSON ("sourceDelta", ...).
std::string_view payloadName(const TranscriptEvent::Payload& payload);

// The session's record. A value: copying copies the list. List order is the order of
// appending and is authoritative; nothing is ever sorted by `at`.
struct TranscriptEventLog {
    std::vector<TranscriptEvent> events;

    void append(TranscriptEvent event) { events.push_back(std::move(event)); }
    std::size_t size() const { return events.size(); }
    bool empty() const { return events.empty(); }

    // Joins each run of deltas of one channel and stream that no other event of that
    // channel interrupts into one event, keeping the first delta's id and times. Folding
    // the result gives the same sentences, ids and order. Idempotent; linear.
    TranscriptEventLog compacted() const;

    bool operator==(const TranscriptEventLog&) const = default;
};

}  // namespace osv
