#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "core/Json.h"
#include "core/ManualScheduler.h"
#include "core/Uuid.h"
#include "services/FakeHttpTransport.h"
#include "services/OpenAIClient.h"

namespace osv {
namespace {

using json::Json;
using Level = DebugEvent::Level;
using testing::FakeHttpTransport;

struct Harness {
    FakeHttpTransport transport;
    ManualScheduler scheduler;
    OpenAIClient client{transport, scheduler, "http://127.0.0.1:9/v1/"};
    TranslatorSettings settings;
    std::vector<OpenAIDebugLog> logs;
    struct Usage {
        std::string model;
        std::int64_t input, output;
        bool operator==(const Usage&) const = default;
    };
    std::vector<Usage> usage;

    Harness() { settings.apiKey = "  sk-test\n"; }
    OpenAIClient::DebugHandler onDebug() {
        return [this](const OpenAIDebugLog& l) { logs.push_back(l); };
    }
    OpenAIClient::UsageHandler onUsage() {
        return [this](const std::string& m, std::int64_t i, std::int64_t o) { usage.push_back({m, i, o}); };
    }
    Json body(int index = -1) const {
        const auto& r = index < 0 ? transport.last() : transport.calls.at(std::size_t(index))->request;
        return *json::parse(r.body);
    }
    std::vector<std::string> titles() const {
        std::vector<std::string> out;
        for (const auto& l : logs) out.push_back(l.title);
        return out;
    }
};

template <class T>
struct Result {
    std::optional<Expected<T>> value;
    OpenAIClient::Done<T> done() {
        return [this](Expected<T> r) { value = std::move(r); };
    }
};

TEST(OpenAIClient, SentencePassSendsOnePieceOfInputWithTheProfilesParameters) {
    Harness h;
    h.settings.glossary = " 小林\n";
    h.settings.models.set("gpt-5", ModelJob::strongText, std::nullopt);
    Result<std::string> strong;
    auto call = h.client.sentencePass("请翻译。", "今日は", {"前一句", "再前一句"}, h.settings, "整句精修", std::nullopt,
                                      h.onDebug(), h.onUsage(), strong.done());
    ASSERT_EQ(h.transport.calls.size(), 1u);
    const HttpRequest& r = h.transport.last();
    EXPECT_EQ(r.method, "POST");
    EXPECT_EQ(r.url, "http://127.0.0.1:9/v1/responses");
    EXPECT_EQ(r.timeoutSeconds, 60.0);
    EXPECT_EQ(r.headers, (HeaderList{{"Authorization", "Bearer sk-test"}, {"Content-Type", "application/json"}}));
    EXPECT_EQ(h.body(), Json::parse(R"({"model": "gpt-5", "input": "请翻译。\n\n固定译法（人名/产品名等，必须照用）：\n小林\n\n前文（仅供理解代词和称呼，不要翻译）：\n前一句\n再前一句\n\n待处理的原句：\n今日は", "reasoning": {"effort": "minimal"}})"));
    ASSERT_EQ(h.logs.size(), 1u);
    EXPECT_EQ(h.logs[0].title, "整句精修");
    EXPECT_EQ(h.logs[0].details,
              "endpoint: /v1/responses\nmodel: gpt-5\nsourceChars: 3\ncontextSentences: 2\nglossary: 有");

    // A reply may begin with a reasoning item, which has no content.
    h.transport.reply(200, R"({"output": [{"type": "reasoning", "summary": []},
        {"content": [{"text": "  今天"}, {"type": "refusal"}, {"text": "很好\n"}]}], "usage": {"input_tokens": 120, "output_tokens": 7}, "id": "x"})");
    ASSERT_TRUE(strong.value && strong.value->ok());
    EXPECT_EQ(**strong.value, "今天很好");
    EXPECT_EQ(h.usage, (std::vector<Harness::Usage>{{"gpt-5", 120, 7}}));
    EXPECT_EQ(h.logs.back().title, "HTTP 200");
    EXPECT_EQ(h.logs.back().level, Level::success);
    EXPECT_EQ(h.logs.back().code, "http_200");

