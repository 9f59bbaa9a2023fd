#include <gtest/gtest.h>
#include <unicode/brkiter.h>
#include <unicode/translit.h>
#include <unicode/unistr.h>

#include <memory>
#include <random>

#include "core/Text.h"

namespace osv::text {
namespace {

std::size_t icuGraphemeCount(const std::string& s) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> b(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    const icu::UnicodeString u = icu::UnicodeString::fromUTF8(s);
    b->setText(u);
    std::size_t n = 0;
    for (int32_t p = b->next(); p != icu::BreakIterator::DONE; p = b->next()) ++n;
    return n;
}

TEST(Text, CountsCharactersAsAReaderSeesThem) {
    EXPECT_EQ(graphemeCount(""), 0u);
    EXPECT_EQ(graphemeCount("你好，世界。"), 6u);
    EXPECT_EQ(graphemeCount("e\u0301"), 1u);                        // combining accent
    EXPECT_EQ(graphemeCount("\r\n"), 1u);                           // a line end is one
    EXPECT_EQ(graphemeCount("\u304B\u3099"), 1u);                   // か + combining dakuten
    EXPECT_EQ(graphemeCount("\U0001F44D\U0001F3FD"), 1u);           // emoji with skin tone
    EXPECT_EQ(graphemeCount("\U0001F468\u200D\U0001F469\u200D\U0001F467"), 1u);  // family
    EXPECT_EQ(graphemeCount("\U0001F1EF\U0001F1F5\U0001F1E8\U0001F1F3"), 2u);    // two flags
    EXPECT_EQ(graphemeCount("한국어"), 3u);
    EXPECT_EQ(graphemeCount("\u1100\u1161\u11A8"), 1u);  // conjoining jamo
}

// The allocation-free path must agree with ICU on every text, or counts (the length cap,
// paragraph lengths) would depend on which path a text took.
TEST(Text, FastCharacterWalkAgreesWithIcuOnRandomText) {
    const std::vector<std::string> alphabet = {
        "a", " ", "\n", "\r", "\r\n", "\t", "。", "！", "？", "?", "你", "說", "か", "ガ", "\u3099", "\u309A",
        "\u0301", "é", "한", "\u1100", "\u1161", "\U0001F44D", "\U0001F3FD", "\u200D", "\uFE0F", "ｱ", "\uFF9E",
        "\u3000", "…", "\U0001F1EF", "\U00020000", "\xE2\x80", "\xFF"};
    std::mt19937 rng(7);
    for (int round = 0; round < 3000; ++round) {
        std::string s;
        const int length = int(rng() % 12);
        for (int i = 0; i < length; ++i) s += alphabet[rng() % alphabet.size()];
        if (s.find('\xFF') != std::string::npos || s.find("\xE2\x80") != std::string::npos) {
            // Ill-formed UTF-8: only require that walking terminates and covers the text.
            std::size_t covered = 0;
            for (auto c : graphemes(s)) covered += c.size();
            EXPECT_EQ(covered, s.size());
            continue;
        }
        EXPECT_EQ(graphemeCount(s), icuGraphemeCount(s)) << s;
    }
}

TEST(Text, DropsLeadingCharacters) {
    EXPECT_EQ(dropGraphemes("ABCDE", 3), "DE");
    EXPECT_EQ(dropGraphemes("e\u0301xy", 1), "xy");
    EXPECT_EQ(dropGraphemes("AB", 5), "");
}

TEST(Text, ClassifiesScalars) {
    EXPECT_TRUE(isWhitespace(U'\u3000'));
    EXPECT_TRUE(isWhitespace(U'\n'));
    EXPECT_TRUE(isWhitespace(U'\u00A0'));
    EXPECT_FALSE(isWhitespace(U'\u200B'));  // zero width space is no White_Space
    for (char32_t c : {U'。', U'，', U'！', U'、', U'「', U'…', U'.', U'-'}) EXPECT_TRUE(isPunctuation(c)) << uint32_t(c);
    for (char32_t c : {U'￥', U'+', U'〒', U'\U0001F600'}) EXPECT_TRUE(isSymbol(c)) << uint32_t(c);
    EXPECT_FALSE(isPunctuation(U'你'));
    EXPECT_TRUE(isKana(U'\u31F0'));
    EXPECT_FALSE(isKanaBlock(U'\u31F0'));
    EXPECT_TRUE(isKanaBlock(U'ー'));
    EXPECT_TRUE(isHan(U'\u3400'));
    EXPECT_FALSE(isHan(U'\U00020000'));
    EXPECT_TRUE(isHangul(U'\u1100'));
    EXPECT_TRUE(isLetterOrDigit(U'７'));
}

TEST(Text, TrimsWhiteSpaceAndLineEndsOnly) {
    EXPECT_EQ(trimmed(" \u3000\n你好 世界\r\n\t"), "你好 世界");
    EXPECT_EQ(trimmed("  "), "");
    EXPECT_EQ(trimmed("。"), "。");
    EXPECT_TRUE(isBlank("\u3000 \n"));
    EXPECT_FALSE(isBlank("\u200B"));
}

TEST(Text, FoldsTraditionalToSimplified) {
    EXPECT_EQ(traditionalToSimplified("說話"), "说话");
    EXPECT_EQ(traditionalToSimplified("我們在這裡開會。"), "我们在这里开会。");
    EXPECT_EQ(traditionalToSimplified("已经是简体"), "已经是简体");
    EXPECT_EQ(traditionalToSimplified(""), std::nullopt);
}

// The shortcut skips the transform for text with no scalar in its source set; it must
// give what the transform itself gives for every CJK ideograph.
TEST(Text, TransformShortcutAgreesWithTheFullTransform) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Transliterator> t(icu::Transliterator::createInstance("Hant-Hans", UTRANS_FORWARD, status));
    ASSERT_TRUE(U_SUCCESS(status));
    std::string batch;
    std::size_t mismatches = 0;
    for (char32_t c = 0x3400; c <= 0x9FFF; ++c) {
        if (c == 0x4DC0) c = 0x4E00;
        std::string s;
        appendScalar(s, c);
        icu::UnicodeString u = icu::UnicodeString::fromUTF8(s);
        t->transliterate(u);
        std::string expected;
        u.toUTF8String(expected);
        if (traditionalToSimplified(s) != expected) ++mismatches;
    }
    EXPECT_EQ(mismatches, 0u);
}

}  // namespace
}  // namespace osv::text

