#include <gtest/gtest.h>

#include "recordings/RecordingEntry.h"

namespace osv {
namespace {

const Date kJan5At1430 = Date::fromUnixSeconds(1767623400);  // 2026-01-05 14:30:00 UTC

TranscriptSegment segment(int sequence, double startedAt, std::string source, std::string translation,
                          std::optional<CaptureChannel> channel = std::nullopt) {
    TranscriptSegment s;
    s.id = Uuid::random();
    s.sequence = sequence;
    s.startedAt = Date(startedAt);
    s.sourceText = std::move(source);
    s.translatedText = std::move(translation);
    s.channel = channel;
    s.status = TranscriptSegment::SegmentStatus::complete;
    return s;
}

TEST(RecordingTitles, TopicsAreFoundBehindModeWordsAndClocksAreNoTopic) {
    EXPECT_EQ(RecordingEntry::topic("录音 · 1月5日 14:30"), std::nullopt);
    EXPECT_EQ(RecordingEntry::topic("录音 · 周会"), "周会");
    EXPECT_EQ(RecordingEntry::topic("录音机评测"), "录音机评测");  // the word is part of the topic
    EXPECT_EQ(RecordingEntry::topic("同声传译 · 周会"), "周会");  // the legacy word, not "同传" + rest
    EXPECT_EQ(RecordingEntry::topic("新录音 12:05"), std::nullopt);
    EXPECT_EQ(RecordingEntry::topic("同传\u3000·\u3000"), std::nullopt);
    EXPECT_EQ(RecordingEntry::topic("  14:30 "), std::nullopt);
    EXPECT_EQ(RecordingEntry::topic(""), std::nullopt);

    EXPECT_TRUE(RecordingEntry::isClockOnly("1月5日 14:30"));
    EXPECT_TRUE(RecordingEntry::isClockOnly("12月25日  9:05"));
    EXPECT_TRUE(RecordingEntry::isClockOnly("9:05"));
    EXPECT_FALSE(RecordingEntry::isClockOnly("1月5日14:30"));  // the date needs a blank after it
    EXPECT_FALSE(RecordingEntry::isClockOnly("14:305"));
    EXPECT_FALSE(RecordingEntry::isClockOnly("周会 14:30"));
}

TEST(RecordingTitles, ComposedTitlesKeepFourteenCharactersOfALongTopic) {
    EXPECT_EQ(RecordingEntry::composedTitle(SessionLabel::assist, "  "), "助答");
    EXPECT_EQ(RecordingEntry::composedTitle(SessionLabel::coach, "点单"), "陪练 · 点单");
    // 20 characters: the first 14 stay.
    EXPECT_EQ(RecordingEntry::composedTitle(SessionLabel::record, "一二三四五六七八九十甲乙丙丁戊己庚辛壬癸"),
              "录音 · 一二三四五六七八九十甲乙丙丁");
    // 14 stay whole; grapheme clusters are never cut.
    EXPECT_EQ(RecordingEntry::composedTitle(SessionLabel::record, "一二三四五六七八九十甲乙丙丁"),
              "录音 · 一二三四五六七八九十甲乙丙丁");
    EXPECT_EQ(RecordingEntry::composedTitle(SessionLabel::interpret, "👨‍👩‍👧一二三四五六七八九十甲乙丙丁"),
              "同传 · 👨‍👩‍👧一二三四五六七八九十甲乙丙");

    EXPECT_EQ(RecordingEntry::stripLeadingModeWords(" 录音 · 同传 · 周会 "), "周会");
    EXPECT_EQ(RecordingEntry::stripLeadingModeWords("录音机 · 评测"), "录音机 · 评测");

    EXPECT_EQ(RecordingEntry::clock(kJan5At1430, "UTC"), "1月5日 14:30");
    EXPECT_EQ(RecordingEntry::fallbackTitle(RecordingKind::live, kJan5At1430, "UTC"), "同传 2026/1/5 14:30");
    const RecordingEntry made = RecordingEntry::make(RecordingKind::manual, RecordingStatus::recording,
                                                     SessionLabel::assist, AudioCaptureMode::microphone,
                                                     RecognitionLanguage::japanese, kJan5At1430);
    EXPECT_EQ(made.mode, SessionLabel::record);  // a manual entry is a recording whatever runs
    EXPECT_TRUE(made.titleIsAuto);
    EXPECT_EQ(RecordingEntry::topic(made.title), std::nullopt);
}

TEST(RecordingTitles, RelabellingTouchesOnlyGeneratedTitles) {
    std::vector<RecordingEntry> entries(3);
    entries[0].mode = SessionLabel::interpret;
    entries[0].title = "同声传译 9:00";  // an old placeholder
    entries[0].titleIsAuto = true;
    entries[0].createdAt = kJan5At1430;
    entries[1].mode = SessionLabel::assist;
    entries[1].title = "同传 · 报价";  // mode changed since; the topic stays
    entries[1].titleIsAuto = true;
    entries[2].title = "同传 9:00";  // typed by the user
    relabelPlaceholderTitles(entries, "UTC");
    EXPECT_EQ(entries[0].title, "同传 · 1月5日 14:30");
    EXPECT_EQ(entries[1].title, "助答 · 报价");
    EXPECT_EQ(entries[2].title, "同传 9:00");
}

TEST(RecordingSegments, UpsertReplacesByIdThenSequenceAndKeepsTimelineOrder) {
    RecordingEntry e;
    e.upsertSegmentInTimelineOrder(segment(2, 20, "二", ""));
    e.upsertSegmentInTimelineOrder(segment(1, 10, "一", "one"));  // out of order: sorted
    ASSERT_EQ(e.segments.size(), 2u);
    EXPECT_EQ(e.segments[0].sourceText, "一");

    TranscriptSegment replacement = segment(2, 20, "二（改）", "two");  // a new id, the same sequence
    e.upsertSegmentInTimelineOrder(replacement);
    ASSERT_EQ(e.segments.size(), 2u);
    EXPECT_EQ(e.segments[1].sourceText, "二（改）");

    TranscriptSegment moved = e.segments[0];  // the same id, now later than the other
    moved.sequence = 3;
    e.upsertSegmentInTimelineOrder(moved);
    EXPECT_EQ(e.segments[1].id, moved.id);
    EXPECT_EQ(e.segmentCount, 2);
    EXPECT_EQ(e.sourceText, "二（改）\n\n一");
    EXPECT_EQ(e.translatedText, "two\n\none");

    e.upsertSegmentInTimelineOrder(segment(0, 5, "  ", ""));  // sequence 0 never matches another
    EXPECT_EQ(e.segments.size(), 3u);
    EXPECT_EQ(e.sourceText, "二（改）\n\n一");  // blank texts leave no empty block
    e.removeSegment(moved.id);
    EXPECT_EQ(e.segmentCount, 2);
}

TEST(RecordingMarkdown, TwoChannelRecordingQuotesEachTranslationUnderItsSentence) {
    RecordingEntry e;
    e.title = "同传 · 报价";
    e.kind = RecordingKind::live;
    e.language = RecognitionLanguage::japanese;
    e.createdAt = kJan5At1430;
    e.segments = {
        segment(1, kJan5At1430.seconds + 1, "  本日はありがとうございます。 ", "感谢您今天抽出时间。", CaptureChannel::system),
        segment(2, kJan5At1430.seconds + 4, "请介绍一下价格。", "価格をご紹介ください。", CaptureChannel::microphone),
        segment(3, kJan5At1430.seconds + 7, "", "只有译文", CaptureChannel::system),
        segment(4, kJan5At1430.seconds + 9, "はい。", "はい。", CaptureChannel::system),  // same text: no quote
    };
    EXPECT_EQ(transcriptMarkdown(e, "UTC"),
              "# 同传 · 报价\n\n"
              "创建时间：2026年1月5日 14:30:00\n类型：同传\n语言：日文\n\n"
              "本日はありがとうございます。\n> 感谢您今天抽出时间。\n\n"
              "请介绍一下价格。\n> 価格をご紹介ください。\n\n"
              "只有译文\n\n"
              "はい。");

    RecordingEntry plain;
    plain.title = "录音";
    plain.createdAt = kJan5At1430;
    plain.sourceText = "原文";
    plain.translatedText = " \n";
    EXPECT_EQ(transcriptMarkdown(plain, "UTC"), "# 录音\n\n创建时间：2026年1月5日 14:30:00\n类型：录音\n语言：自动\n\n原文");
}

}  // namespace
}  // namespace osv