    // The opposite profile, with the model given; no glossary, no context.
    h.settings.glossary = "  ";
    Result<std::string> fast;
    auto second = h.client.sentencePass("I", "T", {}, h.settings, "t", "gpt-4.1", h.onDebug(), h.onUsage(), fast.done());
    EXPECT_EQ(h.body(), Json::parse(R"({"model": "gpt-4.1", "input": "I\n\n待处理的原句：\nT", "temperature": 0.1})"));
    EXPECT_NE(h.logs.back().details.find("glossary: 无"), std::string::npos);
    // Items without content and no usage: an empty text, returned empty, nothing reported.
    h.transport.reply(200, R"({"output": [{"type": "reasoning"}]})");
    EXPECT_EQ(**fast.value, "");
    EXPECT_EQ(h.usage.size(), 1u);
}

TEST(OpenAIClient, FailuresCarryTheEnvelopesMessageOrTheBodyAndAreLogged) {
    Harness h;
    auto send = [&](Result<std::string>& result) {
        return h.client.sentencePass("I", "T", {}, h.settings, "t", std::nullopt, h.onDebug(), h.onUsage(), result.done());
    };
    Result<std::string> limited, unreadable, empty, broken, lost;
    auto a = send(limited);
    h.transport.reply(429, R"({"error": {"message": "Rate limit reached", "type": "rate_limit", "code": null}})",
                      {{"retry-after", "2"}});
    ASSERT_FALSE(limited.value->ok());
    EXPECT_EQ(limited.value->error().code, "api_error");
    EXPECT_EQ(limited.value->error().message, "OpenAI API 错误：Rate limit reached");
    EXPECT_EQ(h.logs.back().title, "OpenAI 返回错误");
    EXPECT_EQ(h.logs.back().code, "rate_limit");

    auto b = send(unreadable);
    h.transport.reply(400, "upstream said no\n");
    EXPECT_EQ(unreadable.value->error().message, "OpenAI API 错误：upstream said no");
    EXPECT_EQ(h.logs.back().title, "OpenAI 返回未知错误");
    EXPECT_EQ(h.logs.back().code, "http_400");
    EXPECT_EQ(h.logs[h.logs.size() - 2].details, "operation: responses.sentence_pass\nresponseBytes: 17");

    auto c = send(empty);
    h.transport.reply(500, "");
    EXPECT_EQ(empty.value->error().message, "OpenAI API 错误：HTTP 500");

    auto d = send(broken);
    h.transport.reply(200, "{broken");
    EXPECT_EQ(broken.value->error().code, "json_decode_error");
    EXPECT_EQ(h.logs.back().title, "响应 JSON 解析失败");

    // A transport failure passes out as it is, with no HTTP record.
    const auto before = h.logs.size();
    auto e = send(lost);
    h.transport.fail(Error{"http_timeout", "The request timed out"});
    EXPECT_EQ(lost.value->error().code, "http_timeout");
    EXPECT_EQ(h.logs.size(), before + 1);  // only the record before the request
}

TEST(OpenAIClient, AMissingKeyFailsLaterWithoutARequestAndCancelledCallsNeverAnswer) {
    Harness h;
    h.settings.apiKey = " \n";
    Result<std::string> missing;
    auto call = h.client.sentencePass("I", "T", {}, h.settings, "t", std::nullopt, h.onDebug(), nullptr, missing.done());
    EXPECT_FALSE(missing.value.has_value());  // never from inside the call
    h.scheduler.runUntilIdle();
    ASSERT_TRUE(missing.value.has_value());
    EXPECT_EQ(missing.value->error().code, "missing_api_key");
    EXPECT_TRUE(h.transport.calls.empty());
    EXPECT_TRUE(h.logs.empty());

    Result<std::string> dropped;
    auto handle = h.client.sentencePass("I", "T", {}, h.settings, "t", std::nullopt, nullptr, nullptr, dropped.done());
    handle.reset();
    h.scheduler.runUntilIdle();
    EXPECT_FALSE(dropped.value.has_value());

    h.settings.apiKey = "sk";
    Result<std::string> aborted;
    auto running = h.client.sentencePass("I", "T", {}, h.settings, "t", std::nullopt, nullptr, nullptr, aborted.done());
    running->cancel();
    EXPECT_TRUE(h.transport.calls.back()->cancelled);
    h.transport.reply(200, FakeHttpTransport::responsesBody("x"), {}, 0);
    EXPECT_FALSE(aborted.value.has_value());
}

