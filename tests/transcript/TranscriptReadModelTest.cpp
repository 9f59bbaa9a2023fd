#include <gtest/gtest.h>

#include "LogBuilder.h"
#include "RandomSession.h"
#include "transcript/TranscriptReadModel.h"

namespace osv {
namespace {

using namespace osv::testing;
using E = TranscriptEvent;

TranscriptSnapshot fold(const TranscriptEventLog& log) {
    TranscriptReadModel::Fold f;
    f.advance(log);
    return f.snapshot();
}

std::vector<std::string> texts(const TranscriptSnapshot& s) {
    std::vector<std::string> out;
    for (const Sentence& x : s.sentences()) out.push_back(x.text + (x.isClosed ? "" : "…"));
    return out;
}

using Strings = std::vector<std::string>;

TEST(ReadModel, OrdersSentencesByStartWithTiesInClosingOrder) {
    LogBuilder b;
    b.source(kSystem, 5, "甲", 1)
        .source(kMic, 3, "乙", 2)  // the microphone's anchor reaches back before system's start
        .closeSentence(kSystem, 6, 1)
        .closeSentence(kMic, 7, 2)
        .source(kSystem, 10, "丙", 3)
        .source(kMic, 10, "丁", 4)
        .closeSentence(kMic, 11, 4)
        .closeSentence(kSystem, 12, 3)
        .source(kMic, 4, "戊", 5);  // open, inserted by its start
    const auto s = fold(b.log);
    EXPECT_EQ(texts(s), (Strings{"乙", "戊…", "甲", "丁", "丙"}));
    EXPECT_TRUE(s.usesMultipleChannels());
    EXPECT_EQ(s.sentences()[0].id, sid(2));
    EXPECT_EQ(s.sentences()[1].id, SentenceID{uuidNumber(5)});
}

TEST(ReadModel, BindsTranslationsToOpenAndClosedSentencesAndKeepsTheRestUnbound) {
    LogBuilder b;
    b.source(kSystem, 1, "こんにちは", 1).translate(kSystem, 2, 1, "你好", TranslationOrigin::provisional);
    auto s = fold(b.log);
    ASSERT_EQ(s.sentences().size(), 1u);
    EXPECT_EQ(s.sentences()[0].translations.size(), 1u);
    EXPECT_EQ(s.unboundTranslations().size(), 1u);  // no closed sentence has the id yet

    b.closeSentence(kSystem, 3, 1).translate(kSystem, 4, 77, "孤儿").translate(kSystem, 5, 77, "孤儿二");
    s = fold(b.log);
    EXPECT_TRUE(s.sentences()[0].isClosed);
    EXPECT_EQ(s.sentences()[0].translations[0].text, "你好");
    ASSERT_EQ(s.unboundTranslations().size(), 1u);
    EXPECT_EQ(s.unboundTranslations().at(sid(77)).text, "孤儿二");
}

TEST(ReadModel, ClosingWithNothingUnderItProducesNothing) {
    LogBuilder b;
    b.source(kSystem, 1, "  ", 1).closeSentence(kSystem, 2, 1).closeSentence(kSystem, 3, 9).closeUtterance(kSystem, 3);
    const auto s = fold(b.log);
    EXPECT_TRUE(s.sentences().empty());
    EXPECT_TRUE(s.utterances().empty());
}

TEST(ReadModel, RevisionsKeepTheSourceTailBeyondTheirCount) {
    LogBuilder b;
    b.source(kSystem, 1, "AB", 1)
        .revise(kSystem, 1.5, 1, "X")  // open: the count is that of the text so far (2)
        .source(kSystem, 2, "CDE", 2)
        .closeSentence(kSystem, 3, 1);
    auto s = fold(b.log);
    EXPECT_EQ(s.sentences()[0].revisions[0].sourceCharacterCount, 2);
    EXPECT_EQ(s.sentences()[0].bestText(), "XCDE");

    Sentence sentence;
    sentence.text = "ABCDE";
    sentence.revisions = {SourceRevision{"B", SourceRevisionOrigin::repaired, Date(1), 3}};
    EXPECT_EQ(sentence.bestText(), "BDE");
    sentence.revisions[0].sourceCharacterCount = 6;
    EXPECT_EQ(sentence.bestText(), "B");
    sentence.revisions[0].sourceCharacterCount = std::nullopt;
    EXPECT_EQ(sentence.bestText(), "B");
}

TEST(ReadModel, ReadableTextFallsBackToTheStandingTranslation) {
    LogBuilder b;
    b.add(kSystem, 0, E::SourceStreamLost{})
        .streamed(kSystem, 1, "Good morning", 1)
        .closeSentence(kSystem, 2, 1)
        .revise(kSystem, 3, 1, "");
    const auto s = fold(b.log);
    ASSERT_EQ(s.sentences().size(), 1u);
    const Sentence& x = s.sentences()[0];
    EXPECT_EQ(x.text, "");
    EXPECT_EQ(x.bestText(), "");
    EXPECT_EQ(x.readableText(), "Good morning");
    EXPECT_EQ(x.translations[0].origin, TranslationOrigin::streamed);
}

TEST(ReadModel, DraftsNeverDisplaceARealTranslationAndOnlyRealOnesCancelFailures) {
    const Translation refined{"好", TranslationOrigin::refined, Date(1)};
    const Translation draft{"草", TranslationOrigin::provisional, Date(2)};
    EXPECT_EQ(Sentence::standing({refined, draft})->text, "好");
    EXPECT_EQ(Sentence::standing({draft})->text, "草");
    EXPECT_EQ(Sentence::standing({}), nullptr);

    LogBuilder b;
    b.source(kSystem, 1, "はい", 1).closeSentence(kSystem, 2, 1).fail(kSystem, 3, 1, "超时");
    b.translate(kSystem, 4, 1, "草稿", TranslationOrigin::provisional);
    EXPECT_EQ(fold(b.log).sentences()[0].translationFailure, "超时");
    b.translate(kSystem, 5, 1, "是的");
    EXPECT_EQ(fold(b.log).sentences()[0].translationFailure, std::nullopt);
}

TEST(ReadModel, FoldsTraditionalChineseButNotJapanese) {
    LogBuilder b;
    b.source(kSystem, 1, " 說話 ", 1).closeSentence(kSystem, 2, 1).source(kMic, 3, "東京で說明します", 2).closeSentence(kMic, 4, 2);
    b.revise(kSystem, 5, 1, "說明");
    const auto s = fold(b.log);
    EXPECT_EQ(texts(s), (Strings{"说话", "東京で說明します"}));
    EXPECT_EQ(s.sentences()[0].bestText(), "说明");
}

TEST(ReadModel, CaptionsSettleTenSecondsAfterTheSentenceEnds) {
    Sentence s;
    s.text = "原文";
    s.endedAt = Date(100);
    s.revisions = {SourceRevision{"早改", SourceRevisionOrigin::repaired, Date(105), 2},
                   SourceRevision{"晚改", SourceRevisionOrigin::contextual, Date(130), std::nullopt}};
    EXPECT_EQ(s.captionText(Date(109.9), 10), "晚改");
    EXPECT_EQ(s.captionText(Date(110), 10), "早改");
    s.revisions.erase(s.revisions.begin());
    EXPECT_EQ(s.captionText(Date(200), 10), "原文");

    s.translations = {Translation{"草", TranslationOrigin::provisional, Date(101)},
                      Translation{"迟到的", TranslationOrigin::refined, Date(150)},
                      Translation{"更迟", TranslationOrigin::provisional, Date(160)}};
    EXPECT_EQ(s.captionTranslation(Date(105), 10)->text, "迟到的");
    // Settled on a draft, a first real translation still shows however late.
    EXPECT_EQ(s.captionTranslation(Date(200), 10)->text, "迟到的");
    s.translations = {Translation{"早", TranslationOrigin::refined, Date(101)},
                      Translation{"改后", TranslationOrigin::refined, Date(150)}};
    EXPECT_EQ(s.captionTranslation(Date(200), 10)->text, "早");
    s.translations = {Translation{"晚", TranslationOrigin::provisional, Date(150)}};
    EXPECT_EQ(s.captionTranslation(Date(200), 10)->text, "晚");  // nothing by the deadline
    s.translations.clear();
    EXPECT_EQ(s.captionTranslation(Date(200), 10), nullptr);
}

TEST(ReadModel, GlossaryKeepsFirstAppearanceOrderAndIgnoresEmptyTerms) {
    LogBuilder b;
    b.add(kSystem, 1, E::GlossaryLearned{{GlossaryTerm{"東京", "とうきょう", "东京"}, GlossaryTerm{"", "x", "y"}}});
    b.add(kSystem, 2, E::GlossaryLearned{{GlossaryTerm{"API", std::nullopt, std::nullopt}}});
    b.add(kSystem, 3, E::GlossaryLearned{{GlossaryTerm{"東京", "東京", "东京都"}}});
    const auto s = fold(b.log);
    ASSERT_EQ(s.glossary().size(), 2u);
    EXPECT_EQ(s.glossaryLines(), "東京 → 东京都\nAPI");
    LogBuilder c;
    c.add(kSystem, 1, E::GlossaryLearned{{GlossaryTerm{"サーバ", "さば", ""}}});
    EXPECT_EQ(fold(c.log).glossaryLines(), "サーバ（识别常写成：さば）");
}

TEST(ReadModel, StreamsAndUtterancesFollowTheBuildingStream) {
    LogBuilder b;
    b.source(kSystem, 1, "你好", 1)
        .streamed(kSystem, 1.5, "Hello", 2)
        .closeUtterance(kSystem, 2)
        .closeSentence(kSystem, 2, 1)
        .add(kMic, 3, E::SourceStreamLost{})
        .streamed(kMic, 4, "Fine", 3);
    const auto s = fold(b.log);
    EXPECT_EQ(s.unattributedTranslationStream().at(kSystem).view(), "Hello");
    ASSERT_EQ(s.utterances().size(), 2u);
    EXPECT_EQ(s.utterances()[0].text, "你好");
    EXPECT_EQ(s.utterances()[1].text, "Fine");
    EXPECT_FALSE(s.utterances()[1].isClosed);
    // The system sentence carries no streamed translation: that stays in the tail.
    EXPECT_TRUE(s.sentences()[0].translations.empty());
    EXPECT_EQ(s.sentences()[1].translations[0].text, "Fine");
    EXPECT_EQ(s.sentences()[0].utteranceIDs, (std::vector<UtteranceID>{UtteranceID{uuidNumber(1)}}));
}

TEST(ReadModel, SegmentsReportStatusAndLatency) {
    LogBuilder b;
    b.source(kMic, 1, "一", 1).source(kMic, 2.2345, "二", 2).closeSentence(kMic, 3, 1).source(kMic, 4, "三", 3);
    b.translate(kMic, 5, 1, "one");
    const auto segs = fold(b.log).transcriptSegments(true);
    ASSERT_EQ(segs.size(), 2u);
    EXPECT_EQ(segs[0].sequence, 1);
    EXPECT_EQ(segs[0].channel, kMic);
    EXPECT_EQ(segs[0].translatedText, "one");
    EXPECT_EQ(segs[0].finalLatencyMilliseconds, 1234);
    EXPECT_EQ(segs[0].status, TranscriptSegment::SegmentStatus::complete);
    EXPECT_EQ(segs[1].status, TranscriptSegment::SegmentStatus::provisional);
    EXPECT_EQ(segs[1].finalLatencyMilliseconds, std::nullopt);
    EXPECT_EQ(fold(b.log).transcriptSegments(false)[0].channel, std::nullopt);
}

std::vector<std::size_t> paragraphSizes(const TranscriptEventLog& log) {
    const auto s = fold(log);
    std::vector<std::size_t> out;
    for (const auto& p : TranscriptSnapshot::paragraphs(0, s.sentences())) out.push_back(p.count);
    return out;
}

TEST(ReadModel, ParagraphsBreakOnChannelLanguageUtteranceAndLength) {
    LogBuilder b;
    const std::string twenty = "一二三四五六七八九十一二三四五六七八九十";
    b.source(kSystem, 1, twenty + "。", 1).closeSentence(kSystem, 1.1, 1);
    b.source(kSystem, 2, twenty + "。", 2).closeSentence(kSystem, 2.1, 2);
    b.source(kSystem, 2.5, "嗯", 3).closeSentence(kSystem, 2.6, 3);         // a stray joins whatever its look
    b.source(kSystem, 3, twenty + "。", 4).closeSentence(kSystem, 3.1, 4);  // 21+21+1+21 > 60: a cut
    b.source(kSystem, 4, "はい。", 5).closeSentence(kSystem, 4, 5);        // language changes
    b.closeUtterance(kSystem, 4.5);
    b.source(kSystem, 5, "そうです。", 6).closeSentence(kSystem, 5, 6);    // another utterance
    b.source(kMic, 6, "そうですね。", 7).closeSentence(kMic, 6, 7);        // another channel
    EXPECT_EQ(paragraphSizes(b.log), (std::vector<std::size_t>{3, 1, 1, 1, 1}));
    EXPECT_TRUE(TranscriptSnapshot::paragraphs(9, fold(b.log).sentences()).empty());
}

// The incremental closed cache must give exactly what a fresh fold gives, after every
// single event, or live captions would disagree with the stored recording.
TEST(ReadModel, IncrementalCacheMatchesAFreshFoldAfterEveryEvent) {
    for (unsigned seed = 1; seed <= 25; ++seed) {
        std::mt19937 rng(seed);
        const TranscriptEventLog log = randomSession(rng, 250);
        TranscriptReadModel::Fold live;
        TranscriptEventLog growing;
        for (const auto& e : log.events) {
            growing.append(e);
            live.advance(growing);
            if (rng() % 3 != 0) continue;  // snapshots now and then, so that changes batch up too
            const TranscriptSnapshot a = live.snapshot();
            TranscriptReadModel::Fold fresh;
            fresh.advance(growing);
            const TranscriptSnapshot b = fresh.snapshot();
            ASSERT_EQ(a.sentences().toVector(), b.sentences().toVector()) << "seed " << seed << " at " << growing.size();
            ASSERT_EQ(a.utterances().toVector(), b.utterances().toVector()) << "seed " << seed;
            ASSERT_EQ(a.unboundTranslations(), b.unboundTranslations()) << "seed " << seed;
            ASSERT_EQ(a.glossary(), b.glossary());
            ASSERT_EQ(a.usesMultipleChannels(), b.usesMultipleChannels());
            ASSERT_EQ(a.unattributedTranslationStream(), b.unattributedTranslationStream());
        }
    }
}

TEST(ReadModel, SnapshotsAreValuesThatLaterEventsDoNotChange) {
    LogBuilder b;
    b.source(kSystem, 1, "第一", 1).closeSentence(kSystem, 2, 1).streamed(kSystem, 2, "One", 2);
    TranscriptReadModel::Fold f;
    f.advance(b.log);
    const TranscriptSnapshot before = f.snapshot();
    b.translate(kSystem, 3, 1, "一").source(kSystem, 4, "第二", 3).streamed(kSystem, 4, " Two", 4);
    f.advance(b.log);
    const TranscriptSnapshot after = f.snapshot();
    EXPECT_TRUE(before.sentences()[0].translations.empty());
    EXPECT_EQ(before.sentences().size(), 1u);
    EXPECT_EQ(before.unattributedTranslationStream().at(kSystem).view(), "One");
    EXPECT_EQ(after.sentences()[0].translations[0].text, "一");
    EXPECT_EQ(after.unattributedTranslationStream().at(kSystem).view(), "One Two");
    EXPECT_EQ(f.consumedEventCount(), b.log.size());
    EXPECT_FALSE(f.closedCacheIsStale());
}

}  // namespace
}  // namespace osv

namespace osv {
namespace {

// Open spans are shown through a transform run incrementally as deltas arrive; what they
// show must equal the one-shot form of their text, however it was cut.
TEST(ReadModel, IncrementalDisplayTextEqualsTheOneShotForm) {
    const std::vector<std::string> pieces = {"說", "話", " ", "\n", "們", "天", "后", "は", "ok", "。", "\u3000", "裡"};
    std::mt19937 rng(5);
    for (int round = 0; round < 300; ++round) {
        TranscriptReadModel::Run run;
        for (int k = 1 + int(rng() % 6); k > 0; --k) {
            std::string chunk;
            for (int n = 1 + int(rng() % 3); n > 0; --n) chunk += pieces[rng() % pieces.size()];
            run.append(chunk, Uuid::random(), Date(k));
            ASSERT_EQ(run.displayText(), TranscriptReadModel::displayForm(run.text)) << run.text;
        }
    }
}

}  // namespace
}  // namespace osv
