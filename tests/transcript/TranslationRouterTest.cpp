#include <gtest/gtest.h>

#include "LogBuilder.h"
#include "transcript/TranscriptionFinalReconciler.h"
#include "transcript/TranslationRouter.h"

namespace osv::TranscriptionFinalReconciler {
void PrintTo(const Revision& r, std::ostream* os) { *os << int(r.id.raw.bytes()[15]) << ":" << r.text; }
}  // namespace osv::TranscriptionFinalReconciler

namespace osv {
namespace {

using namespace osv::testing;
namespace TR = TranslationRouter;
namespace FR = TranscriptionFinalReconciler;

Sentence closed(int id, std::string text, double endedAt = 10, CaptureChannel c = kSystem) {
    Sentence s;
    s.id = sid(id);
    s.channel = c;
    s.startedAt = Date(endedAt - 1);
    s.endedAt = Date(endedAt);
    s.text = std::move(text);
    s.isClosed = true;
    return s;
}

TimelineList<Sentence> list(std::vector<Sentence> v) { return TimelineList<Sentence>(PersistentList<Sentence>::fromVector(std::move(v))); }

std::vector<std::string> ids(const std::vector<TR::Request>& rs) {
    std::vector<std::string> out;
    for (const auto& r : rs) out.push_back(std::to_string(r.sentenceID.raw.bytes()[15]) + ":" + std::string(rawValue(r.origin)));
    return out;
}

using Strings = std::vector<std::string>;

TEST(TranslationRouter, OriginFollowsTargetPerspectiveAndChannels) {
    TR::Config c;
    const Sentence chinese = closed(1, "我们开会吧");
    const Sentence japanese = closed(2, "はい、そうです");
    c.perspective = Perspective::solo;
    EXPECT_EQ(TR::origin(chinese, c), std::nullopt);
    EXPECT_EQ(TR::origin(japanese, c), TranslationOrigin::refined);
    c.perspective = Perspective::shared;
    EXPECT_EQ(TR::origin(chinese, c), TranslationOrigin::reverseToJapanese);
    c.target = TargetLanguage::japanese;
    EXPECT_EQ(TR::origin(japanese, c), std::nullopt);
    EXPECT_EQ(TR::origin(chinese, c), TranslationOrigin::refined);
    c.target = TargetLanguage::simplifiedChinese;
    c.separatedChannels = true;
    EXPECT_EQ(TR::origin(closed(3, "はい", 10, kMic), c), TranslationOrigin::reverseToJapanese);
    c.translates = false;
    EXPECT_EQ(TR::origin(japanese, c), std::nullopt);
    c.translates = true;
    c.refineFinishedSentences = false;
    EXPECT_EQ(TR::origin(japanese, c), std::nullopt);
}

TEST(TranslationRouter, PendingRequestsSkipTranslatedShortAndHeldSentences) {
    TR::Config c;
    std::vector<Sentence> v = {closed(1, "はい"), closed(2, "ね"), closed(3, "そうですね"), closed(4, "本日は晴れ")};
    v[0].translations = {Translation{"是", TranslationOrigin::refined, Date(11)}};
    v[2].revisions = {SourceRevision{"そうですよ", SourceRevisionOrigin::repaired, Date(12), 5}};
    v[3].translations = {Translation{"草稿", TranslationOrigin::provisional, Date(11)}};
    Sentence open = closed(5, "まだ話している途中");
    open.isClosed = false;
    v.push_back(open);
    auto requests = TR::pendingRequests(list(v), c, Date(20));
    EXPECT_EQ(ids(requests), (Strings{"3:refined", "4:refined"}));
    EXPECT_EQ(requests[0].text, "そうですよ");
    // The fourth sentence's context: the three before it, oldest first, the repaired one as repaired.
    EXPECT_EQ(requests[1].context, (Strings{"はい", "ね", "そうですよ"}));

    // A revision newer than the real translation makes the sentence due again.
    v[0].revisions = {SourceRevision{"いいえ", SourceRevisionOrigin::contextual, Date(30), std::nullopt}};
    EXPECT_EQ(ids(TR::pendingRequests(list(v), c, Date(40)))[0], "1:refined");

    c.refineFinishedSentences = false;
    EXPECT_TRUE(TR::pendingRequests(list(v), c, Date(40)).empty());
    EXPECT_EQ(ids(TR::provisionalRequests(list(v), c)), (Strings{"5:provisional"}));
}

TEST(TranslationRouter, RepairHoldsTranslationsForTheGraceUnlessRepairedOrReversed) {
    TR::Config c;
    c.repairsSource = true;
    std::vector<Sentence> v = {closed(1, "はい、そうです", 10), closed(2, "我来说一下", 10), closed(3, "本日は", 11)};
    v[2].revisions = {SourceRevision{"本日は。", SourceRevisionOrigin::contextual, Date(11.5), 3}};
    EXPECT_EQ(ids(TR::pendingRequests(list(v), c, Date(10.5))), (Strings{"2:reverseToJapanese"}));
    EXPECT_EQ(TR::nextDeadline(list(v), c, Date(10.5)), Date(12));
    EXPECT_EQ(ids(TR::pendingRequests(list(v), c, Date(12))), (Strings{"1:refined", "2:reverseToJapanese"}));
    EXPECT_EQ(TR::nextDeadline(list(v), c, Date(12)), Date(13));
    v[0].revisions = {SourceRevision{"はい、そうです。", SourceRevisionOrigin::repaired, Date(10.2), 7}};
    EXPECT_EQ(ids(TR::pendingRequests(list(v), c, Date(10.5))), (Strings{"1:refined", "2:reverseToJapanese"}));

    // Repairs: sentences long enough without a repaired revision, raw text, best-text context.
    v.insert(v.begin(), closed(9, "あ", 9));
    const auto repairs = TR::repairRequests(list(v), c);
    EXPECT_EQ(ids(repairs), (Strings{"2:refined", "3:refined"}));
    EXPECT_EQ(repairs[0].context, (Strings{"あ", "はい、そうです。"}));
    EXPECT_EQ(repairs[1].text, "本日は");
    c.repairsSource = false;
    EXPECT_TRUE(TR::repairRequests(list(v), c).empty());
    EXPECT_EQ(TR::nextDeadline(list(v), c, Date(0)), std::nullopt);
}

TEST(TranslationRouter, DraftsNeedEnoughTextAndNoRealTranslation) {
    TR::Config c;
    Sentence open = closed(1, "一二三四五六七");  // Chinese: reverse on a shared session
    open.isClosed = false;
    c.target = TargetLanguage::japanese;
    EXPECT_TRUE(TR::provisionalRequests(list({open}), c).empty());  // 7 characters
    open.text += "八";
    EXPECT_EQ(ids(TR::provisionalRequests(list({closed(2, "前文"), open}), c)), (Strings{"1:provisional"}));
    EXPECT_EQ(TR::provisionalRequests(list({closed(2, "前文"), open}), c)[0].context, (Strings{"前文"}));
    open.translations = {Translation{"x", TranslationOrigin::refined, Date(1)}};
    EXPECT_TRUE(TR::provisionalRequests(list({open}), c).empty());
    c.translates = false;
    open.translations.clear();
    EXPECT_TRUE(TR::provisionalRequests(list({open}), c).empty());
}

TEST(FinalReconciler, ReplacesContentsButKeepsSentenceBoundaries) {
    const auto sentences = list({closed(1, "今日は会議"), closed(2, "です。よろしく"), closed(3, "other", 10, kMic)});
    const auto r = FR::revisions("今日は会議です。よろしく", "今日は 会議 です。 宜しく。", sentences, kSystem, false);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0], (FR::Revision{sid(2), "です。 宜しく。"}));

