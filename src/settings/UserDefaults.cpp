#include "settings/UserDefaults.h"

#include "core/Text.h"

namespace osv {

std::optional<std::string> UserDefaults::string(std::string_view key) const {
    auto v = object(key);
    if (!v) return std::nullopt;
    if (auto* s = std::get_if<std::string>(&*v)) return *s;
    return std::nullopt;
}

std::optional<double> UserDefaults::number(std::string_view key) const {
    auto v = object(key);
    if (!v) return std::nullopt;
    if (auto* d = std::get_if<double>(&*v)) return *d;
    return std::nullopt;
}

std::optional<bool> UserDefaults::boolean(std::string_view key) const {
    auto v = object(key);
    if (!v) return std::nullopt;
    if (auto* b = std::get_if<bool>(&*v)) return *b;
    if (auto* d = std::get_if<double>(&*v)) return *d != 0;
    if (auto* s = std::get_if<std::string>(&*v)) {
        const std::string lower = text::asciiLowercase(*s);
        return lower == "true" || lower == "yes" || lower == "1";
    }
    return std::nullopt;
}

std::optional<UserDefaults::Data> UserDefaults::data(std::string_view key) const {
    auto v = object(key);
    if (!v) return std::nullopt;
    if (auto* d = std::get_if<Data>(&*v)) return *d;
    return std::nullopt;
}

std::optional<UserDefaults::Value> MemoryUserDefaults::object(std::string_view key) const {
    auto it = values_.find(key);
    if (it == values_.end()) return std::nullopt;
    return it->second;
}

}  // namespace osv
