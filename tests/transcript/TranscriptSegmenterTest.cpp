#include <gtest/gtest.h>

#include "LogBuilder.h"
#include "transcript/TranscriptSegmenter.h"

namespace osv {
namespace {

using namespace osv::testing;
using E = TranscriptEvent;
using Kind = TranscriptSegmenter::DeltaKind;
using Directive = TranscriptSegmenter::Directive;

const Directive kPunctuation{BoundaryReason::punctuation, 0.6};
const Directive kIdle{BoundaryReason::idle, 2.6};

// The log as short lines: "S:text", "T:text", "closed:reason", "utterance:reason", "lost", "restored".
std::vector<std::string> lines(const TranscriptEventLog& log, std::size_t from = 0) {
    std::vector<std::string> out;
    for (std::size_t i = from; i < log.size(); ++i) {
        const auto& p = log.events[i].payload;
        if (auto* d = std::get_if<E::SourceDelta>(&p)) out.push_back("S:" + d->text);
        else if (auto* t = std::get_if<E::StreamedTranslationDelta>(&p)) out.push_back("T:" + t->text);
        else if (auto* c = std::get_if<E::SentenceClosed>(&p)) out.push_back("closed:" + std::string(rawValue(c->reason)));
        else if (auto* u = std::get_if<E::UtteranceClosed>(&p)) out.push_back("utterance:" + std::string(rawValue(u->reason)));
        else if (std::holds_alternative<E::SourceStreamLost>(p)) out.push_back("lost");
        else if (std::holds_alternative<E::SourceStreamRestored>(p)) out.push_back("restored");
    }
    return out;
}

using Lines = std::vector<std::string>;

class Segmenter : public ::testing::Test {
protected:
    std::optional<Directive> say(std::string_view text, double at, std::optional<double> anchor = {},
                                 CaptureChannel c = kSystem) {
        return seg.ingest(text, Kind::source, c, Date(at), anchor ? std::optional<Date>(Date(*anchor)) : std::nullopt, log);
    }
    std::optional<Directive> hear(std::string_view text, double at, CaptureChannel c = kSystem) {
        return seg.ingest(text, Kind::streamedTranslation, c, Date(at), std::nullopt, log);
    }
    SentenceID closedID(std::size_t index) const { return std::get<E::SentenceClosed>(log.events[index].payload).id; }

