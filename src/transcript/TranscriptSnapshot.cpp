#include "transcript/TranscriptSnapshot.h"

#include <algorithm>
#include <cmath>

#include "core/Text.h"
#include "transcript/CaptionGrouping.h"

namespace osv {

std::string Sentence::bestText() const {
    if (revisions.empty()) return text;
    const SourceRevision& last = revisions.back();
    std::string out = last.text;
    if (last.sourceCharacterCount && *last.sourceCharacterCount >= 0 &&
        text::graphemeCount(text) >= std::size_t(*last.sourceCharacterCount)) {
        // The source kept growing while the repair ran: its tail is still valid.
        out += text::dropGraphemes(text, std::size_t(*last.sourceCharacterCount));
    }
    return out;
}

std::string Sentence::readableText() const {
    std::string best = bestText();
    if (!best.empty()) return best;
    if (const Translation* t = standing(translations)) return t->text;
    return {};
}

const Translation* Sentence::standing(const std::vector<Translation>& list) {
    for (auto it = list.rbegin(); it != list.rend(); ++it)
        if (it->origin != TranslationOrigin::provisional) return &*it;
    return list.empty() ? nullptr : &list.back();
}

std::string Sentence::captionText(Date now, double settle) const {
    const Date deadline = endedAt + settle;
    if (now < deadline) return bestText();
    for (auto it = revisions.rbegin(); it != revisions.rend(); ++it)
        if (it->at <= deadline) return it->text;
    return text;
}

const Translation* Sentence::captionTranslation(Date now, double settle) const {
    if (translations.empty()) return nullptr;
    const Date deadline = endedAt + settle;
    if (now < deadline) return standing(translations);

    const Translation* settled = nullptr;  // standing among those known by the deadline
    const Translation* lastKnown = nullptr;
    for (const Translation& t : translations) {
        if (t.at > deadline) continue;
        lastKnown = &t;
        if (t.origin != TranslationOrigin::provisional) settled = &t;
    }
    if (!settled) settled = lastKnown;
    if (!settled || settled->origin == TranslationOrigin::provisional) {
        // A first real translation is shown however late it comes.
        for (auto it = translations.rbegin(); it != translations.rend(); ++it)
            if (it->origin != TranslationOrigin::provisional) return &*it;
    }
    if (settled) return settled;
    return &translations.front();
}

TranscriptSnapshot::TranscriptSnapshot(TimelineList<Utterance> utterances, TimelineList<Sentence> sentences,
                                       std::map<CaptureChannel, SharedText> streams,
                                       std::shared_ptr<const UnboundTranslations> unbound,
                                       std::shared_ptr<const std::vector<GlossaryTerm>> glossary,
                                       bool usesMultipleChannels)
    : utterances_(std::move(utterances)),
      sentences_(std::move(sentences)),
      streams_(std::move(streams)),
      unbound_(std::move(unbound)),
      glossary_(std::move(glossary)),
      usesMultipleChannels_(usesMultipleChannels) {}

const TranscriptSnapshot::UnboundTranslations& TranscriptSnapshot::unboundTranslations() const {
    static const UnboundTranslations empty;
    return unbound_ ? *unbound_ : empty;
}

const std::vector<GlossaryTerm>& TranscriptSnapshot::glossary() const {
    static const std::vector<GlossaryTerm> empty;
    return glossary_ ? *glossary_ : empty;
}

std::string TranscriptSnapshot::glossaryLines() const {
    std::string out;
    bool first = true;
    for (const GlossaryTerm& term : glossary()) {
        if (!first) out += "\n";
        first = false;
        out += term.written;
        if (term.heard && !term.heard->empty() && *term.heard != term.written)
            out += "（识别常写成：" + *term.heard + "）";
        if (term.translated && !term.translated->empty()) out += " → " + *term.translated;
    }
    return out;
}

std::vector<TranscriptSegment> TranscriptSnapshot::transcriptSegments(bool labelsChannels) const {
    std::vector<TranscriptSegment> out;
    out.reserve(sentences_.size());
    int sequence = 0;
    for (const Sentence& s : sentences_) {
        TranscriptSegment seg;
        seg.id = s.id.raw;
        seg.sequence = ++sequence;
        if (labelsChannels) seg.channel = s.channel;
        seg.startedAt = s.startedAt;
        seg.sourceText = s.bestText();
        if (const Translation* t = Sentence::standing(s.translations)) seg.translatedText = t->text;
        seg.status = s.isClosed ? TranscriptSegment::SegmentStatus::complete
                                : TranscriptSegment::SegmentStatus::provisional;
        if (s.isClosed)
            seg.finalLatencyMilliseconds = std::max(0, int(std::trunc((s.endedAt - s.startedAt) * 1000.0)));
        out.push_back(std::move(seg));
    }
    return out;
}

std::vector<ParagraphRange> TranscriptSnapshot::paragraphs(std::size_t start, const TimelineList<Sentence>& sentences) {
    std::vector<ParagraphRange> out;
    if (start >= sentences.size()) return out;
    constexpr std::size_t kMaximumParagraphCharacters = 60;

    auto shareUtterance = [](const Sentence& a, const Sentence& b) {
        for (const UtteranceID& x : a.utteranceIDs)
            if (std::find(b.utteranceIDs.begin(), b.utteranceIDs.end(), x) != b.utteranceIDs.end()) return true;
        return false;
    };

    ParagraphRange current{start, 1};
    std::size_t running = text::graphemeCount(sentences[start].text);
    for (std::size_t i = start + 1; i < sentences.size(); ++i) {
        const Sentence& p = sentences[i - 1];
        const Sentence& s = sentences[i];
        const std::size_t length = text::graphemeCount(s.text);
        bool startsNew = s.channel != p.channel;
        // A stray one-character sentence ("嗯") stays with its neighbour whatever its look.
        const bool stray = length < 2 && !s.text.empty();
        if (!startsNew && !stray) {
            startsNew = CaptionGrouping::looksChinese(p.text) != CaptionGrouping::looksChinese(s.text) ||
                        !shareUtterance(p, s);
        }
        if (!startsNew && running + length > kMaximumParagraphCharacters) startsNew = true;
        if (startsNew) {
            out.push_back(current);
            current = ParagraphRange{i, 1};
            running = length;
        } else {
            ++current.count;
            running += length;
        }
    }
    out.push_back(current);
    return out;
}

}  // namespace osv
