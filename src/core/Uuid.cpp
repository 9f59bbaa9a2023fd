#include "core/Uuid.h"

#include <cstring>
#include <random>

namespace osv {
namespace {

thread_local std::optional<std::uint64_t> deterministicCounter;

std::mt19937_64& engine() {
    thread_local std::mt19937_64 e = [] {
        std::random_device rd;
        std::seed_seq seq{rd(), rd(), rd(), rd(), rd(), rd(), rd(), rd()};
        return std::mt19937_64(seq);
    }();
    return e;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

Uuid Uuid::random() {
    std::array<std::uint8_t, 16> b{};
    if (deterministicCounter) {
        const std::uint64_t n = ++*deterministicCounter;
        b[6] = 0x40;
        b[8] = 0x80;
        for (int i = 0; i < 6; ++i) b[15 - i] = std::uint8_t(n >> (8 * i));
        return Uuid(b);
    }
    const std::uint64_t hi = engine()();
    const std::uint64_t lo = engine()();
    std::memcpy(b.data(), &hi, 8);
    std::memcpy(b.data() + 8, &lo, 8);
    b[6] = std::uint8_t((b[6] & 0x0F) | 0x40);  // version 4
    b[8] = std::uint8_t((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
    return Uuid(b);
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    std::array<std::uint8_t, 16> b{};
    std::size_t byte = 0;
    for (std::size_t i = 0; i < 36;) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (text[i] != '-') return std::nullopt;
            ++i;
            continue;
        }
        const int h = hexValue(text[i]);
        const int l = hexValue(text[i + 1]);
        if (h < 0 || l < 0) return std::nullopt;
        b[byte++] = std::uint8_t(h * 16 + l);
        i += 2;
    }
    return Uuid(b);
}

std::string Uuid::text() const {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string s;
    s.reserve(36);
    for (std::size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) s.push_back('-');
        s.push_back(digits[bytes_[i] >> 4]);
        s.push_back(digits[bytes_[i] & 0x0F]);
    }
    return s;
}

bool Uuid::isNil() const {
    for (auto v : bytes_)
        if (v != 0) return false;
    return true;
}

Uuid::DeterministicSequence::DeterministicSequence() : previous_(deterministicCounter) {
    deterministicCounter = 0;
}

Uuid::DeterministicSequence::~DeterministicSequence() { deterministicCounter = previous_; }

std::size_t UuidHash::operator()(const Uuid& u) const noexcept {
    std::uint64_t a, b;
    std::memcpy(&a, u.bytes().data(), 8);
    std::memcpy(&b, u.bytes().data() + 8, 8);
    return std::size_t(a ^ (b * 0x9E3779B97F4A7C15ULL));
}

}  // namespace osv
