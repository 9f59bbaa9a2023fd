#include "transcript/TranscriptSegmenter.h"

#include <algorithm>

#include "core/Text.h"
#include "transcript/CaptionGrouping.h"

namespace osv {
namespace {

constexpr std::string_view kEnders[] = {"。", "！", "？", "!", "?"};

TranscriptEvent makeEvent(Uuid id, Date at, std::optional<Date> receivedAt, CaptureChannel channel,
                          TranscriptEvent::Payload payload) {
    return TranscriptEvent{id, at, receivedAt, channel, std::move(payload)};
}

}  // namespace

bool TranscriptSegmenter::isSentenceEnder(std::string_view character) {
    return std::find(std::begin(kEnders), std::end(kEnders), character) != std::end(kEnders);
}

bool TranscriptSegmenter::endsOnEnder(std::string_view text) {
    return isSentenceEnder(text::lastCharacter(text::trimmed(text)));
}

bool TranscriptSegmenter::carriesSentence(std::string_view text) {
    return CaptionGrouping::hasMeaningfulContent(text);
}

TranscriptSegmenter::Pieces TranscriptSegmenter::sentencePieces(std::string_view text, std::string_view current) {
    Pieces out;
    std::string_view rest = text;
    CaptionGrouping::ChineseLook currentLook;
    currentLook.append(current);

    if (!text::isBlank(text) && endsOnEnder(current) && carriesSentence(current)) {
        // The sentence under way is complete; this delta opens the next one, after any
        // enders at its head, which still belong to the old sentence.
        out.closeFirst = true;
        text::GraphemeWalker walker(text);
        std::string_view character;
        std::size_t leadingBytes = 0;
        while (walker.next(character) && isSentenceEnder(character)) leadingBytes += character.size();
        out.leading = std::string(text.substr(0, leadingBytes));
        rest = text.substr(leadingBytes);
        currentLook.reset();
    }

    // Where the last kana scalar and the last non-white-space scalar start, so that "the
    // rest holds ..." is a comparison instead of a scan.
    std::size_t lastKana = std::string_view::npos;
    std::size_t lastNonWhitespace = std::string_view::npos;
    for (std::size_t i = 0; i < rest.size();) {
        const std::size_t start = i;
        if (text::isKanaBlock(text::decodeScalar(rest, i))) lastKana = start;
    }
    {
        text::GraphemeWalker characters(rest);
        std::string_view character;
        std::size_t start = 0;
        while (characters.next(character)) {
            if (!text::isWhitespaceCharacter(character)) lastNonWhitespace = start;
            start += character.size();
        }
    }
    auto restHolds = [](std::size_t lastPosition, std::size_t restStart) {
        return lastPosition != std::string_view::npos && lastPosition >= restStart;
    };

    std::string piece;
    text::GraphemeWalker walker(rest);
    std::string_view character;
    std::size_t position = 0;
    while (walker.next(character)) {
        position += character.size();  // the rest starts here
        if (text::isWhitespaceCharacter(character) && currentLook.looksChinese() && restHolds(lastKana, position) &&
            !piece.empty()) {
            // A space between Chinese and following Japanese: the recogniser's only sign
            // of a change of speaker. Cut here and drop the space.
            out.pieces.push_back(std::move(piece));
            piece.clear();
            currentLook.reset();
            continue;
        }
        piece += character;
        currentLook.append(character);
        if (isSentenceEnder(character) && restHolds(lastNonWhitespace, position)) {
            out.pieces.push_back(std::move(piece));
            piece.clear();
            currentLook.reset();
        }
    }
    if (!piece.empty()) out.pieces.push_back(std::move(piece));
    return out;
}

std::optional<BoundaryReason> TranscriptSegmenter::closingReason(std::string_view text, int limit) {
    if (endsOnEnder(text)) return BoundaryReason::punctuation;
    if (text::graphemeCount(text) >= std::size_t(std::max(limit, 0))) return BoundaryReason::lengthCap;
    return std::nullopt;
}

TranscriptSegmenter::Directive TranscriptSegmenter::boundaryDirective(const Pending& pending, const Config& config) {
    // With the source buffer just emptied, the translation under way decides the delay.
    const std::string& looked = !pending.buildsFromTranslation && !pending.source.empty() ? pending.source
                                                                                         : pending.streamed;
    if (endsOnEnder(looked)) return Directive{BoundaryReason::punctuation, config.punctuationDelay};
    return Directive{BoundaryReason::idle, config.idleDelay};
}

void TranscriptSegmenter::closeSentence(Pending& pending, CaptureChannel channel, BoundaryReason reason, Date at,
                                        Date receivedAt, TranscriptEventLog& log) {
    const Uuid id = pending.identity.value_or(Uuid::random());
    pending.identity.reset();
    log.append(makeEvent(Uuid::random(), at, receivedAt, channel,
                         TranscriptEvent::SentenceClosed{SentenceID{id}, reason}));
}

std::optional<TranscriptSegmenter::Directive> TranscriptSegmenter::ingest(std::string_view text, DeltaKind kind,
                                                                         CaptureChannel channel, Date at,
                                                                         std::optional<Date> speechAnchor,
                                                                         TranscriptEventLog& log) {
    if (text.empty()) return std::nullopt;
    if (kind == DeltaKind::source && channels[channel].buildsFromTranslation) {
        // The first source delta after a loss restores the source stream.
        buildFromTranslation(false, channel, at, log);
    }
    Pending& p = channels[channel];

    if ((kind == DeltaKind::source) == p.buildsFromTranslation) {
        // A translation delta beside the source: kept for the live tail, never a boundary.
        log.append(makeEvent(Uuid::random(), at, std::nullopt, channel,
                             TranscriptEvent::StreamedTranslationDelta{std::string(text)}));
        p.streamed += text;
        return boundaryDirective(p, config);
    }

    // The first delta of an utterance is stamped back to when speech began, never before
    // the channel's previous utterance ended and never after its own arrival.
    Date anchor = at;
    if (!p.hasOpenUtterance && speechAnchor) {
        const Date floor = std::max(p.lastClosedAt.value_or(Date::distantPast()), *speechAnchor);
        anchor = std::min(at, floor);
    }

    std::string& building = p.buildsFromTranslation ? p.streamed : p.source;
    auto appendDelta = [&](std::string piece) {
        const Uuid id = Uuid::random();
        if (kind == DeltaKind::source) {
            log.append(makeEvent(id, anchor, at, channel, TranscriptEvent::SourceDelta{piece}));
        } else {
            log.append(makeEvent(id, anchor, std::nullopt, channel, TranscriptEvent::StreamedTranslationDelta{piece}));
        }
        if (!p.identity) p.identity = id;
        building += piece;
    };

    Pieces pieces = sentencePieces(text, building);
    if (pieces.closeFirst) {
        if (!pieces.leading.empty()) appendDelta(std::move(pieces.leading));
        closeSentence(p, channel, BoundaryReason::punctuation, anchor, at, log);
        building.clear();
    }
    for (std::size_t i = 0; i < pieces.pieces.size(); ++i) {
        appendDelta(std::move(pieces.pieces[i]));
        // The last piece waits for the timer or the next delta, even after an ender.
        if (i + 1 < pieces.pieces.size() && carriesSentence(building)) {
            closeSentence(p, channel, BoundaryReason::punctuation, anchor, at, log);
            building.clear();
        }
    }
    p.hasOpenUtterance = true;

    if (endsOnEnder(building)) return boundaryDirective(p, config);
    if (text::graphemeCount(building) >= std::size_t(std::max(config.maxUnpunctuatedCharacters, 0))) {
        closeSentence(p, channel, BoundaryReason::lengthCap, at, at, log);
        building.clear();
        return Directive{BoundaryReason::idle, config.idleDelay};
    }
    return boundaryDirective(p, config);
}

void TranscriptSegmenter::closeUtterance(CaptureChannel channel, BoundaryReason reason, Date at,
                                         TranscriptEventLog& log) {
    auto it = channels.find(channel);
    if (it == channels.end()) return;
    Pending& p = it->second;
    bool closedSentence = false;
    if (p.hasOpenUtterance) {
        log.append(makeEvent(Uuid::random(), at, std::nullopt, channel, TranscriptEvent::UtteranceClosed{reason}));
        p.hasOpenUtterance = false;
        p.lastClosedAt = at;
        // The utterance's reason is not the sentence's: a sentence below the cap without an
        // ender stays open and continues with the next utterance.
        const std::string& building = p.buildsFromTranslation ? p.streamed : p.source;
        if (auto sentenceReason = closingReason(building, config.maxUnpunctuatedCharacters)) {
            closeSentence(p, channel, *sentenceReason, at, at, log);
            if (!p.buildsFromTranslation) p.source.clear();
            p.streamed.clear();
            closedSentence = true;
        }
    }
    // Translation text of an ended utterance never leaks into the next one.
    if (!closedSentence && !p.buildsFromTranslation) p.streamed.clear();
}

void TranscriptSegmenter::buildFromTranslation(bool flag, CaptureChannel channel, Date at, TranscriptEventLog& log) {
    auto it = channels.find(channel);
    if (it == channels.end()) {
        if (!flag) return;  // a new channel already builds from source
        it = channels.emplace(channel, Pending{}).first;
    }
    Pending& p = it->second;
    if (p.buildsFromTranslation == flag) return;
    if (p.hasOpenUtterance) {
        log.append(makeEvent(Uuid::random(), at, std::nullopt, channel,
                             TranscriptEvent::UtteranceClosed{BoundaryReason::idle}));
        p.hasOpenUtterance = false;
        p.lastClosedAt = at;
    }
    std::string& building = p.buildsFromTranslation ? p.streamed : p.source;
    if (!text::isBlank(building)) closeSentence(p, channel, BoundaryReason::idle, at, at, log);
    building.clear();
    if (flag) log.append(makeEvent(Uuid::random(), at, std::nullopt, channel, TranscriptEvent::SourceStreamLost{}));
    else log.append(makeEvent(Uuid::random(), at, std::nullopt, channel, TranscriptEvent::SourceStreamRestored{}));
    p.buildsFromTranslation = flag;
}

void TranscriptSegmenter::finish(BoundaryReason reason, Date at, TranscriptEventLog& log) {
    for (auto& [channel, p] : channels) {
        if (p.hasOpenUtterance)
            log.append(makeEvent(Uuid::random(), at, std::nullopt, channel, TranscriptEvent::UtteranceClosed{reason}));
        if (p.buildsFromTranslation || !text::isBlank(p.source)) closeSentence(p, channel, reason, at, at, log);
    }
    channels.clear();
}

}  // namespace osv
