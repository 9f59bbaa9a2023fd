#include "transcript/TranscriptReadModel.h"

#include <algorithm>
#include <numeric>

#include "core/Text.h"
#include "transcript/CaptionGrouping.h"

namespace osv::TranscriptReadModel {
namespace {

unsigned channelBit(CaptureChannel c) { return 1u << unsigned(c); }

bool failureStands(const std::vector<Translation>& translations) {
    return std::none_of(translations.begin(), translations.end(),
                        [](const Translation& t) { return t.origin != TranslationOrigin::provisional; });
}

std::string simplifiedIfChinese(std::string_view text, std::string_view judged) {
    if (!CaptionGrouping::looksChinese(judged)) return std::string(text);
    if (auto folded = text::traditionalToSimplified(text)) return std::move(*folded);
    return std::string(text);
}

}  // namespace

std::string displayForm(std::string_view text) {
    const std::string_view t = text::trimmed(text);
    return simplifiedIfChinese(t, t);
}

const std::string& Run::displayText() const {
    if (displayedSize_ != text.size()) {
        // White space is neither context nor target of the transform, so trimming its
        // result equals transforming the trimmed text.
        const std::string_view trimmedText = text::trimmed(text);
        std::optional<std::string> folded;
        if (look_.looksChinese()) folded = simplified_.result();
        displayed_ = folded ? std::string(text::trimmed(*folded)) : std::string(trimmedText);
        if (displayed_.empty()) displayed_ = trimmedText;
        displayedSize_ = text.size();
    }
    return displayed_;
}

void Run::append(std::string_view more, const Uuid& eventID, Date at) {
    if (isEmpty()) {
        anchor = eventID;
        startedAt = at;
    }
    text += more;
    lastAt = at;
    look_.append(more);
    // Kana or Hangul anywhere means the text is never folded: stop feeding the transform.
    if (!look_.disqualified()) simplified_.append(more);
}

void ChannelState::appendSource(std::string_view text, const Uuid& eventID, Date at) {
    utterance.append(text, eventID, at);
    sentence.append(text, eventID, at);
    const UtteranceID current{*utterance.anchor};
    if (spannedUtteranceIDs.empty() || spannedUtteranceIDs.back() != current) spannedUtteranceIDs.push_back(current);
}

void ChannelState::appendStreamed(std::string_view text, const Uuid& eventID, Date at) {
    translationUtterance.append(text, eventID, at);
    translationSentence.append(text, eventID, at);
    const UtteranceID current{*translationUtterance.anchor};
    if (translationSpannedUtteranceIDs.empty() || translationSpannedUtteranceIDs.back() != current)
        translationSpannedUtteranceIDs.push_back(current);
}

// The sentence under way, source before translation; the translation counts only while
// the channel builds from it. `id` none: the run's own anchor. An open sentence ends at its
// last delta; a closing one without a delta time at `closingAt`.
std::optional<Sentence> ChannelState::sentenceUnderWay(CaptureChannel channel, std::optional<SentenceID> id,
                                                       std::optional<Date> closingAt) const {
    const bool fromSource = sentence.startedAt && !text::isBlank(sentence.text);
    const bool fromTranslation =
        !fromSource && buildsFromTranslation && translationSentence.startedAt && !text::isBlank(translationSentence.text);
    if (!fromSource && !fromTranslation) return std::nullopt;
    const Run& run = fromSource ? sentence : translationSentence;
    Sentence s;
    s.id = id.value_or(SentenceID{*run.anchor});
    s.channel = channel;
    s.startedAt = *run.startedAt;
    s.endedAt = run.lastAt.value_or(closingAt.value_or(s.startedAt));
    s.isClosed = closingAt.has_value();
    if (fromSource) {
        s.text = run.displayText();
        s.utteranceIDs = spannedUtteranceIDs;
    } else {
        // Built from the translation stream: no source, the translation stands in.
        s.utteranceIDs = translationSpannedUtteranceIDs;
        s.translations.push_back(Translation{run.displayText(), TranslationOrigin::streamed, s.endedAt});
    }
    return s;
}

std::optional<Utterance> ChannelState::utteranceUnderWay(CaptureChannel channel, std::optional<Date> closingAt) const {
    const Run* from = nullptr;
    if (utterance.startedAt && !text::isBlank(utterance.text)) from = &utterance;
    else if (buildsFromTranslation && translationUtterance.startedAt && !text::isBlank(translationUtterance.text))
        from = &translationUtterance;
    if (!from) return std::nullopt;
    return Utterance{UtteranceID{*from->anchor}, channel, *from->startedAt,
                     from->lastAt.value_or(closingAt.value_or(*from->startedAt)), from->displayText(),
                     closingAt.has_value()};
}

std::optional<Sentence> ChannelState::closeSentence(const SentenceID& id, CaptureChannel channel, Date at) {
    auto result = sentenceUnderWay(channel, id, at);
    // A streamed translation in source-building mode is dropped from the sentence run
    // here; it lives on only in the channel's stream, for the live tail.
    sentence = Run{};
    translationSentence = Run{};
    spannedUtteranceIDs.clear();
    translationSpannedUtteranceIDs.clear();
    return result;
}

std::optional<Utterance> ChannelState::closeUtterance(CaptureChannel channel, Date at) {
    auto result = utteranceUnderWay(channel, at);
    utterance = Run{};
    translationUtterance = Run{};
    return result;
}

std::optional<Utterance> ChannelState::openUtterance(CaptureChannel channel) const {
    return utteranceUnderWay(channel, std::nullopt);
}

std::optional<std::string> ChannelState::translationTail() const {
    if (buildsFromTranslation || text::isBlank(translationUtterance.text)) return std::nullopt;
    return translationUtterance.displayText();
}

std::optional<Sentence> ChannelState::openSentence(CaptureChannel channel) const {
    return sentenceUnderWay(channel, std::nullopt, std::nullopt);
}

void Fold::advance(const TranscriptEventLog& log) {
    for (std::size_t i = consumedEventCount_; i < log.events.size(); ++i) apply(log.events[i]);
    consumedEventCount_ = std::max(consumedEventCount_, log.events.size());
}

void Fold::apply(const TranscriptEvent& e) {
    using E = TranscriptEvent;
    ChannelState& state = channels_[e.channel];
    std::visit(
        [&](const auto& p) {
            using P = std::decay_t<decltype(p)>;
            if constexpr (std::is_same_v<P, E::SourceDelta>) {
                state.appendSource(p.text, e.id, e.at);
            } else if constexpr (std::is_same_v<P, E::StreamedTranslationDelta>) {
                streams_[e.channel].append(p.text);
                state.appendStreamed(p.text, e.id, e.at);
            } else if constexpr (std::is_same_v<P, E::SentenceClosed>) {
                if (auto s = state.closeSentence(p.id, e.channel, e.at)) {
                    const std::size_t index = closedSentences_.size();
                    sourceCharacterCounts_[p.id] = int(text::graphemeCount(s->text));
                    closedChannelMask_ |= channelBit(e.channel);
                    closedIndicesByID_[p.id].push_back(index);
                    closedSentences_.push_back({index, std::move(*s)});
                    sentencesToPlace_.push_back(index);
                    markStale();
                }
            } else if constexpr (std::is_same_v<P, E::UtteranceClosed>) {
                if (auto u = state.closeUtterance(e.channel, e.at)) {
                    utterancesToPlace_.push_back(closedUtterances_.size());
                    closedUtterances_.push_back({closedUtterances_.size(), std::move(*u)});
                    markStale();
                }
            } else if constexpr (std::is_same_v<P, E::SentenceTranslated>) {
                translations_[p.id].push_back(Translation{p.text, p.origin, e.at});
                idsToRebind_.insert(p.id);
                markStale();
            } else if constexpr (std::is_same_v<P, E::GlossaryLearned>) {
                for (const GlossaryTerm& term : p.terms) {
                    if (term.written.empty()) continue;
                    auto [it, isNew] = glossary_.insert_or_assign(term.written, term);
                    if (isNew) glossaryOrder_.push_back(term.written);
                }
                glossaryChanged_ = true;
                markStale();
            } else if constexpr (std::is_same_v<P, E::SourceRevised>) {
                std::optional<int> count;
                if (auto open = state.openSentence(e.channel); open && open->id == p.id) {
                    count = int(text::graphemeCount(open->text));
                } else if (auto it = sourceCharacterCounts_.find(p.id); it != sourceCharacterCounts_.end()) {
                    count = it->second;
                }
                revisions_[p.id].push_back(SourceRevision{simplifiedIfChinese(p.text, p.text), p.origin, e.at, count});
                idsToRebind_.insert(p.id);
                markStale();
            } else if constexpr (std::is_same_v<P, E::SentenceFurigana>) {
                readings_[p.id] = p.ruby;
                idsToRebind_.insert(p.id);
                markStale();
            } else if constexpr (std::is_same_v<P, E::SentenceTranslationFailed>) {
                failures_[p.id] = p.reason;
                idsToRebind_.insert(p.id);
                markStale();
            } else if constexpr (std::is_same_v<P, E::SourceStreamLost>) {
                state.buildsFromTranslation = true;
            } else if constexpr (std::is_same_v<P, E::SourceStreamRestored>) {
                state.buildsFromTranslation = false;
            }
        },
        e.payload);
}

Sentence Fold::bind(Sentence s) const {
    if (auto it = readings_.find(s.id); it != readings_.end()) s.furigana = it->second;
    // A translation-built sentence keeps its own streamed translation until others arrive.
    if (auto it = translations_.find(s.id); it != translations_.end() && !it->second.empty())
        s.translations = it->second;
    if (auto it = revisions_.find(s.id); it != revisions_.end()) s.revisions = it->second;
    // Any real translation cancels a failure; a draft doesn't.
    if (auto it = failures_.find(s.id); it != failures_.end() && failureStands(s.translations))
        s.translationFailure = it->second;
    return s;
}

namespace {

// Positions of closed items in timeline order: by start, equal starts in closing order.
template <class T>
std::vector<std::size_t> timelineOrder(const std::vector<T>& closed) {
    std::vector<std::size_t> order(closed.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return closed[a].value.startedAt < closed[b].value.startedAt;
    });
    return order;
}

}  // namespace

