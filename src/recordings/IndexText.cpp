#include "recordings/IndexText.h"

#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

#include "core/JsonWriter.h"
#include "transcript/CaptureChannel.h"
#include "transcript/TranscriptEventJson.h"

namespace osv::indextext {
namespace {

constexpr std::uint64_t kOnes = ~std::uint64_t(0) / 255;
constexpr std::uint64_t kHighs = kOnes * 0x80;

// Whether any of the eight bytes in `w` is zero / below `n` (n at most 128).
constexpr std::uint64_t hasZero(std::uint64_t w) { return (w - kOnes) & ~w & kHighs; }
constexpr std::uint64_t hasLess(std::uint64_t w, unsigned n) { return (w - kOnes * n) & ~w & kHighs; }

bool literal(const char*& p, const char* end, std::string_view text) {
    if (std::size_t(end - p) < text.size() || std::memcmp(p, text.data(), text.size()) != 0) return false;
    p += text.size();
    return true;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// An integer as std::to_chars writes it, within int; past it, or null.
const char* canonicalInt(const char* p, const char* end, int& value) {
    const char* start = p;
    if (p < end && *p == '-') ++p;
    if (p == end || !isDigit(*p)) return nullptr;
    if (*p == '0' && (p + 1 < end && isDigit(p[1]))) return nullptr;
    const char* digits = p;
    while (p < end && isDigit(*p)) ++p;
    if (p - digits > 10 || (p < end && (*p == '.' || *p == 'e' || *p == 'E'))) return nullptr;
    std::int64_t v = 0;
    std::from_chars(start, p, v);
    if (v < INT32_MIN || v > INT32_MAX || (v == 0 && *start == '-')) return nullptr;
    value = int(v);
    return p;
}

// A number as the writer writes a finite double; past it, or null.
const char* canonicalNumber(const char* p, const char* end, double& value) {
    const char* start = p;
    while (p < end && (isDigit(*p) || *p == '-' || *p == '+' || *p == '.' || *p == 'e' || *p == 'E')) ++p;
    if (p == start) return nullptr;
    const auto parsed = std::from_chars(start, p, value);
    // A negative zero reads back as 0 where it has no fraction: never the writer's form.
    if (parsed.ec != std::errc() || parsed.ptr != p || !std::isfinite(value) || (value == 0 && std::signbit(value)))
        return nullptr;
    thread_local std::string written;
    written.clear();
    appendJsonNumber(written, value);
    if (written != std::string_view(start, std::size_t(p - start))) return nullptr;
    return p;
}

// Upper-case hex digits, as Uuid::text writes them.
constexpr auto kUpperHex = [] {
    std::array<unsigned char, 256> table{};
    for (int c = '0'; c <= '9'; ++c) table[std::size_t(c)] = 1;
    for (int c = 'A'; c <= 'F'; ++c) table[std::size_t(c)] = 1;
    return table;
}();

// Without branches per character: there are a million of these in a long history.
bool isCanonicalUuid(const char* p) {
    unsigned ok = p[8] == '-' && p[13] == '-' && p[18] == '-' && p[23] == '-';
    for (int i = 0; i < 36; ++i)
        if (i != 8 && i != 13 && i != 18 && i != 23) ok &= kUpperHex[static_cast<unsigned char>(p[i])];
    return ok;
}

}  // namespace

const char* skipWhitespace(const char* p, const char* end) {
    while (p < end && (*p == ' ' || *p == '\n' || *p == '\r' || *p == '\t')) ++p;
    return p;
}

namespace {

const char* skipString(const char* p, const char* end) {
    for (++p; p < end; ++p) {
        if (*p == '\\') ++p;
        else if (*p == '"') return p + 1;
    }
    return nullptr;
}

}  // namespace

const char* skipValue(const char* p, const char* end) {
    if (p >= end) return nullptr;
    if (*p == '"') return skipString(p, end);
    if (*p == '{' || *p == '[') {
        std::size_t depth = 0;
        while (p < end) {
            const char c = *p;
            if (c == '"') {
                p = skipString(p, end);
                if (!p) return nullptr;
                continue;
            }
            ++p;
            if (c == '{' || c == '[') ++depth;
            else if ((c == '}' || c == ']') && --depth == 0) return p;
        }
        return nullptr;
    }
    const char* start = p;
    while (p < end && (std::isalnum(static_cast<unsigned char>(*p)) || *p == '-' || *p == '+' || *p == '.')) ++p;
    return p == start ? nullptr : p;
}

const char* canonicalString(const char* p, const char* end) {
    if (p >= end || *p != '"') return nullptr;
    ++p;
    for (;;) {
        // Eight bytes at a time past text with nothing to look at.
        while (end - p >= 8) {
            std::uint64_t w;
            std::memcpy(&w, p, 8);
            if (hasZero(w ^ (kOnes * '"')) | hasZero(w ^ (kOnes * '\\')) | hasLess(w, 0x20)) break;
            p += 8;
        }
        if (p >= end) return nullptr;
        const auto c = static_cast<unsigned char>(*p);
        if (c == '"') return p + 1;
        if (c < 0x20) return nullptr;
        if (c != '\\') {
            ++p;
            continue;
        }
        if (end - p < 2) return nullptr;
        switch (p[1]) {
            case '"': case '\\': case 'b': case 'f': case 'n': case 'r': case 't':
                p += 2;
                continue;
            case 'u': {
                // Only control characters without a short form are written as \u00xx.
                if (end - p < 6 || p[2] != '0' || p[3] != '0') return nullptr;
                const int high = hexValue(p[4]), low = hexValue(p[5]);
                if (high < 0 || high > 1 || low < 0) return nullptr;
                const int code = high * 16 + low;
                if (code == '\b' || code == '\f' || code == '\n' || code == '\r' || code == '\t') return nullptr;
                p += 6;
                continue;
            }
            default:
                return nullptr;
        }
    }
}

const char* canonicalSegments(const char* p, const char* end, std::size_t& count) {
    count = 0;
    if (!literal(p, end, "[")) return nullptr;
    if (literal(p, end, "]")) return p;
    std::pair<int, double> previous{INT32_MIN, -INFINITY};
    for (;;) {
        int sequence = 0, latency = 0;
        double startedAt = 0;
        if (!literal(p, end, "{\"id\":\"") || end - p < 37 || !isCanonicalUuid(p) || p[36] != '"') return nullptr;
        p += 37;
        if (!literal(p, end, ",\"sequence\":") || !(p = canonicalInt(p, end, sequence))) return nullptr;
        if (literal(p, end, ",\"channel\":\"")) {
            if (!(literal(p, end, rawValue(CaptureChannel::system)) || literal(p, end, rawValue(CaptureChannel::microphone))) ||
                !literal(p, end, "\""))
                return nullptr;
        }
        if (!literal(p, end, ",\"startedAt\":") || !(p = canonicalNumber(p, end, startedAt))) return nullptr;
        if (!literal(p, end, ",\"sourceText\":") || !(p = canonicalString(p, end))) return nullptr;
        if (!literal(p, end, ",\"translatedText\":") || !(p = canonicalString(p, end))) return nullptr;
        if (!literal(p, end, ",\"status\":\"")) return nullptr;
        const char* status = p;
        while (p < end && *p != '"') ++p;
        if (p == end || !segmentStatusFromRaw(std::string_view(status, std::size_t(p - status)))) return nullptr;
        ++p;
        if (literal(p, end, ",\"firstVisibleLatencyMilliseconds\":") && !(p = canonicalInt(p, end, latency))) return nullptr;
        if (literal(p, end, ",\"finalLatencyMilliseconds\":") && !(p = canonicalInt(p, end, latency))) return nullptr;
        if (!literal(p, end, "}")) return nullptr;
        // Decoding sorts (stably); text that is not in order would be written differently.
        const std::pair<int, double> key{sequence, startedAt};
        if (key < previous) return nullptr;
        previous = key;
        ++count;
        if (literal(p, end, "]")) return p;
        if (!literal(p, end, ",")) return nullptr;
    }
}

std::string unescapeCanonicalString(std::string_view quoted) {
    std::string out;
    out.reserve(quoted.size());
    const std::string_view s = quoted.substr(1, quoted.size() - 2);
    for (std::size_t i = 0; i < s.size();) {
        const std::size_t slash = s.find('\\', i);
        if (slash == std::string_view::npos) {
            out.append(s.substr(i));
            break;
        }
        out.append(s.substr(i, slash - i));
        const char c = s[slash + 1];
        switch (c) {
            case 'b': out.push_back('\b'); break;
            case 'f': out.push_back('\f'); break;
            case 'n': out.push_back('\n'); break;
            case 'r': out.push_back('\r'); break;
            case 't': out.push_back('\t'); break;
            case 'u': out.push_back(char(hexValue(s[slash + 4]) * 16 + hexValue(s[slash + 5]))); break;
            default: out.push_back(c);
        }
        i = slash + (c == 'u' ? 6 : 2);
    }
    return out;
}

}  // namespace osv::indextext
