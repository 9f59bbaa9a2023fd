#pragma once

// JSON over nlohmann/json with ordered keys, where a file format fixes the key order.
// Include this only from .cpp files: it is a heavy header.

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/Date.h"
#include "core/Uuid.h"

namespace osv::json {

using Json = nlohmann::ordered_json;

// Parses without throwing; none for text that is not one JSON value.
std::optional<Json> parse(std::string_view text);

// One compact line, with invalid UTF-8 replaced rather than thrown on.
std::string dumpLine(const Json& value);
std::string dumpPretty(const Json& value);

// How a JSON value reads as T: none when the value has another type.
template <class T>
std::optional<T> as(const Json& v);

template <>
inline std::optional<std::string> as<std::string>(const Json& v) {
    if (!v.is_string()) return std::nullopt;
    return v.get_ref<const std::string&>();
}
template <>
inline std::optional<double> as<double>(const Json& v) {
    if (!v.is_number()) return std::nullopt;
    const double d = v.get<double>();
    if (!std::isfinite(d)) return std::nullopt;
    return d;
}
template <>
inline std::optional<bool> as<bool>(const Json& v) {
    if (!v.is_boolean()) return std::nullopt;
    return v.get<bool>();
}
template <>
inline std::optional<std::int64_t> as<std::int64_t>(const Json& v) {
    if (v.is_number_integer()) return v.get<std::int64_t>();
    if (v.is_number_float()) {
        const double d = v.get<double>();
        if (std::isfinite(d) && d == std::floor(d) && std::fabs(d) < 9.0e15) return std::int64_t(d);
    }
    return std::nullopt;
}
template <>
inline std::optional<Date> as<Date>(const Json& v) {
    auto d = as<double>(v);
    if (!d) return std::nullopt;
    return Date(*d);
}
template <>
inline std::optional<Uuid> as<Uuid>(const Json& v) {
    if (!v.is_string()) return std::nullopt;
    return Uuid::parse(v.get_ref<const std::string&>());
}

// The member `key` of an object, or null when `object` is no object or lacks the key.
const Json* member(const Json& object, std::string_view key);

// Forgiving readers for files that outlive versions: a missing, null or ill-typed field
// gives the fallback (or none), never an error.
template <class T>
T read(const Json& object, std::string_view key, T fallback) {
    if (const Json* m = member(object, key))
        if (auto v = as<T>(*m)) return std::move(*v);
    return fallback;
}

template <class T>
std::optional<T> readOptional(const Json& object, std::string_view key) {
    if (const Json* m = member(object, key)) return as<T>(*m);
    return std::nullopt;
}

}  // namespace osv::json
