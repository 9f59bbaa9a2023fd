#pragma once

// The shared text heuristics that decide how a text is treated (which language it looks
// like, whether it says anything at all). Caption blocks join this namespace later.

#include <string_view>

namespace osv::CaptionGrouping {

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
