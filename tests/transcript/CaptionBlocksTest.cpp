#include <gtest/gtest.h>

#include <random>

#include "LogBuilder.h"
#include "transcript/CaptionBlocks.h"
#include "transcript/LiveTranscriptSession.h"

namespace osv {
namespace {

using namespace osv::testing;
using CaptionGrouping::CaptionBlock;
using Kind = TranscriptSegmenter::DeltaKind;

std::vector<CaptionBlock> fullRebuild(LiveTranscriptSession& session, bool translates, Date now) {
    const TranscriptSnapshot& snap = session.snapshot();
    return captionBlocks(snap, TranscriptSnapshot::paragraphs(0, snap.sentences()), session.labelsChannels,
                         translates, session.routing(), true, now);
}

// The frozen head must say exactly what a rebuild of every block says, through a long
// session in which the second channel arrives late, anchors reach back before the head,
// and results arrive for frozen sentences.
TEST(CaptionBlocks, FrozenHeadEqualsAFullRebuildThroughALongSession) {
    const std::vector<std::string> japanese = {"はい", "そう", "です", "会議", "の", "件", "。", "？", "東京"};
    const std::vector<std::string> chinese = {"我们", "开会", "价格", "好的", "。", "？", "嗯", "这个"};
    for (unsigned seed = 1; seed <= 6; ++seed) {
        std::mt19937 rng(seed);
        auto pick = [&](int n) { return int(rng() % unsigned(n)); };
        LiveTranscriptSession session;
        session.labelsChannels = seed % 2 == 0;
        session.configuredRouting.separatedChannels = seed % 3 != 0;
        double now = 1000;
        std::vector<SentenceID> closed;
        std::size_t frozenSeen = 0;
        for (int step = 0; step < 1500; ++step) {
            now += 0.1 + 0.2 * pick(10);
            const bool mic = step > 500 && pick(3) == 0;  // the microphone arrives late
            const CaptureChannel channel = mic ? kMic : kSystem;
            const auto& words = mic ? chinese : japanese;
            const int action = pick(20);
            if (action < 12) {
                std::optional<Date> anchor;
                if (pick(8) == 0) anchor = Date(now - 30 * pick(3));  // reaching far back
                session.ingest(words[std::size_t(pick(int(words.size())))], Kind::source, channel, Date(now), anchor);
            } else if (action < 14) {
                session.ingest("訳", Kind::streamedTranslation, channel, Date(now), std::nullopt);
            } else if (action < 16) {
                session.closeUtterance(channel, BoundaryReason::idle, Date(now));
            } else if (!closed.empty()) {
                // A result for any sentence, often an old, frozen one.
                const SentenceID id = closed[std::size_t(pick(int(closed.size())))];
                TranscriptEvent::Payload payload;
                switch (pick(4)) {
                    case 0: payload = TranscriptEvent::SentenceTranslated{id, "译文", TranslationOrigin::refined}; break;
                    case 1: payload = TranscriptEvent::SentenceTranslated{id, "草稿", TranslationOrigin::provisional}; break;
                    case 2: payload = TranscriptEvent::SourceRevised{id, "改正", SourceRevisionOrigin::contextual}; break;
                    default: payload = TranscriptEvent::SentenceTranslationFailed{id, "失败"}; break;
                }
                session.append(TranscriptEvent{Uuid::random(), Date(now), std::nullopt, channel, payload});
            }
            closed.clear();
            for (const Sentence& s : session.snapshot().sentences())
                if (s.isClosed) closed.push_back(s.id);
            const bool translates = pick(50) != 0;
            const CaptionBlockList blocks = session.captionBlocks(translates, Date(now));
            frozenSeen = std::max(frozenSeen, blocks.frozenCount());
            ASSERT_EQ(blocks.toVector(), fullRebuild(session, translates, Date(now))) << "seed " << seed << " step " << step;
        }
        EXPECT_GT(frozenSeen, 5u) << "the head should have frozen something";
    }
}

TEST(CaptionBlocks, ShowWhatTheReaderNeedsOfEachBlock) {
    LogBuilder b;
    // 1: Japanese, refined; 2: Japanese, only a draft; 3: the user's Chinese, no translation owed (solo).
    b.source(kSystem, 0, "本日は", 1).source(kSystem, 1, "よろしく。", 2).closeSentence(kSystem, 1, 1);
    b.source(kSystem, 2, "会議を始めます。", 3).closeSentence(kSystem, 2, 3);
    b.translate(kSystem, 3, 1, "今天请多关照。").translate(kSystem, 4, 3, "开始开会", TranslationOrigin::provisional);
    TranscriptReadModel::Fold fold;
    fold.advance(b.log);
    const TranscriptSnapshot snap = fold.snapshot();
    const std::vector<ParagraphRange> one = {{0, 2}};
    TranslationRouter::Config routing;
    auto blocks = captionBlocks(snap, one, true, true, routing, false, Date(5));
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].source, "本日はよろしく。会議を始めます。");
    EXPECT_EQ(blocks[0].translation, "今天请多关照。开始开会");
    EXPECT_EQ(blocks[0].pendingSource, "会議を始めます。");
    EXPECT_TRUE(blocks[0].isAwaitingTranslation);
    EXPECT_TRUE(blocks[0].isProvisional);
    EXPECT_EQ(blocks[0].channel, kSystem);
    EXPECT_EQ(blocks[0].startOffset, 0.0);
    EXPECT_EQ(captionBlocks(snap, one, false, false, routing, false, Date(5))[0].translation, std::nullopt);

