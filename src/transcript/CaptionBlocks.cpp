#include "transcript/CaptionBlocks.h"

#include <algorithm>

#include "core/Text.h"
#include "transcript/FuriganaMarkup.h"

namespace osv {
namespace {

using CaptionGrouping::CaptionBlock;

std::optional<std::string> nonBlank(std::string text) {
    if (text::isBlank(text)) return std::nullopt;
    return text;
}

bool hasRealTranslation(const Sentence& s) {
    return std::any_of(s.translations.begin(), s.translations.end(),
                       [](const Translation& t) { return t.origin != TranslationOrigin::provisional; });
}

}  // namespace

std::vector<CaptionBlock> captionBlocks(const TranscriptSnapshot& snapshot, const std::vector<ParagraphRange>& paragraphs,
                                        bool labelsChannels, bool translates, const TranslationRouter::Config& routing,
                                        bool live, Date now) {
    const auto& sentences = snapshot.sentences();
    const Date sessionStart = sentences.empty() ? now : sentences[0].startedAt;
    std::vector<CaptionBlock> out;
    out.reserve(paragraphs.size());
    for (const ParagraphRange& p : paragraphs) {
        CaptionBlock b;
        std::string source, translation, pending, best, standingText, readings;
        bool late = false, lateInTranslation = false;
        std::optional<bool> readingsOnTranslation;
        for (std::size_t i = p.first; i < p.first + p.count; ++i) {
            const Sentence& s = sentences[i];
            b.sentenceIDs.push_back(s.id);
            const std::string caption = s.captionText(now, kCaptionSettleSeconds);
            const std::string bestText = s.bestText();
            source += caption;
            best += bestText;
            const Translation* shown = s.captionTranslation(now, kCaptionSettleSeconds);
            const Translation* standing = Sentence::standing(s.translations);
            if (shown) translation += shown->text;
            if (standing) standingText += standing->text;
            if (!s.isClosed || (shown && shown->origin == TranslationOrigin::provisional)) b.isProvisional = true;
            if (now >= s.endedAt + kCaptionSettleSeconds) {
                if (bestText != caption) late = true;
                if (standing && (!shown || standing->text != shown->text)) lateInTranslation = true;
            }
            if (!b.translationFailure && s.translationFailure) b.translationFailure = s.translationFailure;
            const bool owed = TranslationRouter::origin(s, routing).has_value();
            if (translates && owed && !hasRealTranslation(s) && !s.translationFailure) b.isAwaitingTranslation = true;
            if (translates && owed && !(shown && shown->origin != TranslationOrigin::provisional)) pending += caption;

            if (s.furigana && !readingsOnTranslation)
                readingsOnTranslation = shown && FuriganaMarkup::plain(*s.furigana) == shown->text;
        }
        if (readingsOnTranslation) {
            for (std::size_t i = p.first; i < p.first + p.count; ++i) {
                const Sentence& s = sentences[i];
                if (s.furigana) {
                    readings += *s.furigana;
                } else if (*readingsOnTranslation) {
                    if (const Translation* shown = s.captionTranslation(now, kCaptionSettleSeconds)) readings += shown->text;
                } else {
                    readings += s.captionText(now, kCaptionSettleSeconds);
                }
            }
            b.furigana = nonBlank(std::move(readings));
        }
        b.source = nonBlank(std::move(source));
        if (translates) {
            b.translation = nonBlank(std::move(translation));
            b.pendingSource = nonBlank(std::move(pending));
            if (lateInTranslation) b.lateTranslation = nonBlank(std::move(standingText));
        }
        if (late) b.lateCorrection = nonBlank(std::move(best));
        if (labelsChannels) b.channel = sentences[p.first].channel;
        b.startOffset = std::max(0.0, sentences[p.first].startedAt.secondsSince(sessionStart));
        out.push_back(std::move(b));
    }

    if (live && translates) {
        for (const auto& [channel, tail] : snapshot.translationTails()) {
            // The channel's last block takes the tail if it shows no real translation and can still change.
            for (std::size_t k = out.size(); k-- > 0;) {
                const ParagraphRange& p = paragraphs[k];
                if (sentences[p.first].channel != channel) continue;
                bool real = false, changeable = false;
                for (std::size_t i = p.first; i < p.first + p.count; ++i) {
                    const Translation* shown = sentences[i].captionTranslation(now, kCaptionSettleSeconds);
                    if (shown && shown->origin != TranslationOrigin::provisional) real = true;
                    if (!hasSettled(sentences[i], now)) changeable = true;
                }
                if (!real && changeable) {
                    out[k].translation = tail;
                    out[k].isProvisional = true;
                }
                break;
            }
        }
    }
    return out;
}

}  // namespace osv
