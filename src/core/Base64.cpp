#include "core/Base64.h"

#include <array>

namespace osv {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int, 256> decodeTable() {
    std::array<int, 256> t{};
    for (auto& v : t) v = -1;
    for (int i = 0; i < 64; ++i) t[std::size_t(static_cast<unsigned char>(kAlphabet[i]))] = i;
    return t;
}

}  // namespace

std::string base64Encode(const std::uint8_t* data, std::size_t size) {
    std::string out;
    out.reserve((size + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < size; i += 3) {
        const unsigned v = unsigned(data[i]) << 16 | unsigned(data[i + 1]) << 8 | data[i + 2];
        out.push_back(kAlphabet[(v >> 18) & 63]);
        out.push_back(kAlphabet[(v >> 12) & 63]);
        out.push_back(kAlphabet[(v >> 6) & 63]);
        out.push_back(kAlphabet[v & 63]);
    }
    if (i < size) {
        unsigned v = unsigned(data[i]) << 16;
        if (i + 1 < size) v |= unsigned(data[i + 1]) << 8;
        out.push_back(kAlphabet[(v >> 18) & 63]);
        out.push_back(kAlphabet[(v >> 12) & 63]);
        out.push_back(i + 1 < size ? kAlphabet[(v >> 6) & 63] : '=');
        out.push_back('=');
    }
    return out;
}

std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text) {
    static constexpr auto table = decodeTable();
    std::vector<std::uint8_t> out;
    out.reserve(text.size() / 4 * 3);
    unsigned v = 0;
    int bits = 0;
    for (char c : text) {
        if (c == '=') break;
        const int d = table[static_cast<unsigned char>(c)];
        if (d < 0) return std::nullopt;
        v = (v << 6) | unsigned(d);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(std::uint8_t((v >> bits) & 0xFF));
        }
    }
    return out;
}

}  // namespace osv
