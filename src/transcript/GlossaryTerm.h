#pragma once

#include <optional>
#include <string>

namespace osv {

// A term learned from the conversation: how it is written, how the recogniser tends to
// hear it, and its translation.
struct GlossaryTerm {
    std::string written;
    std::optional<std::string> heard;
    std::optional<std::string> translated;

    bool operator==(const GlossaryTerm&) const = default;
};

}  // namespace osv
