#include <gtest/gtest.h>

#include "core/Json.h"
#include "metering/DebugEvent.h"
#include "metering/LiveMonitor.h"
#include "metering/UsageTally.h"

namespace osv {
namespace {

TEST(Pricing, FirstMatchingPrefixWinsAndGoogleVoicesGoByTier) {
    EXPECT_EQ(Pricing::rate("gpt-4o-mini-tts")->outputPerMillion, 12);  // not gpt-4o-mini's 0.6
    EXPECT_EQ(Pricing::rate(" GPT-4o-mini-2024 ")->inputPerMillion, 0.15);
    EXPECT_EQ(Pricing::rate("gpt-5-mini-x")->inputPerMillion, 0.25);
    EXPECT_EQ(Pricing::rate("gpt-5.1")->inputPerMillion, 1.25);
    EXPECT_EQ(Pricing::rate("gpt-realtime-mini-1")->inputPerMillion, 10);
    EXPECT_EQ(Pricing::rate("gpt-realtime-translate")->perMinute, 0.034);
    EXPECT_FALSE(Pricing::rate("gemini-3.5-transcribe-live")->verified);
    EXPECT_EQ(Pricing::rate("gemini-3.5-transcribe-live")->perMinute, 0.009);
    EXPECT_EQ(Pricing::rate("claude-9"), std::nullopt);
    EXPECT_EQ(Pricing::rate("google:ja-JP-Chirp3-HD-Aoede")->perMillionCharacters, 30);
    EXPECT_EQ(Pricing::rate("google:ja-jp-studio-b")->perMillionCharacters, 160);
    EXPECT_EQ(Pricing::rate("google:cmn-CN-Wavenet-A")->perMillionCharacters, 16);
    EXPECT_EQ(Pricing::rate("google:ja-jp-standard-a")->perMillionCharacters, 4);
}

TEST(UsageTally, EstimatesFromTheTableOrTheUsersOwnRates) {
    UsageTally empty;
    EXPECT_TRUE(empty.breakdown({"gpt-realtime-translate"}, std::nullopt).empty());
    EXPECT_EQ(empty.estimate({"gpt-realtime-translate"}, std::nullopt).usd, 0);

    UsageTally t;
    t.realtimeSeconds = 120;
    t.add(UsageTally::Kind::refine, true, 1'000'000, 500'000, "gpt-4.1-mini");
    t.add(UsageTally::Kind::refine, true, 0, 0, "mystery-model");
    t.add(UsageTally::Kind::speech, true, 0, 0, "google:ja-jp-neural2-b", 500'000);
    t.addSourceAudioReview("gpt-realtime-whisper", 60);
    EXPECT_EQ(t.totalRequests(), 3);
    const auto e = t.estimate({"gpt-realtime-translate"}, std::nullopt);
    // 2 min × 0.034 + (0.4 + 0.5 × 1.6) + 0.5 × 16 + 1 min × 0.017
    EXPECT_NEAR(e.usd, 0.068 + 1.2 + 8 + 0.017, 1e-9);
    EXPECT_TRUE(e.isPartial());
    EXPECT_EQ(e.unpricedModels, (std::vector<std::string>{"mystery-model"}));

    const UsageRates own{0.01, 1, 2};
    const auto manual = t.estimate({"gpt-realtime-translate"}, own);
    EXPECT_NEAR(manual.usd, 0.02 + (1 + 1) + 0 + 8 + 0.017, 1e-9);  // the unknown model has no tokens

    const auto lines = t.breakdown({"gpt-realtime-translate"}, std::nullopt);
    ASSERT_EQ(lines.size(), 3u);  // audio, refine, speech: kinds without requests give none
    EXPECT_EQ(lines[0].label, "实时音频");
    EXPECT_NEAR(*lines[1].usd, 1.2, 1e-9);
    EXPECT_EQ(lines[1].requests, 2);
    EXPECT_EQ(lines[1].unpricedModels, (std::vector<std::string>{"mystery-model"}));
}

TEST(UsageTally, JsonRoundTripsAndToleratesMissingKeys) {
    UsageTally t;
    t.realtimeSeconds = 12.5;
    t.add(UsageTally::Kind::furigana, true, 10, 20, "gpt-5", 3);
    t.addSourceAudioReview("m", 2);
    EXPECT_EQ(usageTallyFromJson(toJson(t)), t);
    const auto partial = usageTallyFromJson(*json::parse(R"({"realtimeSeconds": 3, "requests": {"refine": "x", "reverse": 2}})"));
    EXPECT_EQ(partial.realtimeSeconds, 3);
    EXPECT_TRUE(partial.sourceReviewSecondsByModel.empty());
    EXPECT_EQ(partial.requests, (std::map<std::string, int>{{"reverse", 2}}));
}

TEST(DebugEvent, CopyTextHasNoEmptyLines) {
    DebugEvent e{Uuid::random(), Date::fromUnixSeconds(0), DebugEvent::Level::warning, DebugEvent::Category::translation,
                 "译文超时", "", "translation_timeout"};
    const std::string text = e.copyText();
    EXPECT_NE(text.find("] 警告 / 翻译\n译文超时\ncode: translation_timeout"), std::string::npos) << text;
    EXPECT_EQ(text.back(), 't');
    e.code.reset();
    e.details = "第二行";
    EXPECT_EQ(text.find("\n\n"), std::string::npos);
    EXPECT_NE(e.copyText().find("译文超时\n第二行"), std::string::npos);
    const OpenAIDebugLog log{DebugEvent::Level::error, DebugEvent::Category::openAI, "t", "d", "c"};
    EXPECT_EQ(log.stamped(Date(5)).timestamp, Date(5));
}

TEST(LiveMonitor, HeadlineNamesWhatIsWrongFirst) {
    LiveMonitor m;
    EXPECT_EQ(m.headline(), "没有进行中的会话。");
    m.inputs = {{"电脑声音", 0.3, 48'000, 1'000'000, 0.1}, {"麦克风", 0.1, 48'000, 500'000, 0.2}};
    m.streams = {{"译文（电脑声音）", "OpenAI", true, 10, 1.0, std::nullopt}};
    EXPECT_EQ(m.headline(), "1 条连接正常 · 上行 96 KB/s");
    m.streams.push_back({"原文（麦克风）", "OpenAI", true, 0, 12.5, std::nullopt});  // never answered since its start
    EXPECT_EQ(m.headline(), "原文（麦克风） 已连接但没有返回");
    m.streams.pop_back();
    m.inputs[1].secondsSinceFrame = 3.0;
    EXPECT_EQ(m.headline(), "麦克风 没有收到音频");
}

}  // namespace
}  // namespace osv