TEST(OpenAIClient, ContextRepairPromptAndNumberedCorrections) {
    EXPECT_EQ(OpenAIClient::repairInContextInput({"甲句", "乙句"}, {"早先"}, "小林"),
              "下面是同一场对话里连续的几句语音识别结果，每行前面是编号。\n请只订正**放在一起看才能发现**的识别错误：\n"
              "- 同一个人名 / 公司名 / 产品名在不同句里写法不一致，统一成正确的那个\n- 前后文明确表明某个词听错了\n"
              "- 同一条信息重复出现时，结合相近读音核对前后不一致的关键词；不要把复述误当成另一件事\n"
              "- 发音相近但词义不通的识别词也要检查，不要只改标点或假名/汉字字形。可利用后文消除早先歧义，但必须保留每次发言各自的细节\n"
              "- 修正词必须与识别词读音接近、且有上下文支持，不能按常识补出没说过的内容\n\n"
              "这场对话已确认的专有名词（以此为准）：\n小林\n"
              "\n绝对不要做：不要回答、不要续写、不要翻译、不要改写语气或用词习惯、\n不要把口语整理成书面语、不要动没有明确证据的句子。\n\n"
              "严格只输出 JSON 对象，不要解释，不要 markdown 代码块。\n只列出**需要修改**的句子：{\"编号\": \"订正后的整句\"}\n"
              "没有需要改的就输出 {}\n\n"
              "以下是之前的原文，仅供核对语境、称呼与重复信息，没有编号，不得修改或输出：\n早先"
              "\n\n待校准的编号句：\n1: 甲句\n2: 乙句");

    EXPECT_EQ(OpenAIClient::numberedCorrections("好的 {\"2\": \"改后\"} 以上", 3), (std::map<int, std::string>{{2, "改后"}}));
    EXPECT_EQ(OpenAIClient::numberedCorrections(R"({"9": "太远", "1": "  ", "x": "非数字", "3": 4, "2": " 留下 "})", 3),
              (std::map<int, std::string>{{2, "留下"}}));
    EXPECT_TRUE(OpenAIClient::numberedCorrections("没有花括号", 3).empty());
    EXPECT_TRUE(OpenAIClient::numberedCorrections("{not json}", 3).empty());

    Harness h;
    h.settings.models.set("gpt-4.1", ModelJob::strongText, std::nullopt);
    Result<std::map<int, std::string>> result;
    auto call = h.client.repairInContext({"甲句", "乙句"}, {}, "", h.settings, nullptr, h.onUsage(), result.done());
    EXPECT_EQ(h.body()["temperature"], 0);
    h.transport.reply(200, FakeHttpTransport::responsesBody("{}"));
    EXPECT_TRUE(result.value->ok() && (*result.value)->empty());
}

