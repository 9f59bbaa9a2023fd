// ossevra-cli translate in virtual time, over an in-memory HTTP transport.

#include <gtest/gtest.h>

#include <sstream>

#include "cli/Cli.h"
#include "cli/TranslateCommand.h"
#include "core/Json.h"
#include "core/ManualScheduler.h"
#include "services/FakeHttpTransport.h"

namespace osv::cli {
namespace {

using json::Json;
using osv::testing::FakeHttpTransport;

struct Translation {
    ManualScheduler scheduler;
    FakeHttpTransport transport;
    std::ostringstream out, err;
    TranslateCommand command{scheduler, transport, "http://127.0.0.1:9/v1", out, err};
    std::optional<int> status;

    void start(const std::vector<std::string>& args, TranslatorSettings settings = {}) {
        if (settings.apiKey.empty()) settings.apiKey = "sk-test";
        auto options = TranslateCommand::parse(args);
        ASSERT_TRUE(options) << options.error().message;
        command.run(settings, *options, [this](int s) { status = s; });
        scheduler.runUntilIdle();
    }
    void answer(int code, const std::string& body) {
        transport.reply(code, body);
        scheduler.runUntilIdle();
    }
    Json body() const { return *json::parse(transport.last().body); }
    std::vector<Json> lines() const {
        std::vector<Json> out_;
        std::istringstream in(out.str());
        std::string line;
        while (std::getline(in, line)) out_.push_back(*json::parse(line));
        return out_;
    }
};

TEST(TranslateCommand, PrintsTheTranslationAloneOnOneLine) {
    Translation run;
    TranslatorSettings settings;
    settings.glossary = "小林";
    run.start({"今日は", "--context", "第一句", "--context", "第二句"}, settings);
    ASSERT_EQ(run.transport.calls.size(), 1u);
    EXPECT_EQ(run.body()["model"], "gpt-4.1-mini");
    const std::string input = run.body()["input"];
    EXPECT_EQ(input.substr(input.find("\n\n固定译法")),
              "\n\n固定译法（人名/产品名等，必须照用）：\n小林\n\n前文（仅供理解代词和称呼，不要翻译）：\n第一句\n第二句\n\n待处理的原句：\n今日は");
    EXPECT_EQ(input.rfind("请把下面这句会议发言翻译成自然、准确的简体中文。", 0), 0u);
    run.answer(200, FakeHttpTransport::responsesBody("今天"));
    EXPECT_EQ(run.status, kOk);
    EXPECT_EQ(run.out.str(), "今天\n");
    EXPECT_EQ(run.err.str(), "");
}

TEST(TranslateCommand, JsonGivesTheDebugRecordsThenTheResultWithItsCost) {
    Translation run;
    TranslatorSettings settings;
    settings.usageRates.inputPerMillionUSD = 1.0;
    settings.usageRates.outputPerMillionUSD = 2.0;
    run.start({"好的", "--origin", "reverseToJapanese", "--target", "japanese", "--json"}, settings);
    EXPECT_EQ(run.body()["input"].get<std::string>().rfind("请把下面这句中文会议发言翻译成自然、口语化的日语", 0), 0u);
    run.answer(200, FakeHttpTransport::responsesBody("はい", 1000, 500));
    const auto lines = run.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0]["debug"]["title"], "发送中→日翻译请求");
    EXPECT_EQ(lines[1]["debug"]["code"], "http_200");
    EXPECT_EQ(lines[2], Json::parse(R"({"translation": "はい", "origin": "reverseToJapanese", "model": "gpt-4.1-mini",
        "inputTokens": 1000, "outputTokens": 500, "estimatedUSD": 0.002})"));

    // A draft of Japanese text in a Japanese-target session still takes the refinement text.
    Translation draft;
    draft.start({"来週の会議", "--origin", "provisional", "--target", "japanese"});
    EXPECT_EQ(draft.body()["input"].get<std::string>().rfind("请把下面这句会议发言翻译成自然、准确的日语。", 0), 0u);
}

TEST(TranslateCommand, AFailureShowsTheSentencesWordsAndExitsOne) {
    Translation limited;
    limited.start({"今日は"});
    limited.answer(429, R"({"error": {"message": "Rate limit reached", "type": "rate_limit"}})");
    EXPECT_EQ(limited.status, kFailed);
    EXPECT_EQ(limited.out.str(), "");
    EXPECT_EQ(limited.err.str(), "OpenAI API 错误：Rate limit reached\n");

    Translation empty;
    empty.start({"今日は", "--json"});
    empty.answer(200, FakeHttpTransport::responsesBody(" "));
    EXPECT_EQ(empty.status, kFailed);
    EXPECT_EQ(empty.err.str(), "OpenAI API 错误：整句精修翻译结果为空。\n");
    EXPECT_EQ(empty.lines().size(), 2u);  // the debug records only
}

TEST(TranslateCommand, CommandLinesThatCannotBeRunAreRefused) {
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{}, {"a", "b"}, {"a", "--origin", "streamed"}, {"a", "--origin"},
                                               {"a", "--target", "english"}, {"a", "--verbose"}}) {
        std::ostringstream out, err;
        std::istringstream in;
        std::vector<std::string> line{"translate"};
        line.insert(line.end(), args.begin(), args.end());
        EXPECT_EQ(cli::run(line, in, out, err), kUsage) << line.size();
        EXPECT_NE(err.str().find("usage: ossevra-cli translate"), std::string::npos);
    }
    const auto options = TranslateCommand::parse({"--context", "c", "文", "--origin", "provisional"});
    ASSERT_TRUE(options);
    EXPECT_EQ(options->text, "文");
    EXPECT_EQ(options->origin, TranslationOrigin::provisional);
    EXPECT_EQ(options->context, std::vector<std::string>{"c"});
}

}  // namespace
}  // namespace osv::cli
