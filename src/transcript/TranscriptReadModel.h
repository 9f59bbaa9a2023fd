#pragma once

// Turns the event log into what everything else reads. A Fold is an incremental reducer:
// it remembers how many events it consumed and advances over the rest; snapshot() gives
// the immutable result. A fresh fold over a stored log and a live fold advanced event by
// event give exactly the same snapshot.
//
// Main thread when it belongs to a live session; replay and revalidation fold their own
// copies. A fold is only ever advanced over the same, growing log.

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "core/SharedText.h"
#include "core/Text.h"
#include "transcript/CaptionGrouping.h"
#include "transcript/TranscriptEvent.h"
#include "transcript/TranscriptSnapshot.h"

namespace osv::TranscriptReadModel {

// A span of text being accumulated. Empty while it has no text. The text only grows by
// append() until the run is replaced by a new one.
struct Run {
    std::optional<Uuid> anchor;  // id of the first delta event
    std::optional<Date> startedAt;
    std::optional<Date> lastAt;
    std::string text;

    bool isEmpty() const { return text.empty(); }
    void append(std::string_view more, const Uuid& eventID, Date at);
    // displayForm(text). A snapshot is taken per delta, so the simplified-Chinese
    // transform runs incrementally as text arrives and the result is remembered until
    // the text grows; the cost of a delta then doesn't grow with the span.
    const std::string& displayText() const;

private:
    CaptionGrouping::ChineseLook look_;
    text::IncrementalSimplifier simplified_;  // fed while the text may still look Chinese
    mutable std::optional<std::size_t> displayedSize_;
    mutable std::string displayed_;
};

// Open spans of one channel: the source stream's and the translation stream's.
struct ChannelState {
    Run utterance;
    Run sentence;
    Run translationUtterance;
    Run translationSentence;
    std::vector<UtteranceID> spannedUtteranceIDs;
    std::vector<UtteranceID> translationSpannedUtteranceIDs;
    bool buildsFromTranslation = false;

    void appendSource(std::string_view text, const Uuid& eventID, Date at);
    void appendStreamed(std::string_view text, const Uuid& eventID, Date at);
    // The sentence under way, closed under `id`; none when nothing non-blank is under way.
    // Resets the sentence runs either way.
    std::optional<Sentence> closeSentence(const SentenceID& id, CaptureChannel channel, Date at);
    std::optional<Utterance> closeUtterance(CaptureChannel channel, Date at);
    std::optional<Utterance> openUtterance(CaptureChannel channel) const;
    std::optional<Sentence> openSentence(CaptureChannel channel) const;
    // The streamed translation of the utterance under way while the source builds the
    // sentences: the running tail a live caption shows until sentence translations come.
    std::optional<std::string> translationTail() const;

private:
    std::optional<Sentence> sentenceUnderWay(CaptureChannel channel, std::optional<SentenceID> id,
                                             std::optional<Date> closingAt) const;
    std::optional<Utterance> utteranceUnderWay(CaptureChannel channel, std::optional<Date> closingAt) const;
};

// Trimmed, and folded to simplified characters when it looks Chinese.
std::string displayForm(std::string_view text);

class Fold {
public:
    // Consumes the events of `log` beyond those already consumed.
    void advance(const TranscriptEventLog& log);
    // Brings the closed cache up to date if needed and returns the snapshot.
    TranscriptSnapshot snapshot();

    std::size_t consumedEventCount() const { return consumedEventCount_; }
    std::size_t closedSentenceCount() const { return closedSentences_.size(); }
    bool closedCacheIsStale() const { return closedCacheIsStale_; }

    // Rebuilds the closed cache from scratch at the next snapshot, as a fresh fold would.
    // Used by tests to prove the incremental path right.
    void forceFullRebuild() { fullRebuildNeeded_ = true, closedCacheIsStale_ = true; }

private:
    template <class T>
    struct Ordered {
        std::size_t index;  // position of closing
        T value;
    };
    struct OrderKey {
        Date startedAt;
        std::size_t index;
        bool operator<(const OrderKey& o) const {
            return startedAt != o.startedAt ? startedAt < o.startedAt : index < o.index;
        }
    };
    // Closed work, ordered and bound; rebuilt only when something closed changed.
    struct ClosedCache {
        PersistentList<Utterance> utterances;
        PersistentList<Sentence> sentences;
        std::shared_ptr<const TranscriptSnapshot::UnboundTranslations> unboundTranslations;
        std::shared_ptr<const std::vector<GlossaryTerm>> glossary;
    };

    void apply(const TranscriptEvent& event);
    void markStale() { closedCacheIsStale_ = true; }
    Sentence bind(Sentence sentence) const;
    void rebuildClosedCache();
    void updateClosedCacheIncrementally();
    void publishUnboundTranslations();

    std::map<CaptureChannel, ChannelState> channels_;
    std::vector<Ordered<Utterance>> closedUtterances_;
    std::vector<Ordered<Sentence>> closedSentences_;
    std::unordered_map<SentenceID, std::vector<Translation>> translations_;
    std::unordered_map<SentenceID, std::vector<SourceRevision>> revisions_;
    std::unordered_map<SentenceID, int> sourceCharacterCounts_;
    std::unordered_map<std::string, GlossaryTerm> glossary_;
    std::vector<std::string> glossaryOrder_;
    std::unordered_map<SentenceID, std::string> failures_;
    std::map<CaptureChannel, SharedText> streams_;
    std::unordered_map<SentenceID, std::string> readings_;
    std::size_t consumedEventCount_ = 0;
    ClosedCache closedCache_;
    bool closedCacheIsStale_ = false;

    // Bookkeeping that lets the cache follow changes instead of being rebuilt: what closed
    // or changed since the cache was last brought up to date, and where things stand in it.
    bool fullRebuildNeeded_ = true;
    std::vector<std::size_t> sentencesToPlace_;
    std::vector<std::size_t> utterancesToPlace_;
    std::unordered_set<SentenceID> idsToRebind_;
    bool glossaryChanged_ = false;
    std::unordered_map<SentenceID, std::vector<std::size_t>> closedIndicesByID_;
    std::vector<OrderKey> sentenceKeys_;   // parallel to closedCache_.sentences
    std::vector<OrderKey> utteranceKeys_;  // parallel to closedCache_.utterances
    TranscriptSnapshot::UnboundTranslations unbound_;
    unsigned closedChannelMask_ = 0;
};

}  // namespace osv::TranscriptReadModel