TEST(OpenAIClient, TitlesSummariesAndGlossariesAreCutOutOfTheReply) {
    EXPECT_EQ(OpenAIClient::cleanTitle("《新产品发布计划》。"), "新产品发布计划");
    EXPECT_EQ(OpenAIClient::cleanTitle(" 「 」\n"), std::nullopt);
    EXPECT_EQ(OpenAIClient::cleanTitle("一二三四五六七八九十一二三四五六七八九十"), "一二三四五六七八九十一二三四");
    EXPECT_EQ(OpenAIClient::cleanTitle("一二三四五六七八九十一二三四"), "一二三四五六七八九十一二三四");

    const auto summary = OpenAIClient::parseSummary(
        "```json\n{\"overview\": \" 谈合作 \", \"topics\": [{\"title\": \"价格\", \"points\": [\"降价\", \" \"]}, {\"title\": \"\"}], \"actions\": []}\n```");
    ASSERT_TRUE(summary);
    EXPECT_EQ(summary->overview, "谈合作");
    ASSERT_EQ(summary->topics.size(), 1u);
    EXPECT_EQ(summary->topics[0].points, std::vector<std::string>{"降价"});
    EXPECT_FALSE(OpenAIClient::parseSummary("{}"));

    const auto terms = OpenAIClient::parseGlossary("结果：[{\"written\": \"小林\", \"heard\": \"小林さん\"}, {\"written\": \"Ossevra\"}]");
    ASSERT_EQ(terms.size(), 2u);
    EXPECT_EQ(terms[0].heard, "小林さん");
    EXPECT_EQ(terms[1].translated, std::nullopt);
    EXPECT_TRUE(OpenAIClient::parseGlossary("[{\"heard\": \"x\"}]").empty());

    Harness h;
    h.settings.targetLanguage = TargetLanguage::japanese;
    Result<std::optional<std::string>> title;
    auto call = h.client.summarizeTitle("很多内容", h.settings, h.onDebug(), title.done());
    const std::string input = h.body()["input"];
    EXPECT_EQ(input.rfind("下面是一段中日同传会议记录。请用日语给它起一个标题，概括这段对话真正讨论的事情。\n要求：不超过 14 个字；", 0), 0u);
    EXPECT_NE(input.find("只返回空字符串。\n\n待处理的原句：\n很多内容"), std::string::npos);
    EXPECT_EQ(h.logs[0].title, "生成标题");
    h.transport.reply(200, FakeHttpTransport::responsesBody("「报价」"));
    EXPECT_EQ(**title.value, "报价");

    Result<SessionSummary> failed;
    auto s = h.client.summarize(std::nullopt, {"a"}, h.settings, h.onDebug(), nullptr, failed.done());
    EXPECT_EQ(h.body()["reasoning"]["effort"], "minimal");  // strongText is gpt-5 by default
    h.transport.reply(200, FakeHttpTransport::responsesBody(""));
    EXPECT_EQ(failed.value->error().code, "json_decode_error");
}

TEST(OpenAIClient, JapaneseToChineseFailsOnAnEmptyReply) {
    Harness h;
    Result<std::string> result;
    auto call = h.client.translateJapaneseToChinese("はい", h.settings, h.onDebug(), result.done());
    EXPECT_EQ(h.body(), Json::parse(R"({"model": "gpt-4.1-mini", "input": "请把下面的日语会议发言翻译成简洁、自然的简体中文。\n保留人名、产品名、数字、日期和待办事项。只输出中文译文，不要解释。\n如果原文为空或没有可翻译的实际内容，请只返回空字符串，绝对不要索要内容或添加任何说明。\n\n日语原文：\nはい", "temperature": 0.1})"));
    EXPECT_EQ(h.logs[0].title, "发送翻译请求");
    h.transport.reply(200, FakeHttpTransport::responsesBody(" \\n"));
    EXPECT_EQ(result.value->error().code, "invalid_response");
    EXPECT_EQ(result.value->error().message, "翻译结果为空。");
    EXPECT_EQ(h.logs.back().code, "empty_translation");
    EXPECT_EQ(h.logs.back().level, Level::warning);
}

