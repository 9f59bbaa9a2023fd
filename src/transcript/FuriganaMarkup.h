#pragma once

// The inline reading format: a kanji word followed by its reading in brackets, ASCII
// "()" or full-width "（）": "今日(きょう)は山東(さんとう)に行(い)きます".

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace osv::FuriganaMarkup {

struct Run {
    std::string base;
    std::optional<std::string> ruby;
    bool operator==(const Run&) const = default;
};

std::vector<Run> runs(std::string_view text);
// The text without its readings; a text with no valid reading is returned unchanged.
std::string plain(std::string_view text);
// The longest end of `text` made of kanji (U+4E00 to U+9FFF); none if it ends otherwise.
std::optional<std::string> trailingKanji(std::string_view text);
// Some scalar is a kanji (U+4E00 to U+9FFF): only then can readings be added.
bool needsAnnotation(std::string_view text);

}  // namespace osv::FuriganaMarkup
