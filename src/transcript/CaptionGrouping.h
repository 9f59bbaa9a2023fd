#pragma once

// The shared text heuristics that decide how a text is treated (which language it looks
// like, whether it says anything at all), and the caption block a screen shows.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Date.h"
#include "transcript/CaptureChannel.h"
#include "transcript/TranscriptIds.h"
#include "transcript/TranscriptSegment.h"

namespace osv::CaptionGrouping {

// One block on the screen: one paragraph of sentences.
struct CaptionBlock {
    std::optional<std::string> source;       // the sentences' caption texts, joined
    std::optional<std::string> translation;  // their caption translations, joined
    std::vector<SentenceID> sentenceIDs;
    std::optional<std::string> furigana;  // reading markup of the block's Japanese
    std::optional<CaptureChannel> channel;  // when the session labels channels
    std::optional<std::string> translationFailure;
    bool isAwaitingTranslation = false;  // a translation is still expected
    bool isProvisional = false;          // a draft, or an open sentence, is shown
    std::optional<std::string> pendingSource;  // source not yet covered by the translation shown
    std::optional<double> startOffset;         // seconds from the session's start
    std::optional<std::string> lateCorrection;   // a source that came after the caption settled
    std::optional<std::string> lateTranslation;  // a translation that came after it settled

    bool operator==(const CaptionBlock&) const = default;
};

// A line of the exported sentence list.
struct CaptionSentence {
    Uuid id;
    std::string source;
    std::string translation;
    double startOffset = 0;
    bool operator==(const CaptionSentence&) const = default;
};

// Blocks from the older record form, for recordings without an event log: consecutive
// segments of one channel and one language share a block until it holds `softBreakAfter`
// characters of source.
std::vector<CaptionBlock> blocks(const std::vector<TranscriptSegment>& segments, int softBreakAfter);
// One line per segment, offsets from `reference`.
std::vector<CaptionSentence> sentences(const std::vector<TranscriptSegment>& segments, Date reference);

// Kana or Hangul anywhere makes a text not Chinese; otherwise it is Chinese when some
// scalar is a Han ideograph. Japanese with kanji is therefore not Chinese, kanji alone is.
bool looksChinese(std::string_view text);

// Some scalar is kana (U+3040 to U+30FF or U+31F0 to U+31FF).
bool looksJapanese(std::string_view text);

// Some character is neither punctuation, white space nor a symbol.
bool hasMeaningfulContent(std::string_view text);

// Incremental form of looksChinese, for a text built by appending.
class ChineseLook {
public:
    void append(std::string_view more);
    void reset() { *this = ChineseLook(); }
    bool looksChinese() const { return !disqualified_ && sawHan_; }
    // Kana or Hangul has been seen: the text can never look Chinese again.
    bool disqualified() const { return disqualified_; }

private:
    bool disqualified_ = false;
    bool sawHan_ = false;
};

}  // namespace osv::CaptionGrouping
