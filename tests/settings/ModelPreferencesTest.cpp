#include <gtest/gtest.h>

#include "settings/ModelPreferences.h"
#include "settings/ModelWiring.h"
#include "settings/TranslatorSettings.h"

namespace osv {
namespace {

TEST(ModelPreferences, BlankCountsAsNothingAtBothLevels) {
    ModelPreferences p;
    p.base["strongText"] = "  ";
    EXPECT_EQ(p.resolved(ModelJob::strongText, AppMode::interpret), "gpt-5");
    p.set(" gpt-4.1-mini-2 ", ModelJob::fastText, AppMode::assist);
    EXPECT_EQ(p.resolved(ModelJob::fastText, AppMode::assist), "gpt-4.1-mini-2");
    EXPECT_EQ(p.resolved(ModelJob::fastText, AppMode::interpret), "gpt-4.1-mini");
    p.set("gpt-5", ModelJob::strongText, std::nullopt);  // equal to the default: still stored
    EXPECT_EQ(p.stored(ModelJob::strongText, std::nullopt), "gpt-5");
    EXPECT_TRUE(p.hasOverrides(AppMode::assist));
    p.set("", ModelJob::fastText, AppMode::assist);
    EXPECT_FALSE(p.hasOverrides(AppMode::assist));
    EXPECT_EQ(p.overrides.count("assist"), 0u);
}

TEST(ModelPreferences, LoadsStoredDataOrMigratesTheOldKeys) {
    MemoryUserDefaults d;
    d.set("refine_model", std::string("gpt-4.1"));
    d.set("realtime_transcribe_model", std::string(" gpt-live-transcribe "));
    auto migrated = ModelPreferences::loadFromDefaults(d);
    EXPECT_EQ(migrated.resolved(ModelJob::strongText, AppMode::coach), "gpt-4.1");
    EXPECT_EQ(migrated.resolved(ModelJob::realtimeTranscribe, std::nullopt), "gpt-live-transcribe");
    EXPECT_TRUE(d.object("refine_model"));  // left in place

    ModelPreferences mine;
    mine.set("gpt-5-mini", ModelJob::coachAnswer, AppMode::coach);
    mine.saveToDefaults(d);
    const auto loaded = ModelPreferences::loadFromDefaults(d);
    EXPECT_EQ(loaded, mine);  // and the old keys are not read at all
    EXPECT_EQ(loaded.resolved(ModelJob::strongText, AppMode::coach), "gpt-5");
    d.set("model_preferences", std::string("{\"base\": {}}"));
    EXPECT_EQ(ModelPreferences::loadFromDefaults(d), ModelPreferences{});
}

TEST(ModelPreferences, ReasoningModelsTakeNoTemperature) {
    EXPECT_EQ(OpenAIModelProfile::forModel("GPT-5.1 "), (OpenAIModelProfile{false, "minimal"}));
    EXPECT_EQ(OpenAIModelProfile::forModel("o3-mini").usesTemperature, false);
    EXPECT_EQ(OpenAIModelProfile::forModel("gpt-4.1"), (OpenAIModelProfile{true, std::nullopt}));
}

TEST(ModelWiring, RowsShowTheVendorPriceAndTheFirstProblem) {
    TranslatorSettings s;
    s.models.set("gemini-3.5-transcribe", ModelJob::realtimeTranscribe, AppMode::interpret);
    auto rows = ModelWiring::rows(s, {true, false});
    ASSERT_EQ(rows.size(), 7u);
    EXPECT_EQ(rows[1].vendorName, "Gemini");
    EXPECT_EQ(rows[1].problem, "没填 Gemini Key");  // the key's problem comes first
    EXPECT_TRUE(rows[1].isOverridden);
    rows = ModelWiring::rows(s, {true, true});
    EXPECT_EQ(rows[1].problem, "实时原文要用带 -live 的流式模型");
    EXPECT_EQ(rows[1].price, "$0.005/分钟（未核实）");
    EXPECT_EQ(ModelWiring::summary(rows), "实时原文：实时原文要用带 -live 的流式模型");
    s.models.set("gemini-3.5-transcribe-live", ModelJob::realtimeTranscribe, AppMode::interpret);
    s.models.set("gemini-3.5-live-translate", ModelJob::realtimeTranslate, std::nullopt);
    s.models.set("gemini-3.5-transcribe-live", ModelJob::fileTranscribe, std::nullopt);
    rows = ModelWiring::rows(s, {false, true});
    EXPECT_EQ(rows[0].problem, "实时同传只有 OpenAI 有边听边译的端点");
    EXPECT_EQ(rows[2].problem, "文件转写要用不带 -live 的模型");
    EXPECT_EQ(ModelWiring::summary(rows), "6 项用不了，第一项是「实时同传」");

    TranslatorSettings google;
    google.speechVendor = SpeechVendor::google;
    rows = ModelWiring::rows(google, {true, false});
    EXPECT_EQ(rows[6].vendorName, "Google 语音");
    EXPECT_EQ(rows[6].price, "$16/百万字符");
    EXPECT_EQ(rows[6].problem, std::nullopt);
    EXPECT_EQ(ModelWiring::summary(rows), "OpenAI + Google 语音，7 项都能用");
    EXPECT_EQ(ModelWiring::priceText(Pricing::rate("gpt-4.1")), "$2.00 / $8.00 每百万 token");
    EXPECT_EQ(ModelWiring::priceText(std::nullopt), std::nullopt);
}

TEST(LanePrice, UsesOwnRatesElseTheModelsPriceElseNothing) {
    TranslatorSettings s;
    // A sentence pass runs on the fast model: gpt-4.1-mini at 0.4 / 1.6.
    EXPECT_NEAR(*estimatedUSD(UsageTally::Kind::refine, 1'000'000, 500'000, s, AppMode::interpret), 1.2, 1e-9);
    s.models.set("in-house-model", ModelJob::fastText, AppMode::assist);
    EXPECT_EQ(estimatedUSD(UsageTally::Kind::refine, 10, 10, s, AppMode::assist), std::nullopt);
    s.usageRates.outputPerMillionUSD = 2;
    EXPECT_NEAR(*estimatedUSD(UsageTally::Kind::refine, 1'000'000, 1'000'000, s, AppMode::assist), 2.0, 1e-9);
    EXPECT_EQ(modelJob(UsageTally::Kind::furigana), ModelJob::strongText);
}

}  // namespace
}  // namespace osv