    // After the settle time, a later translation is offered as late, not swapped in.
    b.translate(kSystem, 30, 1, "今天也请多关照。").translate(kSystem, 31, 3, "会议开始。");
    fold.advance(b.log);
    const TranscriptSnapshot later = fold.snapshot();
    blocks = captionBlocks(later, one, false, true, routing, false, Date(40));
    EXPECT_EQ(blocks[0].translation, "今天请多关照。会议开始。");  // a first real one shows however late
    EXPECT_EQ(blocks[0].lateTranslation, "今天也请多关照。会议开始。");
    EXPECT_FALSE(blocks[0].isAwaitingTranslation);
    EXPECT_FALSE(blocks[0].isProvisional);
    EXPECT_EQ(blocks[0].pendingSource, std::nullopt);
}

TEST(CaptionBlocks, TheLiveTailJoinsTheOpenBlockAndSourcelessSentencesShowTheirTranslation) {
    LiveTranscriptSession session;
    session.ingest("本日は", Kind::source, kSystem, Date(1), std::nullopt);
    session.ingest("今天", Kind::streamedTranslation, kSystem, Date(1.5), std::nullopt);
    auto blocks = session.captionBlocks(true, Date(2)).toVector();
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].translation, "今天");
    EXPECT_TRUE(blocks[0].isProvisional);
    EXPECT_EQ(session.captionBlocks(false, Date(2)).toVector()[0].translation, std::nullopt);

    session.buildFromTranslation(true, kMic, Date(3));
    session.ingest("Good morning!", Kind::streamedTranslation, kMic, Date(4), std::nullopt);
    session.closeUtterance(kMic, BoundaryReason::idle, Date(5));
    blocks = session.captionBlocks(true, Date(6)).toVector();
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(blocks[1].source, std::nullopt);
    EXPECT_EQ(blocks[1].translation, "Good morning!");
}

TEST(CaptionBlocks, ReadingsFollowTheSideTheyAnnotate) {
    LogBuilder b;
    b.source(kMic, 0, "好的。", 1).closeSentence(kMic, 1, 1).translate(kMic, 2, 1, "はい、分かりました。", TranslationOrigin::reverseToJapanese);
    b.add(kMic, 3, TranscriptEvent::SentenceFurigana{sid(1), "はい、分(わ)かりました。"});
    TranscriptReadModel::Fold fold;
    fold.advance(b.log);
    const auto snap = fold.snapshot();
    const auto blocks = captionBlocks(snap, {{0, 1}}, false, true, {}, false, Date(4));
    EXPECT_EQ(blocks[0].furigana, "はい、分(わ)かりました。");
}

TEST(CaptionBlocks, ResetEmptiesTheCaptions) {
    LiveTranscriptSession session;
    session.ingest("はい。", Kind::source, kSystem, Date(1), std::nullopt);
    session.closeUtterance(kSystem, BoundaryReason::idle, Date(2));
    EXPECT_EQ(session.captionBlocks(true, Date(3)).size(), 1u);
    session.reset();
    EXPECT_TRUE(session.captionBlocks(true, Date(4)).empty());
}

TEST(CaptionBlocks, OlderRecordsGroupByChannelLanguageAndLength) {
    auto segment = [](int n, std::optional<CaptureChannel> c, std::string source, std::string translation,
                      TranscriptSegment::SegmentStatus status = TranscriptSegment::SegmentStatus::complete) {
        TranscriptSegment s;
        s.id = uuidNumber(n);
        s.sequence = n;
        s.channel = c;
        s.startedAt = Date(100 + n);
        s.sourceText = std::move(source);
        s.translatedText = std::move(translation);
        s.status = status;
        return s;
    };
    const std::vector<TranscriptSegment> segments = {
        segment(1, kSystem, "はい。", "是。"), segment(2, kSystem, "そうです。", ""),
        segment(3, kSystem, "長い文章です。", "", TranscriptSegment::SegmentStatus::translating),
        segment(4, kMic, "好的。", "はい。")};
    const auto b = CaptionGrouping::blocks(segments, 8);
    ASSERT_EQ(b.size(), 3u);  // 3 + 5 reaches 8: a soft break before the third
    EXPECT_EQ(b[0].source, "はい。そうです。");
    EXPECT_EQ(b[0].pendingSource, "そうです。");
    EXPECT_TRUE(b[1].isAwaitingTranslation);
    EXPECT_EQ(b[1].translation, std::nullopt);
    EXPECT_EQ(b[2].channel, kMic);
    EXPECT_EQ(b[2].startOffset, 3.0);
    const auto lines = CaptionGrouping::sentences(segments, Date(100));
    EXPECT_EQ(lines[1], (CaptionGrouping::CaptionSentence{uuidNumber(2), "そうです。", "", 2.0}));
}

}  // namespace
}  // namespace osv
