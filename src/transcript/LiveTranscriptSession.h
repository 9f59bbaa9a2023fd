#pragma once

// The transcript of the session on air: the log, the segmenter, the fold and a cached
// snapshot kept consistent by one path of appending, and the bookkeeping of which
// background work was claimed for which sentence. A claim both selects and marks, so a
// sentence is never handed out twice. Main thread only: every public operation checks it.

#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "transcript/CaptionBlocks.h"
#include "transcript/TranscriptReadModel.h"
#include "transcript/TranscriptSegmenter.h"
#include "transcript/TranslationRouter.h"

namespace osv {

class LiveTranscriptSession {
public:
    struct FuriganaClaim {
        SentenceID id;
        std::string japanese;
        CaptureChannel channel;
        bool operator==(const FuriganaClaim&) const = default;
    };

    explicit LiveTranscriptSession(TranslationRouter::Config routing = {}, TranscriptSegmenter segmenter = {});

    // Set by the controller from the settings; kept across reset().
    TranslationRouter::Config configuredRouting;
    bool labelsChannels = false;

    // Reading.
    const TranscriptEventLog& log() const { return log_; }
    const TranscriptSegmenter& segmenter() const { return segmenter_; }
    TranscriptSegmenter::Config& segmenterConfig() { return segmenter_.config; }
    // The cached snapshot, made anew only after the log changed. Valid until the next change.
    const TranscriptSnapshot& snapshot();
    // configuredRouting, but channels count as separated only once the second channel
    // has actually produced a sentence.
    TranslationRouter::Config routing();

    // The one path of appending: each call appends through the segmenter (or directly, for
    // results of later language work), advances the fold and drops the cached snapshot.
    std::optional<TranscriptSegmenter::Directive> ingest(std::string_view text, TranscriptSegmenter::DeltaKind kind,
                                                         CaptureChannel channel, Date at,
                                                         std::optional<Date> speechAnchor);
    void closeUtterance(CaptureChannel channel, BoundaryReason reason, Date at);
    void buildFromTranslation(bool flag, CaptureChannel channel, Date at);
    void finish(BoundaryReason reason, Date at);
    // A result event (sentenceTranslated, sourceRevised, sentenceFurigana, ...).
    void append(TranscriptEvent event);
    // Session-wide terms, filed on `system` at `at`; nothing for an empty list.
    void attachGlossary(const std::vector<GlossaryTerm>& terms, Date at);

    // Forgets the session; the configuration and the segmenter's limits stay.
    void reset();

    // Claims.
    std::vector<TranslationRouter::Request> claimPendingRequests(Date now);
    std::vector<TranslationRouter::Request> claimProvisionalRequests();
    std::vector<TranslationRouter::Request> claimPendingRepairs();
    std::vector<FuriganaClaim> claimPendingFurigana(Date now);
    std::optional<std::vector<std::string>> claimSummaryScan(int stride);
    std::optional<std::vector<std::string>> claimGlossaryScan(int stride, int window);
    std::optional<std::vector<Sentence>> claimContextRepair(int stride, int window, bool force);
    // Failed sentences become claimable again; then claimPendingRequests(now).
    std::vector<TranslationRouter::Request> retryFailedTranslations(Date now);

    // The caption blocks of the session on air. Blocks of paragraphs whose sentences have
    // settled are frozen and reused, so a refresh costs the live tail, not the session.
    CaptionBlockList captionBlocks(bool translates, Date now);
    // Drops the frozen blocks; the next refresh rebuilds them. Appending a result for a
    // frozen sentence does this by itself.
    void thawCaptions();

    // The best texts of the last `limit` closed sentences with a source, leaving out `excluding`.
    std::vector<std::string> contextForRepair(const std::vector<SentenceID>& excluding, int limit);

    // Sentences that started this long before a claim, closed and claimed (or owed nothing),
    // are settled: later claims walk from past them, so that their cost stays flat over hours.
    static constexpr double kClaimsSettleSeconds = 120.0;
    // The earliest moment after `now` at which a sentence held for its repair is due.
    std::optional<Date> nextDeadline(Date now);

    // How many characters a draft must have grown by before it is drafted again.
    static constexpr std::size_t kProvisionalStep = 16;

private:
    void didAppend();
    void checkThread() const;
    std::vector<const Sentence*> closedSentences();

    std::thread::id owner_;
    TranscriptEventLog log_;
    TranscriptSegmenter segmenter_;
    TranscriptReadModel::Fold fold_;
    std::optional<TranscriptSnapshot> cachedSnapshot_;
    std::set<SentenceID> attempted_;
    std::map<SentenceID, std::string> annotated_;
    std::map<SentenceID, std::size_t> provisionallyAttempted_;
    std::set<SentenceID> repaired_;
    struct Shape {
        bool labelsChannels;
        bool translates;
        TranslationRouter::Config routing;
        bool operator==(const Shape&) const = default;
    };
    PersistentList<CaptionGrouping::CaptionBlock> frozenBlocks_;
    std::size_t frozenSentenceCount_ = 0;
    std::set<SentenceID> frozenSentenceIDs_;
    std::optional<SentenceID> lastFrozenSentenceID_;
    // The sentence that followed the frozen head when it last grew: a sentence slipped in
    // between (an anchor reaching back) could have joined the last frozen paragraph.
    std::optional<SentenceID> firstLiveSentenceID_;
    std::optional<Shape> frozenShape_;
    // Claims walk from here: every sentence before it is settled (see kClaimsSettleSeconds).
    std::size_t claimsFrom(const TranslationRouter::Config& config);
    void advanceClaimsWatermark(Date now);
    void resetClaimsWatermark();
    std::size_t claimsSettled_ = 0;
    std::set<SentenceID> claimsSettledIDs_;
    std::optional<TranslationRouter::Config> claimsConfig_;
    std::size_t glossaryScannedAt_ = 0;
    std::size_t summarizedAt_ = 0;
    std::size_t contextRepairedAt_ = 0;
};

// A sentence has a source unless it was built from the streamed translation.
bool hasSource(const Sentence& sentence);

}  // namespace osv
