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

}  // namespace osv::CaptionGrouping
