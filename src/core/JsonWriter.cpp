#include "core/JsonWriter.h"

#include <simdjson.h>

#include <array>
#include <charconv>
#include <cmath>

namespace osv {
namespace {

constexpr char kHex[] = "0123456789abcdef";

// Length of the valid UTF-8 sequence at s[i], or 0 when it is not one.
std::size_t validSequenceLength(std::string_view s, std::size_t i) {
    const auto b0 = static_cast<unsigned char>(s[i]);
    auto cont = [&](std::size_t k) { return i + k < s.size() && (static_cast<unsigned char>(s[i + k]) & 0xC0) == 0x80; };
    if (b0 >= 0xC2 && b0 <= 0xDF) return cont(1) ? 2 : 0;
    if (b0 >= 0xE0 && b0 <= 0xEF) {
        if (!cont(1) || !cont(2)) return 0;
        const auto b1 = static_cast<unsigned char>(s[i + 1]);
        if (b0 == 0xE0 && b1 < 0xA0) return 0;   // overlong
        if (b0 == 0xED && b1 >= 0xA0) return 0;  // surrogates
        return 3;
    }
    if (b0 >= 0xF0 && b0 <= 0xF4) {
        if (!cont(1) || !cont(2) || !cont(3)) return 0;
        const auto b1 = static_cast<unsigned char>(s[i + 1]);
        if (b0 == 0xF0 && b1 < 0x90) return 0;  // overlong
        if (b0 == 0xF4 && b1 >= 0x90) return 0;  // beyond U+10FFFF
        return 4;
    }
    return 0;
}

// Bytes that need an escape: control characters, the quote and the backslash.
constexpr auto kNeedsEscape = [] {
    std::array<bool, 256> table{};
    for (int c = 0; c < 0x20; ++c) table[std::size_t(c)] = true;
    table['"'] = table['\\'] = true;
    return table;
}();

void appendJsonStringSlowly(std::string& out, std::string_view s) {
    out.push_back('"');
    std::size_t runStart = 0;
    std::size_t i = 0;
    auto flush = [&] { out.append(s.data() + runStart, i - runStart); };
    while (i < s.size()) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c >= 0x20 && c < 0x80 && c != '"' && c != '\\') {
            ++i;
            continue;
        }
        if (c >= 0x80) {
            if (const std::size_t n = validSequenceLength(s, i)) {
                i += n;
                continue;
            }
            flush();
            out.append("\xEF\xBF\xBD");
            runStart = ++i;
            continue;
        }
        flush();
        switch (c) {
            case '"': out.append("\\\""); break;
            case '\\': out.append("\\\\"); break;
            case '\b': out.append("\\b"); break;
            case '\f': out.append("\\f"); break;
            case '\n': out.append("\\n"); break;
            case '\r': out.append("\\r"); break;
            case '\t': out.append("\\t"); break;
            default:
                out.append("\\u00");
                out.push_back(kHex[c >> 4]);
                out.push_back(kHex[c & 0xF]);
        }
        runStart = ++i;
    }
    flush();
    out.push_back('"');
}

}  // namespace

void appendJsonString(std::string& out, std::string_view s) {
    // Nearly every string is valid UTF-8 with nothing to escape: checked at SIMD speed and
    // copied whole. The byte loop handles the rest.
    if (simdjson::validate_utf8(s.data(), s.size())) {
        std::size_t i = 0;
        while (i < s.size() && !kNeedsEscape[static_cast<unsigned char>(s[i])]) ++i;
        if (i == s.size()) {
            out.push_back('"');
            out.append(s);
            out.push_back('"');
            return;
        }
    }
    appendJsonStringSlowly(out, s);
}

void appendJsonNumber(std::string& out, double value) {
    if (!std::isfinite(value)) {
        out.append("null");
        return;
    }
    char buffer[400];
    const double magnitude = std::fabs(value);
    const bool plain = magnitude == 0 || (magnitude >= 1e-5 && magnitude < 1e16);
    const auto result = plain ? std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed)
                              : std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

void JsonWriter::separate() {
    if (needsComma_) out_.push_back(',');
}

void JsonWriter::beginObject() {
    separate();
    out_.push_back('{');
    needsComma_ = false;
}

void JsonWriter::endObject() {
    out_.push_back('}');
    needsComma_ = true;
}

void JsonWriter::beginArray() {
    separate();
    out_.push_back('[');
    needsComma_ = false;
}

void JsonWriter::endArray() {
    out_.push_back(']');
    needsComma_ = true;
}

void JsonWriter::key(std::string_view name) {
    separate();
    appendJsonString(out_, name);
    out_.push_back(':');
    needsComma_ = false;
}

void JsonWriter::string(std::string_view text) {
    separate();
    appendJsonString(out_, text);
    needsComma_ = true;
}

void JsonWriter::number(double value) {
    separate();
    appendJsonNumber(out_, value);
    needsComma_ = true;
}

void JsonWriter::integer(std::int64_t value) {
    separate();
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out_.append(buffer, result.ptr);
    needsComma_ = true;
}

void JsonWriter::boolean(bool value) {
    separate();
    out_.append(value ? "true" : "false");
    needsComma_ = true;
}

void JsonWriter::null() {
    separate();
    out_.append("null");
    needsComma_ = true;
}

void JsonWriter::raw(std::string_view json) {
    separate();
    out_.append(json);
    needsComma_ = true;
}

void JsonWriter::uuid(const Uuid& id) {
    separate();
    out_.push_back('"');
    out_.append(id.text());
    out_.push_back('"');
    needsComma_ = true;
}

}  // namespace osv
