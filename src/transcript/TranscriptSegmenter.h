#pragma once

// Decides where sentences and utterances end. Takes each delta of recognised speech or
// streamed translation, appends the matching events to the log, closes sentences when a
// boundary is certain and tells the caller which timed boundary to arm when one is only
// likely. Holds no timers and reads no clock: every call gets its time, so that a log can
// be rebuilt deterministically. Main thread only, through its owning session.

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Date.h"
#include "core/Uuid.h"
#include "transcript/TranscriptEvent.h"

namespace osv {

class TranscriptSegmenter {
public:
    struct Config {
        double punctuationDelay = 0.6;       // seconds text ending on an ender waits for more
        double idleDelay = 2.6;              // seconds text without an ender waits
        int maxUnpunctuatedCharacters = 48;  // length cap without an ender, in characters
    };

    // Open state of one channel.
    struct Pending {
        std::string source;    // source text of the sentence under way
        std::string streamed;  // translation since the last utterance end; the sentence
                               // under way when building from translation
        bool buildsFromTranslation = false;
        std::optional<Date> lastClosedAt;  // when this channel's last utterance ended
        std::optional<Uuid> identity;      // id of the first delta of the sentence under way
        bool hasOpenUtterance = false;

        bool operator==(const Pending&) const = default;
    };

    enum class DeltaKind { source, streamedTranslation };

    // The timed boundary the caller must arm after a delta.
    struct Directive {
        BoundaryReason reason;  // punctuation or idle
        double delay;           // seconds
        bool operator==(const Directive&) const = default;
    };

    struct Pieces {
        bool closeFirst = false;
        std::string leading;
        std::vector<std::string> pieces;
        bool operator==(const Pieces&) const = default;
    };

    Config config;
    std::map<CaptureChannel, Pending> channels;  // a channel that never spoke has no entry

    TranscriptSegmenter() = default;
    explicit TranscriptSegmenter(Config c) : config(c) {}

    // Processes one delta arriving at `at`. `speechAnchor` is when speech was last heard to
    // start on the channel; the first delta of an utterance is stamped back to it. None
    // for an empty delta, otherwise always a directive.
    std::optional<Directive> ingest(std::string_view text, DeltaKind kind, CaptureChannel channel, Date at,
                                    std::optional<Date> speechAnchor, TranscriptEventLog& log);
    // Ends the channel's utterance (the service reported a turn end, or a timer fired).
    void closeUtterance(CaptureChannel channel, BoundaryReason reason, Date at, TranscriptEventLog& log);
    // Makes the translation stream the building stream (true) or the source again (false).
    void buildFromTranslation(bool flag, CaptureChannel channel, Date at, TranscriptEventLog& log);
    // Closes everything on both channels and forgets the state.
    void finish(BoundaryReason reason, Date at, TranscriptEventLog& log);

    // "。！？!?": the only characters that end a sentence.
    static bool isSentenceEnder(std::string_view character);
    // The trimmed text ends on a sentence ender.
    static bool endsOnEnder(std::string_view text);
    // Some character is neither punctuation, white space nor a symbol.
    static bool carriesSentence(std::string_view text);
    static Pieces sentencePieces(std::string_view text, std::string_view current);
    static std::optional<BoundaryReason> closingReason(std::string_view text, int limit);
    static Directive boundaryDirective(const Pending& pending, const Config& config);

private:
    static void closeSentence(Pending& pending, CaptureChannel channel, BoundaryReason reason, Date at,
                              Date receivedAt, TranscriptEventLog& log);
};

}  // namespace osv
