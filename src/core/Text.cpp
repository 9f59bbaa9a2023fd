#include "core/Text.h"

#include <unicode/brkiter.h>
#include <unicode/translit.h>
#include <unicode/uchar.h>
#include <unicode/uniset.h>
#include <unicode/unistr.h>
#include <unicode/utext.h>

#include <simdjson.h>

#include <memory>

namespace osv::text {

char32_t decodeScalar(std::string_view s, std::size_t& pos) {
    const auto b0 = static_cast<unsigned char>(s[pos]);
    if (b0 < 0x80) {
        ++pos;
        return b0;
    }
    int length = 0;
    char32_t c = 0;
    char32_t minimum = 0;
    if ((b0 & 0xE0) == 0xC0) {
        length = 2, c = b0 & 0x1F, minimum = 0x80;
    } else if ((b0 & 0xF0) == 0xE0) {
        length = 3, c = b0 & 0x0F, minimum = 0x800;
    } else if ((b0 & 0xF8) == 0xF0) {
        length = 4, c = b0 & 0x07, minimum = 0x10000;
    } else {
        ++pos;
        return 0xFFFD;
    }
    if (pos + length > s.size()) {
        ++pos;
        return 0xFFFD;
    }
    for (int k = 1; k < length; ++k) {
        const auto b = static_cast<unsigned char>(s[pos + k]);
        if ((b & 0xC0) != 0x80) {
            ++pos;
            return 0xFFFD;
        }
        c = (c << 6) | (b & 0x3F);
    }
    if (c < minimum || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
        ++pos;
        return 0xFFFD;
    }
    pos += length;
    return c;
}

void appendScalar(std::string& out, char32_t c) {
    if (c < 0x80) {
        out.push_back(char(c));
    } else if (c < 0x800) {
        out.push_back(char(0xC0 | (c >> 6)));
        out.push_back(char(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out.push_back(char(0xE0 | (c >> 12)));
        out.push_back(char(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(char(0x80 | (c & 0x3F)));
    } else {
        out.push_back(char(0xF0 | (c >> 18)));
        out.push_back(char(0x80 | ((c >> 12) & 0x3F)));
        out.push_back(char(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(char(0x80 | (c & 0x3F)));
    }
}

namespace {

// Scalars that are always a character of their own: no grapheme rule joins them to a
// neighbour (no CR, no extenders or joiners, no Hangul jamo, no regional indicators).
// A text made only of these has one character per scalar.
bool isStandalone(char32_t c) {
    if (c < 0x80) return c != 0x0D;
    if (c >= 0xA0 && c <= 0x2FF) return true;
    if (c >= 0x2010 && c <= 0x2027) return true;
    if (c >= 0x2030 && c <= 0x205E) return true;
    if (c >= 0x3000 && c <= 0x3029) return true;
    if (c >= 0x3030 && c <= 0x3098) return true;
    if (c >= 0x309B && c <= 0x30FF) return true;
    if (c >= 0x3400 && c <= 0x4DBF) return true;
    if (c >= 0x4E00 && c <= 0x9FFF) return true;
    if (c >= 0xFF01 && c <= 0xFF9D) return true;
    return false;
}

icu::BreakIterator* characterBreaker() {
    thread_local std::unique_ptr<icu::BreakIterator> breaker = [] {
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::BreakIterator> b(
            icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
        if (U_FAILURE(status)) b.reset();
        return b;
    }();
    return breaker.get();
}

}  // namespace

GraphemeWalker::GraphemeWalker(std::string_view text) : text_(text) {
    std::size_t i = 0;
    while (i < text.size()) {
        if (!isStandalone(decodeScalar(text, i))) {
            simple_ = false;
            break;
        }
    }
    if (simple_) return;
    icu::BreakIterator* breaker = characterBreaker();
    UErrorCode status = U_ZERO_ERROR;
    UText ut = UTEXT_INITIALIZER;
    utext_openUTF8(&ut, text.data(), static_cast<int64_t>(text.size()), &status);
    if (breaker && U_SUCCESS(status)) {
        breaker->setText(&ut, status);
        if (U_SUCCESS(status)) {
            for (int32_t b = breaker->next(); b != icu::BreakIterator::DONE; b = breaker->next())
                bounds_.push_back(static_cast<std::size_t>(b));
        }
        // Detach the shared breaker from our stack UText before it goes away.
        UErrorCode ignored = U_ZERO_ERROR;
        UText empty = UTEXT_INITIALIZER;
        utext_openUTF8(&empty, "", 0, &ignored);
        breaker->setText(&empty, ignored);
        utext_close(&empty);
    }
    utext_close(&ut);
    if (bounds_.empty() || bounds_.back() != text.size()) {
        // ICU unavailable: fall back to one character per scalar.
        bounds_.clear();
        simple_ = true;
    }
}

bool GraphemeWalker::next(std::string_view& cluster) {
    if (pos_ >= text_.size()) return false;
    std::size_t end = pos_;
    if (simple_) {
        decodeScalar(text_, end);
    } else {
        end = bounds_[boundIndex_++];
    }
    cluster = text_.substr(pos_, end - pos_);
    pos_ = end;
    return true;
}

std::size_t graphemeCount(std::string_view text) {
    GraphemeWalker w(text);
    std::string_view c;
    std::size_t n = 0;
    while (w.next(c)) ++n;
    return n;
}

std::vector<std::string_view> graphemes(std::string_view text) {
    std::vector<std::string_view> out;
    GraphemeWalker w(text);
    std::string_view c;
    while (w.next(c)) out.push_back(c);
    return out;
}

namespace {

// Start of the scalar that ends at `end`.
std::size_t scalarStartBefore(std::string_view s, std::size_t end) {
    std::size_t start = end - 1;
    while (start > 0 && end - start < 4 && (static_cast<unsigned char>(s[start]) & 0xC0) == 0x80) --start;
    return start;
}

}  // namespace

std::string_view lastCharacter(std::string_view text) {
    if (text.empty()) return {};
    const std::size_t start = scalarStartBefore(text, text.size());
    std::size_t probe = start;
    const char32_t last = decodeScalar(text, probe);
    if (probe == text.size() && isStandalone(last) && last != U'\n') {
        if (start == 0) return text.substr(start);
        // Two standalone scalars never join, whatever stands before them.
        const std::size_t previousStart = scalarStartBefore(text, start);
        std::size_t q = previousStart;
        if (isStandalone(decodeScalar(text, q)) && q == start) return text.substr(start);
    }
    std::string_view character;
    std::string_view lastSeen;
    GraphemeWalker walker(text);
    while (walker.next(character)) lastSeen = character;
    return lastSeen;
}

std::string_view dropGraphemes(std::string_view text, std::size_t count) {
    GraphemeWalker w(text);
    std::string_view c;
    for (std::size_t i = 0; i < count; ++i)
        if (!w.next(c)) return {};
    return w.rest();
}

bool isWhitespace(char32_t c) { return u_isUWhiteSpace(UChar32(c)); }
bool isPunctuation(char32_t c) { return u_ispunct(UChar32(c)); }
bool isSymbol(char32_t c) { return (U_GET_GC_MASK(UChar32(c)) & U_GC_S_MASK) != 0; }
bool isLetterOrDigit(char32_t c) { return u_isalnum(UChar32(c)); }
bool isKana(char32_t c) { return (c >= 0x3040 && c <= 0x30FF) || (c >= 0x31F0 && c <= 0x31FF); }
bool isKanaBlock(char32_t c) { return c >= 0x3040 && c <= 0x30FF; }
bool isHan(char32_t c) { return (c >= 0x4E00 && c <= 0x9FFF) || (c >= 0x3400 && c <= 0x4DBF); }
bool isHangul(char32_t c) { return (c >= 0x1100 && c <= 0x11FF) || (c >= 0xAC00 && c <= 0xD7AF); }

char32_t firstScalar(std::string_view cluster) {
    if (cluster.empty()) return 0;
    std::size_t i = 0;
    return decodeScalar(cluster, i);
}

bool isValidUTF8(std::string_view text) { return simdjson::validate_utf8(text.data(), text.size()); }

std::string asciiLowercase(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
    return out;
}

std::string_view trimmed(std::string_view text) {
    std::size_t begin = 0;
    while (begin < text.size()) {
        std::size_t next = begin;
        if (!isWhitespace(decodeScalar(text, next))) break;
        begin = next;
    }
    std::size_t end = text.size();
    while (end > begin) {
        // Step back to the start of the last scalar.
        std::size_t start = end - 1;
        while (start > begin && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80) --start;
        std::size_t probe = start;
        if (!isWhitespace(decodeScalar(text, probe))) break;
        end = start;
    }
    return text.substr(begin, end - begin);
}

bool isBlank(std::string_view text) { return trimmed(text).empty(); }

namespace {

struct HantHans {
    std::unique_ptr<icu::Transliterator> transform;
    icu::UnicodeSet changes;  // scalars the transform may rewrite
};

HantHans& hantHans() {
    thread_local HantHans h = [] {
        HantHans made;
        UErrorCode status = U_ZERO_ERROR;
        made.transform.reset(icu::Transliterator::createInstance(
            icu::UnicodeString::fromUTF8("Hant-Hans"), UTRANS_FORWARD, status));
        if (U_FAILURE(status)) {
            made.transform.reset();
        } else {
            made.transform->getSourceSet(made.changes);
            made.changes.freeze();
        }
        return made;
    }();
    return h;
}

}  // namespace

std::optional<std::string> traditionalToSimplified(std::string_view text) {
    HantHans& h = hantHans();
    if (!h.transform) return std::nullopt;
    // Most text is simplified already; skip the transform when nothing could change.
    const bool mayChange = anyScalar(text, [&](char32_t c) { return h.changes.contains(UChar32(c)); });
    if (!mayChange) {
        if (text.empty()) return std::nullopt;
        return std::string(text);
    }
    icu::UnicodeString u = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    h.transform->transliterate(u);
    std::string out;
    u.toUTF8String(out);
    if (out.empty()) return std::nullopt;
    return out;
}

struct IncrementalSimplifier::State {
    icu::UnicodeString text;
    UTransPosition position{0, 0, 0, 0};
};

IncrementalSimplifier::IncrementalSimplifier() = default;
IncrementalSimplifier::~IncrementalSimplifier() = default;
IncrementalSimplifier::IncrementalSimplifier(const IncrementalSimplifier& other)
    : state_(other.state_ ? std::make_unique<State>(*other.state_) : nullptr) {}
IncrementalSimplifier& IncrementalSimplifier::operator=(const IncrementalSimplifier& other) {
    if (this != &other) state_ = other.state_ ? std::make_unique<State>(*other.state_) : nullptr;
    return *this;
}
IncrementalSimplifier::IncrementalSimplifier(IncrementalSimplifier&&) noexcept = default;
IncrementalSimplifier& IncrementalSimplifier::operator=(IncrementalSimplifier&&) noexcept = default;

void IncrementalSimplifier::append(std::string_view more) {
    if (!state_) state_ = std::make_unique<State>();
    const icu::UnicodeString insertion =
        icu::UnicodeString::fromUTF8(icu::StringPiece(more.data(), static_cast<int32_t>(more.size())));
    HantHans& h = hantHans();
    if (!h.transform) {
        state_->text.append(insertion);
        return;
    }
    UErrorCode status = U_ZERO_ERROR;
    h.transform->transliterate(state_->text, state_->position, insertion, status);
}

std::optional<std::string> IncrementalSimplifier::result() const {
    HantHans& h = hantHans();
    if (!h.transform || !state_) return std::nullopt;
    icu::UnicodeString finished = state_->text;
    UTransPosition position = state_->position;
    h.transform->finishTransliteration(finished, position);
    std::string out;
    finished.toUTF8String(out);
    if (out.empty()) return std::nullopt;
    return out;
}

}  // namespace osv::text
