#pragma once

// Text helpers over UTF-8 std::string. "Character" means a grapheme cluster (what a
// reader sees as one character); the scalar tests walk Unicode code points.

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace osv::text {

// Decodes the scalar at `pos` and advances `pos`; ill-formed bytes give U+FFFD and
// advance by one byte, so a walk always terminates.
char32_t decodeScalar(std::string_view s, std::size_t& pos);
void appendScalar(std::string& out, char32_t scalar);

template <class F>
void forEachScalar(std::string_view s, F&& f) {
    std::size_t i = 0;
    while (i < s.size()) f(decodeScalar(s, i));
}

template <class Pred>
bool anyScalar(std::string_view s, Pred&& p) {
    std::size_t i = 0;
    while (i < s.size())
        if (p(decodeScalar(s, i))) return true;
    return false;
}

// Walks the grapheme clusters of a text without allocating for ordinary CJK and Latin
// text; other text is split by ICU once, up front, so that walkers may nest.
class GraphemeWalker {
public:
    explicit GraphemeWalker(std::string_view text);
    // Sets `cluster` to the next character; false at the end.
    bool next(std::string_view& cluster);
    // The text after the last character returned.
    std::string_view rest() const { return text_.substr(pos_); }

private:
    std::string_view text_;
    std::size_t pos_ = 0;
    bool simple_ = true;
    std::vector<std::size_t> bounds_;
    std::size_t boundIndex_ = 0;
};

std::size_t graphemeCount(std::string_view text);
std::vector<std::string_view> graphemes(std::string_view text);
// The last character; looks only at the end of the text in the common case.
std::string_view lastCharacter(std::string_view text);
// The text after the first `count` characters (empty if it has no more).
std::string_view dropGraphemes(std::string_view text, std::size_t count);

// Scalar classes.
bool isWhitespace(char32_t c);   // White_Space: spaces, tabs and line ends
bool isPunctuation(char32_t c);  // general category P*
bool isSymbol(char32_t c);       // general category S*
bool isLetterOrDigit(char32_t c);
bool isKana(char32_t c);         // U+3040 to U+30FF and U+31F0 to U+31FF
bool isKanaBlock(char32_t c);    // U+3040 to U+30FF only
bool isHan(char32_t c);          // U+4E00 to U+9FFF and U+3400 to U+4DBF
bool isHangul(char32_t c);       // U+1100 to U+11FF and U+AC00 to U+D7AF

// Character classes: a character is judged by its first scalar.
char32_t firstScalar(std::string_view cluster);
inline bool isWhitespaceCharacter(std::string_view c) { return isWhitespace(firstScalar(c)); }

// Leading and trailing white space and line ends removed.
std::string_view trimmed(std::string_view text);
bool isBlank(std::string_view text);  // empty or white space only

// Well-formed UTF-8 throughout (no overlong forms, surrogates or cut sequences).
bool isValidUTF8(std::string_view text);

// A–Z turned into a–z, nothing else: for names, codes and keywords, not for prose.
std::string asciiLowercase(std::string_view text);

// Traditional to Simplified Chinese through ICU's "Hant-Hans" transform. None when the
// transform is unavailable or yields nothing.
std::optional<std::string> traditionalToSimplified(std::string_view text);

// The same transform over a text that grows by appending, in ICU's incremental mode: each
// append converts only what its context has settled, so the cost follows the appended
// text, not the whole. result() equals traditionalToSimplified of everything appended.
class IncrementalSimplifier {
public:
    IncrementalSimplifier();
    ~IncrementalSimplifier();
    IncrementalSimplifier(const IncrementalSimplifier& other);
    IncrementalSimplifier& operator=(const IncrementalSimplifier& other);
    IncrementalSimplifier(IncrementalSimplifier&&) noexcept;
    IncrementalSimplifier& operator=(IncrementalSimplifier&&) noexcept;

    void append(std::string_view more);
    // None when the transform is unavailable or yields nothing.
    std::optional<std::string> result() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace osv::text