TEST(OpenAIClient, SpeechRateGoesToSpeedOrIntoTheInstructions) {
    Harness h;
    h.settings.speechRate = 1.0;
    h.settings.models.set("tts-1-hd", ModelJob::speech, std::nullopt);
    Result<std::string> clip;
    auto a = h.client.speak("こんにちは", TargetLanguage::japanese, h.settings, h.onDebug(), clip.done());
    EXPECT_EQ(h.transport.last().url, "http://127.0.0.1:9/v1/audio/speech");
    Json body = h.body();
    EXPECT_EQ(body["speed"], 1.0);
    EXPECT_EQ(body["voice"], "shimmer");
    EXPECT_EQ(body["response_format"], "mp3");
    EXPECT_EQ(body["instructions"], OpenAIClient::speechInstructions(TargetLanguage::japanese, 1.0, true));
    EXPECT_EQ(h.logs[0].details, "model: tts-1-hd\nlanguage: japanese\nvoice: shimmer\nrate: 1.0\nchars: 5");
    h.transport.reply(200, std::string("ID3\0\x01", 5));
    EXPECT_EQ(**clip.value, std::string("ID3\0\x01", 5));

    h.settings.models.set("gpt-4o-mini-tts", ModelJob::speech, std::nullopt);
    Result<std::string> refused;
    auto b = h.client.speak("你好", TargetLanguage::simplifiedChinese, h.settings, h.onDebug(), refused.done());
    body = h.body();
    EXPECT_FALSE(body.contains("speed"));
    EXPECT_EQ(body["voice"], "nova");
    EXPECT_EQ(body["instructions"],
              "用中文说，你是一位日语老师，正在跟学生面对面讲解。自然的口语节奏，有轻重、\n有停顿，不要一个调子念到底，也不要像播报。"
              "语气亲切，像在解释一件你很熟的事。\n语速自然，就像平常说话。");
    EXPECT_NE(h.logs.back().details.find("rate: （写进指令，这个模型不收 speed 字段）"), std::string::npos);
    h.transport.reply(503, "overloaded");
    EXPECT_EQ(refused.value->error().message, "OpenAI API 错误：语音合成失败（503）。");
    EXPECT_EQ(h.logs.back().title, "老师语音失败");
    EXPECT_EQ(h.logs.back().details, "status: 503\noverloaded");

    EXPECT_NE(OpenAIClient::speechInstructions(TargetLanguage::japanese, 0.79, false).find("像在给初学者做示范"), std::string::npos);
    EXPECT_NE(OpenAIClient::speechInstructions(TargetLanguage::japanese, 0.8, false).find("稍慢一点"), std::string::npos);
    EXPECT_NE(OpenAIClient::speechInstructions(TargetLanguage::japanese, 1.1, false).find("稍快一点"), std::string::npos);
    EXPECT_NE(OpenAIClient::speechInstructions(TargetLanguage::japanese, 1.3, false).find("接近日常快速交谈"), std::string::npos);
}