    // Text the final adds at a boundary stays with the sentence before it.
    const auto two = list({closed(1, "你好吗"), closed(2, "我很好")});
    const auto added = FR::revisions("你好吗我很好", "你好吗？我很好。", two, kSystem, false);
    EXPECT_EQ(added, (std::vector<FR::Revision>{{sid(1), "你好吗？"}, {sid(2), "我很好。"}}));
}

TEST(FinalReconciler, KeepsCharactersAheadOfTheTurn) {
    const auto sentences = list({closed(1, "前の話 今日は")});
    const auto r = FR::revisions("今日は", "きょうは", sentences, kSystem, false);
    EXPECT_EQ(r, (std::vector<FR::Revision>{{sid(1), "前の話 きょうは"}}));
}

TEST(FinalReconciler, RefusesWhatItCannotMatchSafely) {
    const auto sentences = list({closed(1, "今日は会議です")});
    EXPECT_TRUE(FR::revisions("明日は会議です", "明日は会議です。", sentences, kSystem, false).empty());  // not the tail
    EXPECT_TRUE(FR::revisions("", "x", sentences, kSystem, false).empty());
    EXPECT_TRUE(FR::revisions("会議です", " ", sentences, kSystem, false).empty());
    std::string long1025(1025, 'a');
    EXPECT_TRUE(FR::revisions(long1025, "a", list({closed(1, long1025)}), kSystem, false).empty());
    // Too far from what was delivered to be trusted.
    EXPECT_TRUE(FR::revisions("今日は会議です", "全然違う内容", sentences, kSystem, true).empty());
}

TEST(FinalReconciler, PreserveOmittedKeepsWhatTheFinalLeftOutAndItsEndMark) {
    const auto sentences = list({closed(1, "はい"), closed(2, "本日の会議を始めます。")});
    // The final drops most of the second sentence: it stands as it was.
    auto r = FR::revisions("はい本日の会議を始めます。", "はい本日", sentences, kSystem, false);
    EXPECT_EQ(r, (std::vector<FR::Revision>{{sid(2), "本日"}}));
    r = FR::revisions("はい本日の会議を始めます。", "はい本日の会議を始めました", sentences, kSystem, true);
    EXPECT_EQ(r, (std::vector<FR::Revision>{{sid(2), "本日の会議を始めました。"}}));
    // A sentence the final all but leaves out keeps what it held.
    const std::string a = "今日は皆さんと一緒に新しい計画について話します";
    const auto pair = list({closed(1, a), closed(2, "よろしく")});
    EXPECT_TRUE(FR::revisions(a + "よろしく", a + "よ", pair, kSystem, true).empty());
    EXPECT_EQ(FR::revisions(a + "よろしく", a + "よ", pair, kSystem, false),
              (std::vector<FR::Revision>{{sid(2), "よ"}}));
    // A sentence built from the streamed translation has no source and is passed over.
    Sentence fromTranslation = closed(3, "");
    fromTranslation.translations = {Translation{"Hello", TranslationOrigin::streamed, Date(10)}};
    const auto mixed = list({closed(1, "はい"), fromTranslation});
    EXPECT_EQ(FR::revisions("はい", "はい。", mixed, kSystem, false), (std::vector<FR::Revision>{{sid(1), "はい。"}}));
}

}  // namespace
}  // namespace osv