void Fold::rebuildClosedCache() {
    unbound_.clear();
    for (const auto& [id, list] : translations_)
        if (!list.empty()) unbound_.emplace(id, list.back());
    std::vector<Sentence> sentences;
    sentences.reserve(closedSentences_.size());
    sentenceKeys_.clear();
    for (std::size_t i : timelineOrder(closedSentences_)) {
        const Sentence& s = closedSentences_[i].value;
        sentences.push_back(bind(s));
        sentenceKeys_.push_back({s.startedAt, i});
        unbound_.erase(s.id);
    }
    closedCache_.sentences = PersistentList<Sentence>::fromVector(std::move(sentences));

    std::vector<Utterance> utterances;
    utterances.reserve(closedUtterances_.size());
    utteranceKeys_.clear();
    for (std::size_t i : timelineOrder(closedUtterances_)) {
        utterances.push_back(closedUtterances_[i].value);
        utteranceKeys_.push_back({closedUtterances_[i].value.startedAt, i});
    }
    closedCache_.utterances = PersistentList<Utterance>::fromVector(std::move(utterances));
    publishUnboundTranslations();
    glossaryChanged_ = true;
}

// Brings the cache up to date by placing what closed and rebinding what changed. Gives
// exactly what rebuildClosedCache gives: new closings carry the highest closing index,
// so placing each at the first key that starts later is the stable sort's place for it.
void Fold::updateClosedCacheIncrementally() {
    bool unboundChanged = false;
    for (std::size_t index : sentencesToPlace_) {
        const Sentence& s = closedSentences_[index].value;
        const OrderKey key{s.startedAt, index};
        const auto at = std::lower_bound(sentenceKeys_.begin(), sentenceKeys_.end(), key);
        const auto position = std::size_t(at - sentenceKeys_.begin());
        sentenceKeys_.insert(at, key);
        closedCache_.sentences.insert(position, bind(s));
        unboundChanged |= unbound_.erase(s.id) > 0;
    }
    for (const SentenceID& id : idsToRebind_) {
        auto closed = closedIndicesByID_.find(id);
        if (closed == closedIndicesByID_.end()) {
            if (auto t = translations_.find(id); t != translations_.end() && !t->second.empty()) {
                unbound_[id] = t->second.back();
                unboundChanged = true;
            }
            continue;
        }
        for (std::size_t index : closed->second) {
            const Sentence& s = closedSentences_[index].value;
            const OrderKey key{s.startedAt, index};
            const auto at = std::lower_bound(sentenceKeys_.begin(), sentenceKeys_.end(), key);
            closedCache_.sentences.replace(std::size_t(at - sentenceKeys_.begin()), bind(s));
        }
    }
    for (std::size_t index : utterancesToPlace_) {
        const Utterance& u = closedUtterances_[index].value;
        const OrderKey key{u.startedAt, index};
        const auto at = std::lower_bound(utteranceKeys_.begin(), utteranceKeys_.end(), key);
        const auto position = std::size_t(at - utteranceKeys_.begin());
        utteranceKeys_.insert(at, key);
        closedCache_.utterances.insert(position, u);
    }
    if (unboundChanged) publishUnboundTranslations();
}

