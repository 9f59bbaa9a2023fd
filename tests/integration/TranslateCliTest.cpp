// ossevra-cli translate, run as a program against the fake server's HTTP side: what the
// server received, prompt by prompt, and how failures and a retry come out.

#include <gtest/gtest.h>

#include <QProcess>
#include <QProcessEnvironment>

#include "LoopbackServers.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using json::Json;
using testing::FakeRealtimeServer;

constexpr const char* kRefinement =
    "请把下面这句会议发言翻译成自然、准确的简体中文。\n这是对一句已经流式译过的话做整句重译，请给出更通顺、更准确的版本。\n"
    "保留人名、产品名、数字、日期和待办事项。只输出中文译文，不要解释、不要加引号。\n如果没有可翻译的实际内容，只返回空字符串。";
constexpr const char* kChineseToJapanese =
    "请把下面这句中文会议发言翻译成自然、口语化的日语（です・ます体）。\n保留人名、产品名、数字、日期和待办事项。"
    "只输出日语译文，不要解释、不要加引号。\n如果没有可翻译的实际内容，只返回空字符串。";

struct CliRun {
    int status = -1;
    std::string out, err;
};

class TranslateCli : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(home); }
    void TearDown() override { fs::remove_all(home); }

    CliRun translate(const std::string& base, const QStringList& args) {
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", QString::fromStdString(home.string()));
        env.insert("XDG_CONFIG_HOME", QString::fromStdString((home / "config").string()));
        env.insert("XDG_DATA_HOME", QString::fromStdString((home / "data").string()));
        env.insert("OSV_SUPPORT_DIR", QString::fromStdString((home / "support").string()));
        env.insert("OSV_TEST_RUN", "1");
        env.insert("OSV_OPENAI_BASE_URL", QString::fromStdString(base));
        env.insert("OPENAI_API_KEY", "sk-fake");
        p.setProcessEnvironment(env);
        p.start(OSV_CLI, QStringList{"translate"} + args);
        CliRun run;
        if (!p.waitForFinished(60'000)) {
            p.kill();
            return run;
        }
        run.status = p.exitCode();
        run.out = p.readAllStandardOutput().toStdString();
        run.err = p.readAllStandardError().toStdString();
        return run;
    }

    fs::path home = fs::temp_directory_path() / ("osv-translate-" + Uuid::random().text());
};

std::vector<Json> httpLines(const FakeRealtimeServer& server) {
    std::vector<Json> out;
    for (auto& l : server.record())
        if (l.value("event", "") == "http") out.push_back(l);
    return out;
}

TEST_F(TranslateCli, A429AndA500ShowTheSentencesFailureWordsAndARetrySucceeds) {
    FakeRealtimeServer server(R"(
{"http": {"method": "POST", "path": "/v1/responses", "nth": 1}, "reply": {"status": 429, "headers": {"retry-after": "1"}, "json": {"error": {"message": "Rate limit reached for requests", "type": "requests", "code": "rate_limit_exceeded"}}}}
{"http": {"method": "POST", "path": "/v1/responses", "nth": 2}, "reply": {"status": 500, "body": "upstream exploded"}}
{"http": {"method": "POST", "path": "/v1/responses", "match": "待处理的原句：\n今日はいい天気ですね。"}, "reply": {"json": {"output": [{"type": "reasoning", "summary": []}, {"type": "message", "content": [{"type": "output_text", "text": "今天天气真好啊。"}]}], "usage": {"input_tokens": 182, "output_tokens": 9}}}}
{"http": {"method": "POST", "path": "/v1/responses", "match": "好的，我们出发吧。"}, "reply": {"delay_ms": 50, "json": {"output": [{"content": [{"text": "はい、行きましょう。"}]}], "usage": {"input_tokens": 160, "output_tokens": 7}}}}
)");
    ASSERT_GT(server.port(), 0);
    const CliRun limited = translate(server.base(), {"今日はいい天気ですね。"});
    EXPECT_EQ(limited.status, 1);
    EXPECT_EQ(limited.out, "");
    // The sentence's words: 40 characters at most.
    EXPECT_NE(limited.err.find("OpenAI API 错误：Rate limit reached for req…\n"), std::string::npos) << limited.err;

    const CliRun failed = translate(server.base(), {"今日はいい天気ですね。"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_NE(failed.err.find("OpenAI API 错误：upstream exploded\n"), std::string::npos) << failed.err;

    const CliRun retried = translate(server.base(), {"今日はいい天気ですね。"});
    EXPECT_EQ(retried.status, 0) << retried.err;
    EXPECT_EQ(retried.out, "今天天气真好啊。\n");

    const CliRun reverse = translate(server.base(), {"好的，我们出发吧。", "--origin", "reverseToJapanese", "--context",
                                                     "今日はいい天気ですね。", "--json"});
    EXPECT_EQ(reverse.status, 0) << reverse.err;
    std::vector<Json> lines;
    std::istringstream in(reverse.out);
    for (std::string line; std::getline(in, line);) lines.push_back(*json::parse(line));
    ASSERT_FALSE(lines.empty());
    Json result = lines.back();
    EXPECT_GT(result["estimatedUSD"].get<double>(), 0.0);
    result.erase("estimatedUSD");
    EXPECT_EQ(result, Json::parse(R"({"translation": "はい、行きましょう。", "origin": "reverseToJapanese",
        "model": "gpt-4.1-mini", "inputTokens": 160, "outputTokens": 7})"));
    EXPECT_EQ(lines[0]["debug"]["title"], "发送中→日翻译请求");

    // What the server received, byte for byte in the prompts; the key checked, never kept.
    const auto http = httpLines(server);
    ASSERT_EQ(http.size(), 4u);
    const Json refined = {{"model", "gpt-4.1-mini"},
                          {"input", std::string(kRefinement) + "\n\n待处理的原句：\n今日はいい天気ですね。"},
                          {"temperature", 0.1}};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(http[i]["path"], "/v1/responses");
        EXPECT_EQ(http[i]["json"], refined) << i;
        EXPECT_EQ(http[i]["authorization"], "ok");
        EXPECT_FALSE(http[i]["headers"].contains("authorization"));
        EXPECT_EQ(http[i]["headers"]["content-type"], "application/json");
    }
    EXPECT_EQ(http[0]["status"], 429);
    EXPECT_EQ(http[1]["status"], 500);
    EXPECT_EQ(http[2]["status"], 200);
    EXPECT_EQ(http[3]["json"]["input"], std::string(kChineseToJapanese) +
                                            "\n\n前文（仅供理解代词和称呼，不要翻译）：\n今日はいい天気ですね。\n\n待处理的原句：\n好的，我们出发吧。");
}

}  // namespace
}  // namespace osv
