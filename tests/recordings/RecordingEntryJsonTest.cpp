#include <gtest/gtest.h>

#include <cmath>

#include "core/Json.h"
#include "recordings/RecordingEntryJson.h"

namespace osv {
namespace {

using json::Json;
const Date kNow(800000000.0);

RecordingEntry decodeOne(const std::string& text) {
    auto e = decodeRecordingEntry(text, kNow);
    EXPECT_TRUE(e) << text;
    return e ? *e : RecordingEntry{};
}

RecordingEntry fullEntry() {
    RecordingEntry e = RecordingEntry::make(RecordingKind::live, RecordingStatus::complete, SessionLabel::assist,
                                            AudioCaptureMode::mixed, RecognitionLanguage::chinese, kNow);
    e.duration = 61.25;
    e.byteSize = 123456;
    e.relativeAudioPath = "Recordings/" + e.id.text() + ".m4a";
    TranscriptSegment s;
    s.id = Uuid::random();
    s.sequence = 1;
    s.channel = CaptureChannel::system;
    s.startedAt = kNow + 0.125;
    s.sourceText = "本日は\"ありがとう\"\n\t\x01";
    s.translatedText = "感谢";
    s.status = TranscriptSegment::SegmentStatus::complete;
    s.firstVisibleLatencyMilliseconds = 800;
    e.upsertSegmentInTimelineOrder(s);
    e.summary = SessionSummary{"概要", {{"价格", {"每人三千日元"}}}, {"确认培训"}, kNow + 3, 12};
    e.coachCards = {CoachReview{Uuid::random(), "すみません", "「すみません」很好", kNow + 4}};
    ResponseSuggestion r;
    r.id = Uuid::random();
    r.keyPoints = {"先确认价格"};
    r.replies = {SuggestedReply{Uuid::random(), "価格を確認します。", "我确认一下价格。"}};
    r.createdAt = kNow + 5;
    r.kind = AnswerKind{AnswerKind::Case::expansion, "更礼貌"};
    r.language = ResolvedReplyLanguage::japanese;
    r.round = 3;
    r.question = "いかがですか";
    e.suggestions = {r};
    e.suggestionFurigana[r.replies[0].id] = "価格[かかく]";
    e.assistCaptionDispositions[s.id] = AssistCaptionDisposition::theirs;
    TranscriptEventLog log;
    log.append(TranscriptEvent{Uuid::random(), kNow, kNow + 0.5, CaptureChannel::system,
                               TranscriptEvent::SourceDelta{"本日は"}});
    e.eventLog = log;
    e.isLikelySilent = true;
    e.peakLevel = 0.5;
    e.averageLevel = 0.125;
    e.levelSampleCount = 40;
    e.errorMessage = "注意";
    e.feedback = RecordingFeedback::good;
    e.usage.add(UsageTally::Kind::refine, true, 100, 20, std::string("gpt-5-mini"));
    e.replayStartupDuration = 0.75;
    e.replayStopRequestedAt = kNow + 60;
    e.importedAudioFilename = "会议.m4a";
    e.processingTrace = RecordingProcessingTrace{kNow, kNow + 1, std::nullopt, kNow + 2, kNow + 3, "原", "译",
                                                 SessionSummary{"o", {}, {}, kNow, 1}, std::nullopt};
    return e;
}

TEST(RecordingEntryJson, EveryFieldRoundTripsInTheFixedKeyOrder) {
    const RecordingEntry e = fullEntry();
    const std::string text = encodeRecordingEntries({e});
    auto decoded = decodeRecordingEntryList(text, kNow);
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->entries.size(), 1u);
    EXPECT_FALSE(decoded->entries[0].isTranscriptDecoded());  // kept as read until used
    EXPECT_EQ(encodeRecordingEntries(decoded->entries), text);
    RecordingEntry used = decoded->entries[0];
    used.decodeTranscript();
    EXPECT_EQ(used, e);

