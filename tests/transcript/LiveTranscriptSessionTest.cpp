#include <gtest/gtest.h>

#include <random>

#include "LogBuilder.h"
#include "RandomSession.h"
#include "transcript/FuriganaMarkup.h"
#include "transcript/LiveTranscriptSession.h"

namespace osv {
namespace {

using namespace osv::testing;
using Kind = TranscriptSegmenter::DeltaKind;

class Session : public ::testing::Test {
protected:
    // One whole sentence on `channel`, closed by its utterance end.
    SentenceID say(const std::string& text, double at, CaptureChannel channel = kSystem) {
        session.ingest(text, Kind::source, channel, Date(at), std::nullopt);
        const SentenceID id{session.log().events.back().id};
        session.closeUtterance(channel, BoundaryReason::idle, Date(at + 0.5));
        return id;
    }
    void translate(SentenceID id, const std::string& text, double at,
                   TranslationOrigin origin = TranslationOrigin::refined) {
        session.append(TranscriptEvent{Uuid::random(), Date(at), std::nullopt, kSystem,
                                       TranscriptEvent::SentenceTranslated{id, text, origin}});
    }
    LiveTranscriptSession session;
};

TEST_F(Session, ChannelsCountAsSeparatedOnlyOnceTheSecondOneSpeaks) {
    session.configuredRouting.separatedChannels = true;
    say("はい、そうです。", 1);
    EXPECT_FALSE(session.routing().separatedChannels);
    say("好的。", 3, kMic);
    EXPECT_TRUE(session.routing().separatedChannels);
    session.configuredRouting.separatedChannels = false;
    EXPECT_FALSE(session.routing().separatedChannels);
}

TEST_F(Session, AClaimIsNeverHandedOutTwice) {
    say("本日はよろしくお願いします。", 1);
    EXPECT_EQ(session.claimPendingRequests(Date(5)).size(), 1u);
    EXPECT_TRUE(session.claimPendingRequests(Date(6)).empty());
    say("会議を始めます。", 7);
    const auto next = session.claimPendingRequests(Date(9));
    ASSERT_EQ(next.size(), 1u);
    EXPECT_EQ(next[0].context, (std::vector<std::string>{"本日はよろしくお願いします。"}));
    // With no failure, a retry claims just what a claim would.
    EXPECT_TRUE(session.retryFailedTranslations(Date(10)).empty());
    session.append(TranscriptEvent{Uuid::random(), Date(11), std::nullopt, kSystem,
                                   TranscriptEvent::SentenceTranslationFailed{next[0].sentenceID, "超时"}});
    const auto retried = session.retryFailedTranslations(Date(12));
    ASSERT_EQ(retried.size(), 1u);
    EXPECT_EQ(retried[0].sentenceID, next[0].sentenceID);
}

TEST_F(Session, DraftsComeAgainOnlyAfterSixteenMoreCharacters) {
    session.ingest("一二三四五六七八", Kind::source, kSystem, Date(1), std::nullopt);  // Chinese: reverse on shared
    EXPECT_EQ(session.claimProvisionalRequests().size(), 1u);
    session.ingest("一二三四五六七八九十一二三四五", Kind::source, kSystem, Date(2), std::nullopt);  // 23
    EXPECT_TRUE(session.claimProvisionalRequests().empty());
    session.ingest("六", Kind::source, kSystem, Date(3), std::nullopt);  // 24
    const auto again = session.claimProvisionalRequests();
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(again[0].origin, TranslationOrigin::provisional);
}

TEST_F(Session, ScansComeDueByStride) {
    for (int i = 0; i < 4; ++i) say("第" + std::to_string(i) + "句话。", i * 2);
    EXPECT_EQ(session.claimSummaryScan(5), std::nullopt);
    say("第五句话。", 10);
    EXPECT_EQ(session.claimSummaryScan(5)->size(), 5u);
    say("第六句话。", 12);
    EXPECT_EQ(session.claimSummaryScan(5), std::nullopt);
    EXPECT_EQ(session.claimGlossaryScan(3, 2), (std::vector<std::string>{"第五句话。", "第六句话。"}));
    EXPECT_EQ(session.claimGlossaryScan(3, 2), std::nullopt);
    EXPECT_EQ(session.claimContextRepair(4, 3, false)->size(), 3u);
    EXPECT_EQ(session.claimContextRepair(4, 3, true), std::nullopt);  // force still needs one new sentence
    say("第七句话。", 14);
    EXPECT_EQ(session.claimContextRepair(4, 3, true)->size(), 3u);
    EXPECT_EQ(session.contextForRepair({}, 2), (std::vector<std::string>{"第六句话。", "第七句话。"}));
}

TEST_F(Session, FuriganaIsClaimedForKanjiOnceUntilTheTextChanges) {
    const SentenceID kanji = say("今日は会議です。", 1);
    say("はい、そうです。", 3);  // pure kana never reaches the model
    say("我们开会。", 5);          // Chinese, no Japanese translation
    auto claims = session.claimPendingFurigana(Date(6));
    ASSERT_EQ(claims.size(), 1u);
    EXPECT_EQ(claims[0], (LiveTranscriptSession::FuriganaClaim{kanji, "今日は会議です。", kSystem}));
    EXPECT_TRUE(session.claimPendingFurigana(Date(7)).empty());
    session.append(TranscriptEvent{Uuid::random(), Date(8), std::nullopt, kSystem,
                                   TranscriptEvent::SourceRevised{kanji, "今日は会議でした。", SourceRevisionOrigin::repaired}});
    EXPECT_EQ(session.claimPendingFurigana(Date(9)).size(), 1u);
}

TEST_F(Session, SnapshotIsCachedUntilTheLogChangesAndResetForgetsTheSession) {
    session.configuredRouting.contextSentences = 5;
    say("第一句。", 1);
    const TranscriptSnapshot* first = &session.snapshot();
    EXPECT_EQ(&session.snapshot(), first);
    session.attachGlossary({}, Date(2));
    EXPECT_EQ(session.log().size(), 3u);
    session.attachGlossary({GlossaryTerm{"会议", std::nullopt, std::nullopt}}, Date(2));
    EXPECT_EQ(session.snapshot().glossary().size(), 1u);
    EXPECT_EQ(session.log().events.back().channel, kSystem);
    session.claimPendingRequests(Date(3));
    session.reset();
    EXPECT_TRUE(session.log().empty());
    EXPECT_TRUE(session.snapshot().sentences().empty());
    EXPECT_TRUE(session.segmenter().channels.empty());
    EXPECT_EQ(session.configuredRouting.contextSentences, 5);
    say("第一句。", 1);
    EXPECT_EQ(session.claimPendingRequests(Date(3)).size(), 1u);  // attempted was forgotten
}

TEST(FuriganaMarkup, ParsesReadingsOnlyAfterKanjiAndWithKana) {
    using FuriganaMarkup::Run;
    EXPECT_EQ(FuriganaMarkup::runs("今日(きょう)は山東（さんとう）に行(い)きます"),
              (std::vector<Run>{{"今日", "きょう"}, {"は", std::nullopt}, {"山東", "さんとう"}, {"に", std::nullopt},
                                {"行", "い"}, {"きます", std::nullopt}}));
    EXPECT_EQ(FuriganaMarkup::runs("三(3)"), (std::vector<Run>{{"三(3)", std::nullopt}}));
    EXPECT_EQ(FuriganaMarkup::plain("はい(はい)と(言う"), "はい(はい)と(言う");  // no kanji before; unclosed
    EXPECT_EQ(FuriganaMarkup::plain("東京(とう(きょう)"), "東京(とう(きょう)");  // a second opening first
    EXPECT_EQ(FuriganaMarkup::plain("我们在潍坊(ウェイファン)开会"), "我们在潍坊开会");
    EXPECT_EQ(FuriganaMarkup::trailingKanji("は山東"), "山東");
    EXPECT_EQ(FuriganaMarkup::trailingKanji("山東は"), std::nullopt);
    EXPECT_TRUE(FuriganaMarkup::needsAnnotation("はい、今日"));
    EXPECT_FALSE(FuriganaMarkup::needsAnnotation("はい、そうです"));
}

}  // namespace
}  // namespace osv

namespace osv {
namespace {

// The claims walk from a watermark past settled sentences; over a long random session they
// must hand out exactly what a walk over every sentence hands out, context included.
TEST(SessionClaims, FromTheWatermarkMatchAWalkOverEverySentence) {
    std::mt19937 rng(11);
    const TranscriptEventLog log = testing::randomSession(rng, 2500);
    LiveTranscriptSession session;
    std::set<SentenceID> attempted;
    std::size_t claimed = 0;
    for (const TranscriptEvent& event : log.events) {
        const Date now = event.at;
        session.append(event);
        std::vector<TranslationRouter::Request> expected;
        for (auto& r : TranslationRouter::pendingRequests(session.snapshot().sentences(), session.routing(), now))
            if (attempted.insert(r.sentenceID).second) expected.push_back(std::move(r));
        ASSERT_EQ(session.claimPendingRequests(now), expected) << "at " << now.seconds;
        claimed += expected.size();
    }
    EXPECT_GT(claimed, 100u);
    EXPECT_GT(log.events.back().at - log.events.front().at, 3 * LiveTranscriptSession::kClaimsSettleSeconds);
}

}  // namespace
}  // namespace osv
