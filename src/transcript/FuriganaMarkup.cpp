#include "transcript/FuriganaMarkup.h"

#include "core/Text.h"

namespace osv::FuriganaMarkup {
namespace {

bool isKanji(char32_t c) { return c >= 0x4E00 && c <= 0x9FFF; }
bool isOpening(std::string_view c) { return c == "(" || c == "（"; }
bool isClosing(std::string_view c) { return c == ")" || c == "）"; }
bool isLineEnd(std::string_view c) { return c == "\n" || c == "\r" || c == "\r\n"; }

}  // namespace

std::optional<std::string> trailingKanji(std::string_view text) {
    std::size_t start = text.size();
    while (start > 0) {
        std::size_t s = start - 1;
        while (s > 0 && (static_cast<unsigned char>(text[s]) & 0xC0) == 0x80) --s;
        std::size_t probe = s;
        if (!isKanji(text::decodeScalar(text, probe))) break;
        start = s;
    }
    if (start == text.size()) return std::nullopt;
    return std::string(text.substr(start));
}

bool needsAnnotation(std::string_view text) { return text::anyScalar(text, isKanji); }

std::vector<Run> runs(std::string_view text) {
    std::vector<Run> out;
    const std::vector<std::string_view> characters = text::graphemes(text);
    std::string pending;
    for (std::size_t i = 0; i < characters.size(); ++i) {
        if (isOpening(characters[i])) {
            // The closing bracket of either form, unless another opening or a line end comes first.
            std::size_t close = i + 1;
            while (close < characters.size() && !isClosing(characters[close]) && !isOpening(characters[close]) &&
                   !isLineEnd(characters[close]))
                ++close;
            if (close < characters.size() && isClosing(characters[close])) {
                std::string inner;
                for (std::size_t k = i + 1; k < close; ++k) inner += characters[k];
                const bool holdsKana = text::anyScalar(inner, [](char32_t c) { return c >= 0x3041 && c <= 0x30FF; });
                const auto kanji = trailingKanji(pending);
                if (holdsKana && kanji) {
                    const std::string before = pending.substr(0, pending.size() - kanji->size());
                    if (!before.empty()) out.push_back(Run{before, std::nullopt});
                    out.push_back(Run{*kanji, inner});
                    pending.clear();
                    i = close;
                    continue;
                }
            }
        }
        pending += characters[i];
    }
    if (!pending.empty()) out.push_back(Run{pending, std::nullopt});
    return out;
}

std::string plain(std::string_view text) {
    std::string out;
    for (const Run& r : runs(text)) out += r.base;
    return out;
}

}  // namespace osv::FuriganaMarkup
