#pragma once

#include <optional>
#include <string_view>

namespace osv {

// The language translations are made into.
enum class TargetLanguage { simplifiedChinese, japanese };

// solo: only the remote party is of interest. shared: both parties take part, and the
// user's own Chinese is translated for the other side.
enum class Perspective { solo, shared };

constexpr std::string_view rawValue(TargetLanguage t) {
    return t == TargetLanguage::simplifiedChinese ? "simplifiedChinese" : "japanese";
}
constexpr std::string_view rawValue(Perspective p) { return p == Perspective::solo ? "solo" : "shared"; }

}  // namespace osv