void Fold::publishUnboundTranslations() {
    closedCache_.unboundTranslations = std::make_shared<const TranscriptSnapshot::UnboundTranslations>(unbound_);
}

TranscriptSnapshot Fold::snapshot() {
    if (closedCacheIsStale_ || fullRebuildNeeded_) {
        // Past a certain amount of change a rebuild is cheaper than placing one by one.
        const std::size_t work = sentencesToPlace_.size() + utterancesToPlace_.size() + idsToRebind_.size();
        if (fullRebuildNeeded_ || work > 32 + sentenceKeys_.size() / 8) rebuildClosedCache();
        else updateClosedCacheIncrementally();
        if (glossaryChanged_) {
            auto glossary = std::make_shared<std::vector<GlossaryTerm>>();
            glossary->reserve(glossaryOrder_.size());
            for (const std::string& written : glossaryOrder_) glossary->push_back(glossary_.at(written));
            closedCache_.glossary = std::move(glossary);
        }
        sentencesToPlace_.clear();
        utterancesToPlace_.clear();
        idsToRebind_.clear();
        glossaryChanged_ = false;
        fullRebuildNeeded_ = false;
        closedCacheIsStale_ = false;
    }

    TimelineList<Utterance> utterances(closedCache_.utterances);
    TimelineList<Sentence> sentences(closedCache_.sentences);
    unsigned channelMask = closedChannelMask_;
    std::map<CaptureChannel, std::string> tails;
    for (const auto& [channel, state] : channels_) {
        if (auto tail = state.translationTail()) tails.emplace(channel, std::move(*tail));
        if (auto u = state.openUtterance(channel)) utterances.insertByStart(std::move(*u));
        if (auto s = state.openSentence(channel)) {
            channelMask |= channelBit(channel);
            sentences.insertByStart(bind(std::move(*s)));
        }
    }
    TranscriptSnapshot snapshot(std::move(utterances), std::move(sentences), streams_, closedCache_.unboundTranslations,
                                closedCache_.glossary, channelMask == 3u);
    snapshot.translationTails_ = std::move(tails);
    return snapshot;
}

}  // namespace osv::TranscriptReadModel
