#pragma once

// Enumerations stored as text: the case whose name is `raw`, where names[i] names case i.

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace osv {

template <class E>
std::optional<E> enumFromRaw(std::string_view raw, std::span<const std::string_view> names) {
    for (std::size_t i = 0; i < names.size(); ++i)
        if (names[i] == raw) return static_cast<E>(i);
    return std::nullopt;
}

}  // namespace osv