TEST(OpenAIClient, TranscriptionIsAMultipartFormWithItsOwnBoundary) {
    const auto path = std::filesystem::temp_directory_path() / ("osv-clip-" + Uuid::random().text() + ".M4A");
    std::ofstream(path, std::ios::binary) << std::string("\0\1\2\3", 4);
    Harness h;
    Result<std::string> heard, silent;
    auto a = h.client.transcribe(path.string(), h.settings, RecognitionLanguage::japanese, h.onDebug(), h.onUsage(), heard.done());
    EXPECT_TRUE(h.transport.calls.empty());  // the file is read off the main thread first
    h.scheduler.runUntilIdle();
    ASSERT_EQ(h.transport.calls.size(), 1u);
    const HttpRequest& r = h.transport.last();
    EXPECT_EQ(r.url, "http://127.0.0.1:9/v1/audio/transcriptions");
    ASSERT_EQ(r.headers.size(), 2u);
    const std::string contentType = r.headers[1].second;
    ASSERT_EQ(contentType.rfind("multipart/form-data; boundary=Boundary-", 0), 0u) << contentType;
    const std::string b = "--" + contentType.substr(contentType.find('=') + 1);
    const std::string name = path.filename().string();
    EXPECT_EQ(r.body, b + "\r\nContent-Disposition: form-data; name=\"model\"\r\n\r\ngpt-4o-mini-transcribe\r\n" + b +
                          "\r\nContent-Disposition: form-data; name=\"response_format\"\r\n\r\njson\r\n" + b +
                          "\r\nContent-Disposition: form-data; name=\"language\"\r\n\r\nja\r\n" + b +
                          "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" + name +
                          "\"\r\nContent-Type: audio/mp4\r\n\r\n" + std::string("\0\1\2\3", 4) + "\r\n" + b + "--\r\n");
    EXPECT_EQ(h.logs[0].title, "发送音频识别请求");
    EXPECT_EQ(h.logs[0].details, "endpoint: /v1/audio/transcriptions\nmodel: gpt-4o-mini-transcribe\nlanguage: ja\nfile: " +
                                     name + "\nmime: audio/mp4\nbytes: 4");
    h.transport.reply(200, R"({"text": " こんにちは ", "usage": {"input_tokens": 40, "output_tokens": 3}})");
    EXPECT_EQ(**heard.value, "こんにちは");
    EXPECT_EQ(h.usage.size(), 1u);

    auto c = h.client.transcribe(path.string(), h.settings, RecognitionLanguage::automatic, h.onDebug(), nullptr, silent.done());
    h.scheduler.runUntilIdle();
    EXPECT_EQ(h.transport.last().body.find("name=\"language\""), std::string::npos);
    h.transport.reply(200, R"({"text": "  "})");
    EXPECT_EQ(silent.value->error().code, "empty_transcript");
    EXPECT_EQ(h.logs.back().code, "empty_transcript");

    // Cancelled while the file is read: no request goes out.
    Result<std::string> cancelled, unreadable;
    auto e = h.client.transcribe(path.string(), h.settings, RecognitionLanguage::automatic, nullptr, nullptr, cancelled.done());
    e->cancel();
    h.scheduler.runUntilIdle();
    EXPECT_EQ(h.transport.calls.size(), 2u);
    EXPECT_FALSE(cancelled.value.has_value());
    std::filesystem::remove(path);
    auto f = h.client.transcribe(path.string(), h.settings, RecognitionLanguage::automatic, nullptr, nullptr, unreadable.done());
    h.scheduler.runUntilIdle();
    EXPECT_EQ(unreadable.value->error().code, "recording_failed");

    EXPECT_EQ(OpenAIClient::mimeType("a.mp3"), "audio/mpeg");
    EXPECT_EQ(OpenAIClient::mimeType("a.wav"), "audio/wav");
    EXPECT_EQ(OpenAIClient::mimeType("a.flac"), "application/octet-stream");

    // The second hearing: the realtime model's successor, both languages, a WAV file.
    h.settings.models.set("gpt-realtime-whisper", ModelJob::realtimeTranscribe, std::nullopt);
    Result<std::string> review;
    auto d = h.client.reviewSourceAudio(h.settings, std::vector<std::uint8_t>(480, 0), review.done());
    EXPECT_EQ(h.transport.last().timeoutSeconds, 12.0);
    const std::string& body = h.transport.last().body;
    EXPECT_NE(body.find("name=\"model\"\r\n\r\ngpt-transcribe\r\n"), std::string::npos);
    EXPECT_NE(body.find("A conversation in Japanese and Mandarin Chinese, including language switches. Transcribe all"), std::string::npos);
    EXPECT_NE(body.find("name=\"languages[]\"\r\n\r\nzh\r\n"), std::string::npos);
    EXPECT_NE(body.find("name=\"languages[]\"\r\n\r\nja\r\n"), std::string::npos);
    EXPECT_NE(body.find("filename=\"source-review.wav\"\r\nContent-Type: audio/wav\r\n\r\nRIFF"), std::string::npos);
    h.transport.reply(200, R"({"text": ""})");
    EXPECT_EQ(**review.value, "");
}

}  // namespace
}  // namespace osv
