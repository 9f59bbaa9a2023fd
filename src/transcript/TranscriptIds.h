#pragma once

#include <compare>
#include <functional>

#include "core/Uuid.h"

namespace osv {

// The id of a sentence: the id of its first delta event. JSON {"raw": "{UUID}"}.
struct SentenceID {
    Uuid raw;
    auto operator<=>(const SentenceID&) const = default;
};

// The id of an utterance, the same shape as SentenceID but a distinct type.
struct UtteranceID {
    Uuid raw;
    auto operator<=>(const UtteranceID&) const = default;
};

}  // namespace osv

template <>
struct std::hash<osv::SentenceID> {
    std::size_t operator()(const osv::SentenceID& id) const noexcept { return osv::UuidHash{}(id.raw); }
};
template <>
struct std::hash<osv::UtteranceID> {
    std::size_t operator()(const osv::UtteranceID& id) const noexcept { return osv::UuidHash{}(id.raw); }
};