namespace osv::text {
namespace {

// The fold feeds sentence text to the transform piece by piece as deltas arrive; the result
// must not depend on how the text was cut.
TEST(Text, IncrementalTransformEqualsTheWholeTransformHoweverTheTextIsCut) {
    const std::vector<std::string> pieces = {"說", "話", "天", "后", "一", "下", "發", "髮", "乾", "隆", "皇", "后",
                                             "們", "這", "裡", " ", "。", "な", "了", "麼", "麵", "條", "台", "灣"};
    std::mt19937 rng(3);
    for (int round = 0; round < 400; ++round) {
        IncrementalSimplifier incremental;
        std::string whole;
        for (int k = 1 + int(rng() % 6); k > 0; --k) {
            std::string chunk;
            for (int n = 1 + int(rng() % 4); n > 0; --n) chunk += pieces[rng() % pieces.size()];
            incremental.append(chunk);
            whole += chunk;
            ASSERT_EQ(incremental.result(), traditionalToSimplified(whole)) << whole;
        }
        IncrementalSimplifier copy = incremental;  // copies go on independently
        copy.append("們");
        EXPECT_EQ(copy.result(), traditionalToSimplified(whole + "們"));
        EXPECT_EQ(incremental.result(), traditionalToSimplified(whole));
    }
    EXPECT_EQ(IncrementalSimplifier().result(), std::nullopt);
}

TEST(Text, Utf8ValidityAndAsciiLowercase) {
    EXPECT_TRUE(isValidUTF8("你好 hello"));
    EXPECT_TRUE(isValidUTF8(""));
    for (const std::string& bad : {std::string("\xff"), std::string("\xe4\xbd"), std::string("\xc0\xaf"),
                                  std::string("\xed\xa0\x80")})  // cut, overlong, surrogate
        EXPECT_FALSE(isValidUTF8(bad));
    EXPECT_EQ(asciiLowercase("GPT-4o-Mini Ä"), "gpt-4o-mini Ä");
}

}  // namespace
}  // namespace osv::text
