#pragma once

// Caption blocks from the read model: one block per paragraph, with the settle time of
// 10 seconds throughout, so that a caption stops changing once its sentences settled.

#include <vector>

#include "core/PersistentList.h"
#include "transcript/CaptionGrouping.h"
#include "transcript/TranscriptSnapshot.h"
#include "transcript/TranslationRouter.h"

namespace osv {

// After this long past its end a sentence's caption no longer changes.
inline constexpr double kCaptionSettleSeconds = 10.0;

// Closed, and past the settle time: its caption is final.
inline bool hasSettled(const Sentence& sentence, Date now) {
    return sentence.isClosed && now - sentence.endedAt > kCaptionSettleSeconds;
}

// The blocks of `paragraphs` (ranges of snapshot.sentences()).
//
// Rules for the fields the reader relies on:
// - source / translation: the sentences' captionText / captionTranslation joined; absent
//   when blank (translation also when `translates` is off). A sentence without source adds
//   nothing to `source`.
// - isAwaitingTranslation: some sentence is owed a translation by the routing and has
//   neither a real (non-draft) translation nor a standing failure.
// - isProvisional: the block shows an open sentence, a draft, or the live tail.
// - pendingSource: the caption text of owed sentences whose real translation isn't shown
//   yet; what the reader still has to take from the source line.
// - lateCorrection / lateTranslation: after a sentence settled, the block's best source /
//   standing translation, when it now differs from what the caption keeps.
// - furigana: when a sentence has readings, the block's readings joined, on the side
//   (source or translation) they annotate; other sentences add that side's text.
// - The live tail (`live`): the streamed translation of the utterance under way joins
//   the channel's last block while that block shows no real translation and can still
//   change (an open sentence, or one within the settle time). It never joins a block that
//   could be frozen, so frozen and rebuilt blocks agree.
std::vector<CaptionGrouping::CaptionBlock> captionBlocks(const TranscriptSnapshot& snapshot,
                                                         const std::vector<ParagraphRange>& paragraphs,
                                                         bool labelsChannels, bool translates,
                                                         const TranslationRouter::Config& routing, bool live,
                                                         Date now);

// A frozen head shared between refreshes, followed by the blocks rebuilt this time.
class CaptionBlockList {
public:
    CaptionBlockList() = default;
    CaptionBlockList(PersistentList<CaptionGrouping::CaptionBlock> frozen,
                     std::vector<CaptionGrouping::CaptionBlock> live)
        : frozen_(std::move(frozen)), live_(std::move(live)) {}

    std::size_t size() const { return frozen_.size() + live_.size(); }
    bool empty() const { return size() == 0; }
    const CaptionGrouping::CaptionBlock& operator[](std::size_t i) const {
        return i < frozen_.size() ? frozen_[i] : live_[i - frozen_.size()];
    }
    std::vector<CaptionGrouping::CaptionBlock> toVector() const {
        std::vector<CaptionGrouping::CaptionBlock> out = frozen_.toVector();
        out.insert(out.end(), live_.begin(), live_.end());
        return out;
    }
    std::size_t frozenCount() const { return frozen_.size(); }

private:
    PersistentList<CaptionGrouping::CaptionBlock> frozen_;
    std::vector<CaptionGrouping::CaptionBlock> live_;
};

}  // namespace osv