    const Json parsed = *json::parse(text);
    std::vector<std::string> keys;
    for (const auto& [k, v] : parsed[0].items()) keys.push_back(k);
    EXPECT_EQ(keys, (std::vector<std::string>{
                        "id", "schemaVersion", "title", "createdAt", "updatedAt", "kind", "mode",
                        "replayStartupDuration", "replayStopRequestedAt", "processingTrace", "importedAudioFilename",
                        "summary", "coachCards", "suggestions", "suggestionFurigana", "assistCaptionDispositions",
                        "captureMode", "language", "duration", "byteSize", "relativeAudioPath", "sourceText",
                        "translatedText", "segments", "eventLog", "status", "isLikelySilent", "peakLevel",
                        "averageLevel", "levelSampleCount", "segmentCount", "errorMessage", "feedback", "usage",
                        "titleIsAuto"}));
    EXPECT_EQ(parsed[0]["suggestions"][0]["kind"], Json::parse(R"({"expansion":{"_0":"更礼貌"}})"));

    // Empty collections, absent optionals and an empty tally are left out.
    RecordingEntry bare;
    bare.id = e.id;
    const Json minimal = *json::parse(encodeRecordingEntries({bare}));
    for (const char* key : {"coachCards", "suggestions", "suggestionFurigana", "assistCaptionDispositions", "usage",
                            "summary", "eventLog", "errorMessage", "relativeAudioPath", "processingTrace"})
        EXPECT_FALSE(minimal[0].contains(key)) << key;
}

TEST(RecordingEntryJson, EachMalformedFieldTakesItsDefaultAndTheRestSurvives) {
    const RecordingEntry e = decodeOne(R"({
        "id": 17, "schemaVersion": "x", "title": " \n ", "createdAt": "yesterday",
        "kind": "live", "mode": "karaoke", "captureMode": "both", "language": "french",
        "duration": "abc", "byteSize": -5, "peakLevel": -1, "averageLevel": 0.25, "levelSampleCount": -3,
        "segments": [{"id": "not-a-uuid"},
                     {"id": "5E9D6C38-1A2B-4C3D-8E4F-0123456789AB", "sequence": 2, "sourceText": "二", "startedAt": 2},
                     {"id": "0E9D6C38-1A2B-4C3D-8E4F-0123456789AB", "sequence": 1, "sourceText": "一", "channel": "mars"}],
        "segmentCount": 1, "feedback": "meh", "status": "exploded", "titleIsAuto": "yes",
        "suggestionFurigana": {"nope": "x"}, "summary": [], "usage": 3,
        "processingTrace": {"sourceText": "no start"}
    })");
    EXPECT_EQ(e.schemaVersion, 1);
    EXPECT_EQ(e.createdAt, kNow);
    EXPECT_EQ(e.updatedAt, kNow);
    EXPECT_EQ(e.kind, RecordingKind::live);
    EXPECT_EQ(e.mode, SessionLabel::interpret);  // the live default for an unknown mode
    EXPECT_EQ(e.captureMode, AudioCaptureMode::systemAudio);
    EXPECT_EQ(e.language, RecognitionLanguage::automatic);
    EXPECT_TRUE(e.title.starts_with("同传 ")) << e.title;
    EXPECT_EQ(e.duration, 0.0);
    EXPECT_EQ(e.byteSize, 0);
    EXPECT_EQ(e.peakLevel, 0.0);
    EXPECT_EQ(e.averageLevel, 0.25);
    EXPECT_EQ(e.levelSampleCount, 0);
    ASSERT_EQ(e.segments.size(), 2u);  // the one without an id is dropped; the rest sorted
    EXPECT_EQ(e.segments[0].sourceText, "一");
    EXPECT_EQ(e.segments[0].channel, std::nullopt);
    EXPECT_EQ(e.segmentCount, 2);  // never below the segments held
    EXPECT_EQ(e.status, RecordingStatus::complete);  // unknown status with segments
    EXPECT_EQ(e.feedback, RecordingFeedback::none);
    EXPECT_FALSE(e.titleIsAuto);
    EXPECT_TRUE(e.suggestionFurigana.empty());
    EXPECT_EQ(e.summary, std::nullopt);
    EXPECT_EQ(e.usage, UsageTally{});
    EXPECT_EQ(e.processingTrace, std::nullopt);

