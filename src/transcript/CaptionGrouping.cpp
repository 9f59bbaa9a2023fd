#include "transcript/CaptionGrouping.h"

#include "core/Text.h"

namespace osv::CaptionGrouping {

void ChineseLook::append(std::string_view more) {
    if (disqualified_) return;
    std::size_t i = 0;
    while (i < more.size()) {
        const char32_t c = text::decodeScalar(more, i);
        if (text::isKana(c) || text::isHangul(c)) {
            disqualified_ = true;
            return;
        }
        if (text::isHan(c)) sawHan_ = true;
    }
}

bool looksChinese(std::string_view text) {
    ChineseLook look;
    look.append(text);
    return look.looksChinese();
}

bool looksJapanese(std::string_view text) { return text::anyScalar(text, text::isKana); }

bool hasMeaningfulContent(std::string_view text) {
    text::GraphemeWalker walker(text);
    std::string_view character;
    while (walker.next(character)) {
        const char32_t c = text::firstScalar(character);
        if (!text::isPunctuation(c) && !text::isWhitespace(c) && !text::isSymbol(c)) return true;
    }
    return false;
}

namespace {

std::optional<std::string> nonBlank(std::string text) {
    if (text::isBlank(text)) return std::nullopt;
    return text;
}

bool isUnfinished(TranscriptSegment::SegmentStatus status) {
    using S = TranscriptSegment::SegmentStatus;
    return status != S::complete && status != S::failed;
}

}  // namespace

std::vector<CaptionBlock> blocks(const std::vector<TranscriptSegment>& segments, int softBreakAfter) {
    std::vector<CaptionBlock> out;
    if (segments.empty()) return out;
    const Date start = segments.front().startedAt;
    std::size_t first = 0;
    auto flush = [&](std::size_t end) {
        CaptionBlock b;
        std::string source, translation, pending;
        for (std::size_t i = first; i < end; ++i) {
            const TranscriptSegment& s = segments[i];
            b.sentenceIDs.push_back(SentenceID{s.id});
            source += s.sourceText;
            translation += s.translatedText;
            if (s.translatedText.empty()) pending += s.sourceText;
            if (isUnfinished(s.status)) {
                b.isProvisional = true;
                if (s.translatedText.empty()) b.isAwaitingTranslation = true;
            }
        }
        b.source = nonBlank(std::move(source));
        b.translation = nonBlank(std::move(translation));
        if (b.translation) b.pendingSource = nonBlank(std::move(pending));
        b.channel = segments[first].channel;
        b.startOffset = std::max(0.0, segments[first].startedAt.secondsSince(start));
        out.push_back(std::move(b));
        first = end;
    };
    std::size_t running = text::graphemeCount(segments[0].sourceText);
    for (std::size_t i = 1; i < segments.size(); ++i) {
        const TranscriptSegment& p = segments[i - 1];
        const TranscriptSegment& s = segments[i];
        const std::size_t length = text::graphemeCount(s.sourceText);
        const bool breaks = s.channel != p.channel || looksChinese(s.sourceText) != looksChinese(p.sourceText) ||
                            running >= std::size_t(std::max(softBreakAfter, 1));
        if (breaks) {
            flush(i);
            running = length;
        } else {
            running += length;
        }
    }
    flush(segments.size());
    return out;
}

std::vector<CaptionSentence> sentences(const std::vector<TranscriptSegment>& segments, Date reference) {
    std::vector<CaptionSentence> out;
    out.reserve(segments.size());
    for (const TranscriptSegment& s : segments)
        out.push_back(CaptionSentence{s.id, std::string(text::trimmed(s.sourceText)),
                                      std::string(text::trimmed(s.translatedText)),
                                      std::max(0.0, s.startedAt - reference)});
    return out;
}

}  // namespace osv::CaptionGrouping