    TranscriptSegmenter seg;
    TranscriptEventLog log;
};

TEST_F(Segmenter, TextAfterAnEnderClosesTheSentenceAtOnce) {
    EXPECT_EQ(say("你好", 1), kIdle);
    EXPECT_EQ(say("。", 2), kPunctuation);
    EXPECT_EQ(say("吃了吗", 3), kIdle);
    EXPECT_EQ(lines(log), (Lines{"S:你好", "S:。", "closed:punctuation", "S:吃了吗"}));
    // The sentence takes the id of its first delta; the closing is stamped at the anchor
    // with the true arrival kept.
    EXPECT_EQ(closedID(2).raw, log.events[0].id);
    EXPECT_EQ(log.events[2].at, Date(3));
    EXPECT_EQ(log.events[2].receivedAt, Date(3));
    EXPECT_EQ(seg.channels[kSystem].identity, log.events[3].id);
}

TEST_F(Segmenter, LeadingEndersFinishTheOldSentenceBeforeItCloses) {
    say("你好。", 1);
    say("！ 吃了吗", 2);
    EXPECT_EQ(lines(log), (Lines{"S:你好。", "S:！", "closed:punctuation", "S: 吃了吗"}));
    EXPECT_EQ(closedID(2).raw, log.events[0].id);
}

TEST_F(Segmenter, AWholeDeltaOfTwoSentencesClosesTheFirstAndWaitsOnTheSecond) {
    EXPECT_EQ(say("はい。そうです。", 1), kPunctuation);
    EXPECT_EQ(lines(log), (Lines{"S:はい。", "closed:punctuation", "S:そうです。"}));
}

TEST_F(Segmenter, ASpaceBetweenChineseAndJapaneseSplitsAndIsDropped) {
    say("今天天气 おはようございます", 1);
    EXPECT_EQ(lines(log), (Lines{"S:今天天气", "closed:punctuation", "S:おはようございます"}));
    log = {};
    seg = {};
    say("はい そうです", 1);
    EXPECT_EQ(lines(log), (Lines{"S:はい そうです"}));
    // The Chinese may stand in the sentence already.
    log = {};
    seg = {};
    say("我们开会", 1);
    say(" はい", 2);
    EXPECT_EQ(lines(log), (Lines{"S:我们开会", "S: はい"}));  // the piece is empty at the space: no cut
}

TEST_F(Segmenter, ALoneEnderStaysAtTheHeadOfTheNextSentence) {
    EXPECT_EQ(say("。", 1), kPunctuation);
    EXPECT_EQ(say("你好", 2), kIdle);
    EXPECT_EQ(lines(log), (Lines{"S:。", "S:你好"}));
    EXPECT_EQ(seg.channels[kSystem].source, "。你好");
}

TEST_F(Segmenter, TheLengthCapCountsCharactersAndClosesAtTheArrivalTime) {
    std::string fortySeven;
    for (int i = 0; i < 47; ++i) fortySeven += "語";
    say(fortySeven, 1, 0.5);
    EXPECT_EQ(lines(log).size(), 1u);  // 141 bytes, but 47 characters: open
    EXPECT_EQ(say("e\u0301", 2), kIdle);  // two scalars, one character: the 48th
    EXPECT_EQ(lines(log).back(), "closed:lengthCap");
    EXPECT_EQ(log.events.back().at, Date(2));
    EXPECT_EQ(seg.channels[kSystem].source, "");

    log = {};
    seg = {};
    std::string hundred;
    for (int i = 0; i < 100; ++i) hundred += "字";
    EXPECT_EQ(say(hundred, 1), kIdle);
    EXPECT_EQ(lines(log), (Lines{"S:" + hundred, "closed:lengthCap"}));
}

TEST_F(Segmenter, ASentenceWithoutAnEnderOutlivesItsUtterance) {
    say("好的", 1);
    const Uuid first = log.events[0].id;
    seg.closeUtterance(kSystem, BoundaryReason::idle, Date(2), log);
    EXPECT_EQ(lines(log), (Lines{"S:好的", "utterance:idle"}));
    EXPECT_EQ(log.events[1].receivedAt, std::nullopt);
    say("我们走吧。", 3);
    seg.closeUtterance(kSystem, BoundaryReason::idle, Date(4), log);
    EXPECT_EQ(lines(log, 2), (Lines{"S:我们走吧。", "utterance:idle", "closed:punctuation"}));
    EXPECT_EQ(closedID(4).raw, first);
    EXPECT_EQ(log.events[4].receivedAt, Date(4));
    // Unknown channel: nothing.
    seg.closeUtterance(kMic, BoundaryReason::idle, Date(5), log);
    EXPECT_EQ(log.size(), 5u);
}

TEST_F(Segmenter, SideTranslationDecidesTheDelayOnlyWhileTheSourceIsEmpty) {
    say("你好。", 1);
    say("吃了吗", 2);  // closes the first sentence; the source buffer is "吃了吗"
    EXPECT_EQ(hear("Hello!", 2.5), kIdle);  // the source text under way decides
    TranscriptSegmenter fresh;
    TranscriptEventLog freshLog;
    EXPECT_EQ(fresh.ingest("Hi!", Kind::streamedTranslation, kMic, Date(1), Date(0), freshLog), kPunctuation);
    EXPECT_EQ(freshLog.events[0].at, Date(1));  // side path: arrival time, no anchor
    EXPECT_EQ(freshLog.events[0].receivedAt, std::nullopt);
    EXPECT_FALSE(fresh.channels[kMic].hasOpenUtterance);
    // Translation text of an ended utterance does not leak into the next.
    fresh.closeUtterance(kMic, BoundaryReason::idle, Date(2), freshLog);
    EXPECT_EQ(fresh.channels[kMic].streamed, "");
}

TEST_F(Segmenter, AnchorsReachBackToSpeechButNotBeforeTheLastUtteranceEnd) {
    say("你好", 10, 8.5);
    EXPECT_EQ(log.events[0].at, Date(8.5));
    EXPECT_EQ(log.events[0].receivedAt, Date(10));
    say("吗", 11, 1.0);  // inside an open utterance the anchor is ignored
    EXPECT_EQ(log.events[1].at, Date(11));
    seg.closeUtterance(kSystem, BoundaryReason::idle, Date(12), log);
    say("是的", 14, 11.0);  // older than the utterance end: raised to it
    EXPECT_EQ(log.events.back().at, Date(12));
    seg.closeUtterance(kSystem, BoundaryReason::idle, Date(15), log);
    say("对", 16, 20.0);  // in the future: capped by the arrival
    EXPECT_EQ(log.events.back().at, Date(16));
}

TEST_F(Segmenter, LosingTheSourceBuildsSentencesFromTheTranslation) {
    say("你好", 1);
    seg.buildFromTranslation(true, kSystem, Date(2), log);
    EXPECT_EQ(lines(log), (Lines{"S:你好", "utterance:idle", "closed:idle", "lost"}));
    EXPECT_EQ(hear("Good", 3), kIdle);
    EXPECT_EQ(log.events.back().at, Date(3));
    EXPECT_EQ(hear(" morning! How", 4), kIdle);
    EXPECT_EQ(lines(log, 4), (Lines{"T:Good", "T: morning!", "closed:punctuation", "T: How"}));
    // The utterance ends without an ender: the translation stays the sentence under way.
    seg.closeUtterance(kSystem, BoundaryReason::idle, Date(5), log);
    EXPECT_EQ(seg.channels[kSystem].streamed, " How");
    // The first source delta restores the source stream before it is written.
    say("我回来了", 6);
    EXPECT_EQ(lines(log, 8), (Lines{"utterance:idle", "closed:idle", "restored", "S:我回来了"}));
    // Switching to the state it is already in does nothing.
    const auto size = log.size();
    seg.buildFromTranslation(false, kSystem, Date(7), log);
    seg.buildFromTranslation(false, kMic, Date(7), log);
    EXPECT_EQ(log.size(), size);
    EXPECT_EQ(seg.channels.count(kMic), 0u);
}

TEST_F(Segmenter, FinishClosesEverythingInChannelOrder) {
    seg.finish(BoundaryReason::sessionEnd, Date(1), log);
    EXPECT_TRUE(log.empty());
    say("マイク", 1, std::nullopt, kMic);
    say("系统", 2);
    seg.finish(BoundaryReason::sessionEnd, Date(3), log);
    EXPECT_EQ(lines(log, 2), (Lines{"utterance:sessionEnd", "closed:sessionEnd", "utterance:sessionEnd",
                                    "closed:sessionEnd"}));
    EXPECT_EQ(log.events[2].channel, kSystem);
    EXPECT_EQ(log.events[4].channel, kMic);
    EXPECT_TRUE(seg.channels.empty());
}

TEST_F(Segmenter, EmptyDeltasChangeNothingButWhiteSpaceIsText) {
    EXPECT_EQ(say("", 1), std::nullopt);
    EXPECT_TRUE(seg.channels.empty());
    EXPECT_EQ(say(" ", 1), kIdle);
    EXPECT_EQ(lines(log), (Lines{"S: "}));
}

TEST(SentencePieces, SplitsAfterEndersFollowedByText) {
    using P = TranscriptSegmenter::Pieces;
    EXPECT_EQ(TranscriptSegmenter::sentencePieces("好。走吧！ ", ""), (P{false, "", {"好。", "走吧！ "}}));
    EXPECT_EQ(TranscriptSegmenter::sentencePieces("？！那", "是吗"), (P{false, "", {"？", "！", "那"}}));
    EXPECT_EQ(TranscriptSegmenter::sentencePieces("？！那", "是吗。"), (P{true, "？！", {"那"}}));
    EXPECT_EQ(TranscriptSegmenter::sentencePieces("  ", "是吗。"), (P{false, "", {"  "}}));
    EXPECT_EQ(TranscriptSegmenter::sentencePieces("a", "。"), (P{false, "", {"a"}}));  // nothing carried
    EXPECT_EQ(TranscriptSegmenter::sentencePieces("Wait. Go", ""), (P{false, "", {"Wait. Go"}}));  // "." ends nothing
    EXPECT_TRUE(TranscriptSegmenter::carriesSentence("，好"));
    EXPECT_FALSE(TranscriptSegmenter::carriesSentence("。！ ￥…"));
    EXPECT_EQ(TranscriptSegmenter::closingReason("好的。 \n", 48), BoundaryReason::punctuation);
    EXPECT_EQ(TranscriptSegmenter::closingReason("好的", 2), BoundaryReason::lengthCap);
    EXPECT_EQ(TranscriptSegmenter::closingReason("好的", 3), std::nullopt);
}

}  // namespace
}  // namespace osv