    const RecordingEntry manual = decodeOne(R"({"kind": "LIVE", "title": "  周会\n"})");
    EXPECT_EQ(manual.kind, RecordingKind::manual);
    EXPECT_EQ(manual.mode, SessionLabel::record);
    EXPECT_EQ(manual.status, RecordingStatus::ready);
    EXPECT_EQ(manual.title, "周会");
    EXPECT_EQ(decodeOne(R"({"segmentCount": 40})").segmentCount, 40);  // kept when segments were trimmed
    EXPECT_EQ(decodeRecordingEntry("[1]", kNow), std::nullopt);
}

TEST(RecordingEntryJson, FieldsOfANewerBuildAreWrittenBackAfterTheKnownKeys) {
    const RecordingEntry e = decodeOne(
        R"({"id":"5E9D6C38-1A2B-4C3D-8E4F-0123456789AB","speakerNames":{"a":["甲",1.5]},"title":"t","rating":null})");
    const Json written = *json::parse(encodeRecordingEntries({e}))->begin();
    EXPECT_EQ(written["speakerNames"], Json::parse(R"({"a":["甲",1.5]})"));
    EXPECT_TRUE(written.contains("rating"));
    std::vector<std::string> keys;
    for (const auto& [k, v] : written.items()) keys.push_back(k);
    EXPECT_EQ(keys.back(), "rating");
    EXPECT_EQ(keys[keys.size() - 2], "speakerNames");
    EXPECT_EQ(keys[keys.size() - 3], "titleIsAuto");
}

TEST(RecordingEntryJson, AnEntryWithoutAnIdGetsTheSameIdOnEveryRead) {
    const std::string element = R"({"title":"旧条目","createdAt":5})";
    const Uuid first = decodeOne(element).id;
    EXPECT_EQ(decodeOne(element).id, first);
    EXPECT_NE(decodeOne(R"({"title":"另一条","createdAt":5})").id, first);
}

TEST(RecordingEntryJson, ListSkipsAndCountsWhatIsNoEntryButRefusesADocumentThatIsNoArray) {
    auto list = decodeRecordingEntryList(R"([1, {"title":"a"}, "x", null, {"title":"b"}])", kNow);
    ASSERT_TRUE(list);
    EXPECT_EQ(list->entries.size(), 2u);
    EXPECT_EQ(list->skippedCount, 3u);
    for (const char* bad : {"", "{}", "[1,", "\"[]\"", "[\"\xff\"]"})
        EXPECT_EQ(decodeRecordingEntryList(bad, kNow).error().code, "recording_index_undecodable") << bad;
}

TEST(RecordingEntryJson, NonFiniteAndInvalidTextStillEncodeAsJsonThatReadsBack) {
    RecordingEntry e;
    e.title = "bad \xC3( utf8 \xED\xA0\x80 end";
    e.duration = std::nan("");
    e.peakLevel = 1e300;
    e.averageLevel = 1e-9;
    const std::string text = encodeRecordingEntries({e});
    auto list = decodeRecordingEntryList(text, kNow);
    ASSERT_TRUE(list) << text;
    EXPECT_EQ(list->entries[0].title, "bad \xEF\xBF\xBD( utf8 \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD end");
    EXPECT_EQ(list->entries[0].duration, 0.0);
    EXPECT_EQ(list->entries[0].peakLevel, 1e300);
    EXPECT_EQ(list->entries[0].averageLevel, 1e-9);
}

}  // namespace
}  // namespace osv
