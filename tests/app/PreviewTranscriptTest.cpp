#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <set>

#include "app/PreviewTranscript.h"

namespace osv {
namespace {

TEST(PreviewTranscript, IsEnabledOnlyByExactlyOne) {
    for (const char* value : {"true", "0", "1 ", "yes"}) {
        ::setenv("OSV_PREVIEW_TRANSCRIPT", value, 1);
        EXPECT_FALSE(PreviewTranscript::isEnabled()) << value;
    }
    ::setenv("OSV_PREVIEW_TRANSCRIPT", "1", 1);
    EXPECT_TRUE(PreviewTranscript::isEnabled());
    ::unsetenv("OSV_PREVIEW_TRANSCRIPT");
    EXPECT_FALSE(PreviewTranscript::isEnabled());
}

struct Shown {
    std::string text, translation;
    std::optional<TranslationOrigin> origin;
    bool failed;
    CaptureChannel channel;
    bool operator==(const Shown&) const = default;
};

std::vector<Shown> play(Date start) {
    LiveTranscriptSession session;
    PreviewTranscript::play(session, start);
    std::vector<Shown> out;
    for (const Sentence& s : session.snapshot().sentences()) {
        const Translation* t = Sentence::standing(s.translations);
        out.push_back({s.text, t ? t->text : "", t ? std::optional(t->origin) : std::nullopt,
                       s.translationFailure.has_value(), s.channel});
    }
    return out;
}

// The sample is built by the real segmenter and session: one closed sentence per line, the
// user's traditional characters simplified, every kind of result in place, and the same
// on every run whatever the start.
TEST(PreviewTranscript, PlaysEveryLineIntoOneSentenceTheSameEveryTime) {
    const auto shown = play(Date(800000000));
    ASSERT_EQ(shown.size(), PreviewTranscript::script().size());
    EXPECT_EQ(shown, play(Date(0)));
    EXPECT_EQ(shown[2].text, "好的，请您先介绍一下价格。");
    EXPECT_EQ(shown[2].channel, CaptureChannel::microphone);
    std::set<TranslationOrigin> origins;
    int failures = 0;
    for (const auto& s : shown) {
        if (s.origin) origins.insert(*s.origin);
        failures += s.failed;
    }
    EXPECT_EQ(origins, (std::set<TranslationOrigin>{TranslationOrigin::streamed, TranslationOrigin::refined,
                                                    TranslationOrigin::reverseToJapanese, TranslationOrigin::provisional}));
    EXPECT_EQ(failures, 1);

    LiveTranscriptSession session;
    PreviewTranscript::play(session, Date(0));
    EXPECT_TRUE(session.snapshot().usesMultipleChannels());
    for (const Sentence& s : session.snapshot().sentences()) EXPECT_TRUE(s.isClosed);
}

// Offsets from the start are the script's own round numbers, however large the start.
TEST(PreviewTranscript, CaptionOffsetsCarryNoRoundingNoise) {
    for (const Date start : {Date(0), Date(800000000.0)}) {
        LiveTranscriptSession session;
        const Date end = PreviewTranscript::play(session, start);
        const auto blocks = session.captionBlocks(true, end).toVector();
        ASSERT_GT(blocks.size(), 3u);
        for (const auto& b : blocks) {
            ASSERT_TRUE(b.startOffset);
            EXPECT_EQ(*b.startOffset, std::round(*b.startOffset * 1000) / 1000) << start.seconds;
        }
        EXPECT_EQ(*blocks[1].startOffset, 3.25);
    }
}

}  // namespace
}  // namespace osv
