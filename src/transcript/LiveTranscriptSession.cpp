#include "transcript/LiveTranscriptSession.h"

#include <algorithm>

#include "core/Assert.h"
#include "core/Text.h"
#include "transcript/CaptionGrouping.h"
#include "transcript/FuriganaMarkup.h"

namespace osv {

bool hasSource(const Sentence& s) {
    if (!s.text.empty()) return true;
    const Translation* standing = Sentence::standing(s.translations);
    return !(standing && standing->origin == TranslationOrigin::streamed);
}

LiveTranscriptSession::LiveTranscriptSession(TranslationRouter::Config routing, TranscriptSegmenter segmenter)
    : configuredRouting(routing), owner_(std::this_thread::get_id()), segmenter_(std::move(segmenter)) {}

void LiveTranscriptSession::checkThread() const {
    OSV_CHECK(std::this_thread::get_id() == owner_, "live transcript session used off its thread");
}

void LiveTranscriptSession::didAppend() {
    fold_.advance(log_);
    cachedSnapshot_.reset();
}

const TranscriptSnapshot& LiveTranscriptSession::snapshot() {
    checkThread();
    if (!cachedSnapshot_) cachedSnapshot_ = fold_.snapshot();
    return *cachedSnapshot_;
}

TranslationRouter::Config LiveTranscriptSession::routing() {
    TranslationRouter::Config r = configuredRouting;
    r.separatedChannels = configuredRouting.separatedChannels && snapshot().usesMultipleChannels();
    return r;
}

std::optional<TranscriptSegmenter::Directive> LiveTranscriptSession::ingest(std::string_view text,
                                                                           TranscriptSegmenter::DeltaKind kind,
                                                                           CaptureChannel channel, Date at,
                                                                           std::optional<Date> speechAnchor) {
    checkThread();
    auto directive = segmenter_.ingest(text, kind, channel, at, speechAnchor, log_);
    didAppend();
    return directive;
}

void LiveTranscriptSession::closeUtterance(CaptureChannel channel, BoundaryReason reason, Date at) {
    checkThread();
    segmenter_.closeUtterance(channel, reason, at, log_);
    didAppend();
}

void LiveTranscriptSession::buildFromTranslation(bool flag, CaptureChannel channel, Date at) {
    checkThread();
    segmenter_.buildFromTranslation(flag, channel, at, log_);
    didAppend();
}

void LiveTranscriptSession::finish(BoundaryReason reason, Date at) {
    checkThread();
    segmenter_.finish(reason, at, log_);
    didAppend();
}

void LiveTranscriptSession::append(TranscriptEvent event) {
    checkThread();
    // A result for a frozen sentence changes its block: the head must be rebuilt.
    std::visit(
        [&](const auto& p) {
            if constexpr (requires { p.id; })
                if (frozenSentenceIDs_.count(p.id)) thawCaptions();
        },
        event.payload);
    // A revised source may make a settled sentence owed a pass again.
    if (auto* revised = std::get_if<TranscriptEvent::SourceRevised>(&event.payload);
        revised && claimsSettledIDs_.count(revised->id))
        resetClaimsWatermark();
    log_.append(std::move(event));
    didAppend();
}

void LiveTranscriptSession::thawCaptions() {
    frozenBlocks_ = {};
    frozenSentenceCount_ = 0;
    frozenSentenceIDs_.clear();
    lastFrozenSentenceID_.reset();
    firstLiveSentenceID_.reset();
}

CaptionBlockList LiveTranscriptSession::captionBlocks(bool translates, Date now) {
    checkThread();
    const Shape shape{labelsChannels, translates, routing()};
    if (frozenShape_ != shape) {
        // A change of a setting, or the second channel's arrival, rebuilds everything.
        thawCaptions();
        frozenShape_ = shape;
    }
    const TranscriptSnapshot& snap = snapshot();
    const auto& sentences = snap.sentences();
    if (frozenSentenceCount_ > 0) {
        const bool headMoved = frozenSentenceCount_ > sentences.size() ||
                               sentences[frozenSentenceCount_ - 1].id != lastFrozenSentenceID_ ||
                               (firstLiveSentenceID_ && (frozenSentenceCount_ >= sentences.size() ||
                                                         sentences[frozenSentenceCount_].id != *firstLiveSentenceID_));
        if (headMoved) thawCaptions();
    }

    const auto paragraphs = TranscriptSnapshot::paragraphs(frozenSentenceCount_, sentences);
    auto blocks = osv::captionBlocks(snap, paragraphs, labelsChannels, translates, shape.routing, true, now);

    // Freeze from the front, never the last paragraph: a paragraph whose sentences are all
    // closed and settled, and whose follower is closed too, so that nothing can still join it.
    std::size_t frozenNow = 0;
    for (std::size_t k = 0; k + 1 < paragraphs.size(); ++k) {
        const ParagraphRange& p = paragraphs[k];
        bool canFreeze = sentences[paragraphs[k + 1].first].isClosed;
        for (std::size_t i = p.first; canFreeze && i < p.first + p.count; ++i)
            canFreeze = hasSettled(sentences[i], now);
        if (!canFreeze) break;
        for (std::size_t i = p.first; i < p.first + p.count; ++i) frozenSentenceIDs_.insert(sentences[i].id);
        frozenSentenceCount_ += p.count;
        lastFrozenSentenceID_ = sentences[p.first + p.count - 1].id;
        firstLiveSentenceID_ = sentences[paragraphs[k + 1].first].id;
        frozenBlocks_.pushBack(std::move(blocks[k]));
        ++frozenNow;
    }
    blocks.erase(blocks.begin(), blocks.begin() + std::ptrdiff_t(frozenNow));
    return CaptionBlockList(frozenBlocks_, std::move(blocks));
}

void LiveTranscriptSession::attachGlossary(const std::vector<GlossaryTerm>& terms, Date at) {
    checkThread();
    if (terms.empty()) return;
    append(TranscriptEvent{Uuid::random(), at, std::nullopt, CaptureChannel::system,
                           TranscriptEvent::GlossaryLearned{terms}});
}

void LiveTranscriptSession::reset() {
    checkThread();
    log_ = TranscriptEventLog{};
    segmenter_.channels.clear();
    fold_ = TranscriptReadModel::Fold{};
    cachedSnapshot_.reset();
    thawCaptions();
    attempted_.clear();
    annotated_.clear();
    provisionallyAttempted_.clear();
    repaired_.clear();
    resetClaimsWatermark();
    claimsConfig_.reset();
    glossaryScannedAt_ = summarizedAt_ = contextRepairedAt_ = 0;
}

std::vector<const Sentence*> LiveTranscriptSession::closedSentences() {
    std::vector<const Sentence*> out;
    for (const Sentence& s : snapshot().sentences())
        if (s.isClosed) out.push_back(&s);
    return out;
}

void LiveTranscriptSession::resetClaimsWatermark() {
    claimsSettled_ = 0;
    claimsSettledIDs_.clear();
}

std::size_t LiveTranscriptSession::claimsFrom(const TranslationRouter::Config& config) {
    // Another configuration may owe settled sentences something: walk them all once.
    if (claimsConfig_ != config) {
        claimsConfig_ = config;
        resetClaimsWatermark();
    }
    return std::min(claimsSettled_, snapshot().sentences().size());
}

void LiveTranscriptSession::advanceClaimsWatermark(Date now) {
    const auto& sentences = snapshot().sentences();
    // Only past sentences that started long ago: a sentence closing later started recently,
    // so it is placed after them. An open sentence stops the walk.
    const Date limit = now - kClaimsSettleSeconds;
    while (claimsSettled_ < sentences.size()) {
        const Sentence& s = sentences[claimsSettled_];
        if (!s.isClosed || !(s.startedAt < limit)) break;
        claimsSettledIDs_.insert(s.id);
        ++claimsSettled_;
    }
}

std::vector<TranslationRouter::Request> LiveTranscriptSession::claimPendingRequests(Date now) {
    checkThread();
    const auto config = routing();
    const std::size_t from = claimsFrom(config);
    std::vector<TranslationRouter::Request> out;
    for (auto& r : TranslationRouter::pendingRequests(snapshot().sentences(), config, now, from))
        if (attempted_.insert(r.sentenceID).second) out.push_back(std::move(r));
    // Everything due now was claimed just now: what is left behind is settled.
    advanceClaimsWatermark(now);
    return out;
}

std::optional<Date> LiveTranscriptSession::nextDeadline(Date now) {
    checkThread();
    const auto config = routing();
    return TranslationRouter::nextDeadline(snapshot().sentences(), config, now, claimsFrom(config));
}

std::vector<TranslationRouter::Request> LiveTranscriptSession::claimProvisionalRequests() {
    checkThread();
    const auto config = routing();
    const std::size_t from = claimsFrom(config);
    std::vector<TranslationRouter::Request> out;
    for (auto& r : TranslationRouter::provisionalRequests(snapshot().sentences(), config, from)) {
        const std::size_t count = text::graphemeCount(r.text);
        auto it = provisionallyAttempted_.find(r.sentenceID);
        // A draft again only once the sentence has grown by a step: every delta would be too often.
        if (it != provisionallyAttempted_.end() && count < it->second + kProvisionalStep) continue;
        provisionallyAttempted_[r.sentenceID] = count;
        out.push_back(std::move(r));
    }
    return out;
}

std::vector<TranslationRouter::Request> LiveTranscriptSession::claimPendingRepairs() {
    checkThread();
    const auto config = routing();
    std::vector<TranslationRouter::Request> out;
    for (auto& r : TranslationRouter::repairRequests(snapshot().sentences(), config))
        if (repaired_.insert(r.sentenceID).second) out.push_back(std::move(r));
    return out;
}

std::vector<LiveTranscriptSession::FuriganaClaim> LiveTranscriptSession::claimPendingFurigana(Date now) {
    checkThread();
    std::vector<FuriganaClaim> out;
    for (const Sentence* s : closedSentences()) {
        std::string japanese;
        const Translation* t = s->captionTranslation(now, kCaptionSettleSeconds);
        if (t && CaptionGrouping::looksJapanese(t->text)) {
            japanese = t->text;
        } else {
            std::string caption = s->captionText(now, kCaptionSettleSeconds);
            if (!CaptionGrouping::looksJapanese(caption)) continue;
            japanese = std::move(caption);
        }
        if (!FuriganaMarkup::needsAnnotation(japanese)) continue;
        // A revised sentence is annotated again; the same text never is.
        auto it = annotated_.find(s->id);
        if (it != annotated_.end() && it->second == japanese) continue;
        annotated_[s->id] = japanese;
        out.push_back(FuriganaClaim{s->id, std::move(japanese), s->channel});
    }
    return out;
}

std::optional<std::vector<std::string>> LiveTranscriptSession::claimSummaryScan(int stride) {
    checkThread();
    const auto closed = closedSentences();
    if (closed.size() < summarizedAt_ + std::size_t(std::max(stride, 0))) return std::nullopt;
    std::vector<std::string> out;
    for (std::size_t i = summarizedAt_; i < closed.size(); ++i) {
        std::string readable = closed[i]->readableText();
        if (!readable.empty()) out.push_back(std::move(readable));
    }
    summarizedAt_ = closed.size();
    return out;
}

std::optional<std::vector<std::string>> LiveTranscriptSession::claimGlossaryScan(int stride, int window) {
    checkThread();
    const auto closed = closedSentences();
    if (closed.size() < glossaryScannedAt_ + std::size_t(std::max(stride, 0))) return std::nullopt;
    glossaryScannedAt_ = closed.size();
    std::vector<std::string> out;
    const std::size_t first = closed.size() - std::min(closed.size(), std::size_t(std::max(window, 0)));
    for (std::size_t i = first; i < closed.size(); ++i) {
        std::string readable = closed[i]->readableText();
        if (!readable.empty()) out.push_back(std::move(readable));
    }
    return out;
}

std::optional<std::vector<Sentence>> LiveTranscriptSession::claimContextRepair(int stride, int window, bool force) {
    checkThread();
    const auto closed = closedSentences();
    const std::size_t step = force ? 1 : std::size_t(std::max(stride, 0));
    if (contextRepairedAt_ + step > closed.size()) return std::nullopt;
    contextRepairedAt_ = closed.size();
    std::vector<Sentence> out;
    const std::size_t first = closed.size() - std::min(closed.size(), std::size_t(std::max(window, 0)));
    for (std::size_t i = first; i < closed.size(); ++i) {
        const Sentence& s = *closed[i];
        const bool contextual = std::any_of(s.revisions.begin(), s.revisions.end(), [](const SourceRevision& r) {
            return r.origin == SourceRevisionOrigin::contextual;
        });
        if (hasSource(s) && !contextual) out.push_back(s);
    }
    return out;
}

std::vector<TranslationRouter::Request> LiveTranscriptSession::retryFailedTranslations(Date now) {
    checkThread();
    for (const Sentence& s : snapshot().sentences())
        if (s.translationFailure) attempted_.erase(s.id);
    resetClaimsWatermark();  // failed sentences may lie anywhere
    return claimPendingRequests(now);
}

std::vector<std::string> LiveTranscriptSession::contextForRepair(const std::vector<SentenceID>& excluding, int limit) {
    checkThread();
    std::vector<std::string> out;
    for (const Sentence* s : closedSentences()) {
        if (!hasSource(*s) || std::find(excluding.begin(), excluding.end(), s->id) != excluding.end()) continue;
        out.push_back(s->bestText());
    }
    const std::size_t keep = std::min(out.size(), std::size_t(std::max(limit, 0)));
    out.erase(out.begin(), out.end() - std::ptrdiff_t(keep));
    return out;
}

}  // namespace osv
