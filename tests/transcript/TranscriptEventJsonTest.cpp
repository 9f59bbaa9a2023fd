#include <gtest/gtest.h>

#include "LogBuilder.h"
#include "core/Json.h"
#include "transcript/TranscriptEventJson.h"

namespace osv {
namespace {

using namespace osv::testing;
using E = TranscriptEvent;

const char* kId = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
const char* kSid = "0F3C1A2B-1111-4222-8333-444455556666";

TEST(TranscriptEventJson, WritesTheExactFormOfEveryPayload) {
    const SentenceID s{*Uuid::parse(kSid)};
    const std::vector<std::pair<E::Payload, std::string>> cases = {
        {E::SourceDelta{"你好"}, R"({"sourceDelta":{"text":"你好"}})"},
        {E::StreamedTranslationDelta{"こん"}, R"({"streamedTranslationDelta":{"text":"こん"}})"},
        {E::SentenceClosed{s, BoundaryReason::lengthCap},
         std::string(R"({"sentenceClosed":{"_0":{"raw":")") + kSid + R"("},"reason":"lengthCap"}})"},
        {E::UtteranceClosed{BoundaryReason::channelChange}, R"({"utteranceClosed":{"reason":"channelChange"}})"},
        {E::SentenceTranslated{s, "早上好", TranslationOrigin::reverseToJapanese},
         std::string(R"({"sentenceTranslated":{"_0":{"raw":")") + kSid +
             R"("},"text":"早上好","origin":"reverseToJapanese"}})"},
        {E::GlossaryLearned{{GlossaryTerm{"東京", "とうきょう", "东京"}, GlossaryTerm{"API", std::string(), std::nullopt}}},
         R"({"glossaryLearned":{"terms":[{"written":"東京","heard":"とうきょう","translated":"东京"},{"written":"API"}]}})"},
        {E::SourceRevised{s, "修正", SourceRevisionOrigin::contextual},
         std::string(R"({"sourceRevised":{"_0":{"raw":")") + kSid + R"("},"text":"修正","origin":"contextual"}})"},
        {E::SentenceFurigana{s, "{東京|とうきょう}"},
         std::string(R"({"sentenceFurigana":{"_0":{"raw":")") + kSid + R"("},"ruby":"{東京|とうきょう}"}})"},
        {E::SentenceTranslationFailed{s, "翻译失败"},
         std::string(R"({"sentenceTranslationFailed":{"_0":{"raw":")") + kSid + R"("},"reason":"翻译失败"}})"},
        {E::SourceStreamLost{}, R"({"sourceStreamLost":{}})"},
        {E::SourceStreamRestored{}, R"({"sourceStreamRestored":{}})"},
    };
    for (const auto& [payload, expected] : cases) {
        const E event{*Uuid::parse(kId), Date(712345678.123456), Date(712345679.5), CaptureChannel::microphone, payload};
        const std::string line = encodeEventLine(event);
        EXPECT_EQ(line, std::string(R"({"id":")") + kId +
                            R"(","at":712345678.123456,"receivedAt":712345679.5,"channel":"microphone","payload":)" +
                            expected + "}");
        auto back = decodeEventLine(line);
        ASSERT_TRUE(back) << back.error().message;
        // The empty "heard" is written as absent and so reads back as none.
        if (std::holds_alternative<E::GlossaryLearned>(payload)) {
            EXPECT_EQ(std::get<E::GlossaryLearned>(back->payload).terms[1].heard, std::nullopt);
        } else {
            EXPECT_EQ(*back, event);
        }
    }
}

TEST(TranscriptEventJson, LeavesOutAnAbsentReceivedAtAndReadsNullAsAbsent) {
    const E event{*Uuid::parse(kId), Date(0.1), std::nullopt, CaptureChannel::system, E::SourceStreamLost{}};
    const std::string line = encodeEventLine(event);
    EXPECT_EQ(line.find("receivedAt"), std::string::npos);
    EXPECT_EQ(decodeEventLine(line).value(), event);
    auto withNull = decodeEventLine(std::string(R"({"id":")") + kId +
                                    R"(","at":5,"receivedAt":null,"channel":"system","payload":{"sourceStreamLost":{}}})");
    ASSERT_TRUE(withNull);
    EXPECT_EQ(withNull->receivedAt, std::nullopt);
    // Lower-case ids are read; they are written upper-case.
    auto lower = decodeEventLine(R"({"id":"e621e1f8-c36c-495a-93fc-0c247a3e6e5f","at":1,"channel":"system",)"
                                 R"("payload":{"sourceDelta":{"text":"x"}}})");
    ASSERT_TRUE(lower);
    EXPECT_EQ(lower->id.text(), kId);
}

TEST(TranscriptEventJson, RejectsMalformedEventsWithAReason) {
    const std::string head = std::string(R"({"id":")") + kId + R"(","at":1,"channel":"system","payload":)";
    const std::vector<std::pair<std::string, std::string>> bad = {
        {head + "{}}", "exactly one key"},
        {head + R"({"sourceDelta":{"text":"a"},"sourceStreamLost":{}}})", "exactly one key"},
        {head + R"({"sentenceSplit":{}}})", "unknown payload"},
        {head + R"({"utteranceClosed":{"reason":"tired"}}})", "unknown reason"},
        {head + R"({"sentenceTranslated":{"_0":{"raw":")" + std::string(kSid) + R"("},"text":"t","origin":"magic"}}})",
         "unknown origin"},
        {head + R"({"sentenceClosed":{"reason":"idle"}}})", "missing \"_0\""},
        {head + R"({"sourceDelta":{"text":5}}})", "not a string"},
        {std::string(R"({"id":"nope","at":1,"channel":"system","payload":{"sourceStreamLost":{}}})"), "not a UUID"},
        {std::string(R"({"id":")") + kId + R"(","at":1,"channel":"speaker","payload":{"sourceStreamLost":{}}})",
         "unknown channel"},
        {std::string(R"({"id":")") + kId + R"(","at":"1","channel":"system","payload":{"sourceStreamLost":{}}})",
         "not a number"},
        {"[1,2]", "not an object"},
        {R"({"id":)", "not JSON"},
    };
    for (const auto& [line, why] : bad) {
        auto decoded = decodeEventLine(line);
        ASSERT_FALSE(decoded) << line;
        EXPECT_EQ(decoded.error().code, "event_undecodable");
        EXPECT_NE(decoded.error().message.find(why), std::string::npos) << decoded.error().message;
    }
}

TEST(TranscriptEventJson, JsonLinesSkipBadLinesAndKeepTheRest) {
    LogBuilder b;
    b.source(kSystem, 1, "你好").source(kSystem, 2, "。").closeSentence(kSystem, 2, 1001);
    std::string bytes = encodeJsonLines(b.log);
    EXPECT_EQ(std::count(bytes.begin(), bytes.end(), '\n'), 3);
    const std::string cut = encodeEventLine(b.log.events[0]).substr(0, 30);
    bytes = "\n" + bytes + "garbage\n\n" + cut;  // empty lines, a bad line, a cut-off tail
    const JsonLinesReading reading = decodeJsonLines(bytes);
    EXPECT_EQ(reading.log, b.log);
    EXPECT_EQ(reading.lineCount, 5u);
    ASSERT_EQ(reading.skipped.size(), 2u);
    EXPECT_EQ(reading.skipped[0].first, 5u);
    EXPECT_EQ(reading.skipped[1].first, 7u);
    EXPECT_EQ(encodeJsonLines(b.log, 2), encodeEventLine(b.log.events[2]) + "\n");
}

TEST(TranscriptEventJson, EmbeddedLogNeedsTheEventsKey) {
    LogBuilder b;
    b.source(kMic, 3, "はい").closeUtterance(kMic, 4);
    const auto j = toJson(b.log);
    EXPECT_EQ(transcriptEventLogFromJson(j).value(), b.log);
    EXPECT_FALSE(transcriptEventLogFromJson(json::Json::object()));
    EXPECT_EQ(transcriptEventLogFromJson(*json::parse(R"({"events": []})")).value().size(), 0u);
}

}  // namespace
}  // namespace osv
