// The fake server's HTTP side without sockets: reading requests, the rules, the record.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "HttpExchange.h"
#include "Scenario.h"
#include "core/Json.h"
#include "core/Uuid.h"

namespace osv::fake {
namespace {

using json::Json;

HttpRequestData request(const std::string& method, const std::string& path, const std::string& body,
                        HeaderPairs headers = {}) {
    HttpRequestData r;
    r.method = method;
    r.path = path;
    r.body = body;
    r.headers = std::move(headers);
    return r;
}

TEST(FakeHttpExchange, ReadsRequestsAsTheyArriveInPieces) {
    const std::string wire =
        "POST /v1/responses?a=1&key=sk-x HTTP/1.1\r\nHost: x\r\nContent-Length: 4\r\n\r\nbody"
        "GET /v1/voices HTTP/1.1\r\nConnection: close\r\n\r\n";
    // Every cut before the end of the first request is incomplete, never wrong.
    const std::size_t firstEnd = wire.find("GET");
    for (std::size_t cut = 0; cut < firstEnd; ++cut)
        EXPECT_EQ(readRequest(std::string_view(wire).substr(0, cut)).state, ReadResult::State::incomplete) << cut;
    const ReadResult first = readRequest(wire);
    ASSERT_EQ(first.state, ReadResult::State::complete);
    EXPECT_EQ(first.consumed, firstEnd);
    EXPECT_EQ(first.request.method, "POST");
    EXPECT_EQ(first.request.path, "/v1/responses");
    EXPECT_EQ(first.request.query, "a=1&key=sk-x");
    EXPECT_EQ(first.request.body, "body");
    EXPECT_FALSE(first.request.wantsClose());
    const ReadResult second = readRequest(std::string_view(wire).substr(firstEnd));
    ASSERT_EQ(second.state, ReadResult::State::complete);
    EXPECT_EQ(second.request.body, "");
    EXPECT_TRUE(second.request.wantsClose());
}

TEST(FakeHttpExchange, ChunkedBodiesAreJoinedAndBadHeadsRefused) {
    const std::string chunked =
        "POST /up HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nab\r\n\r\n3;x=y\r\ncde\r\n0\r\n\r\n";
    EXPECT_EQ(readRequest(chunked.substr(0, chunked.size() - 2)).state, ReadResult::State::incomplete);
    const ReadResult r = readRequest(chunked);
    ASSERT_EQ(r.state, ReadResult::State::complete);
    EXPECT_EQ(r.request.body, "ab\r\ncde");
    EXPECT_EQ(r.consumed, chunked.size());

    EXPECT_EQ(readRequest("NONSENSE\r\n\r\n").state, ReadResult::State::bad);
    EXPECT_EQ(readRequest("POST / HTTP/1.1\r\nContent-Length: ten\r\n\r\n").state, ReadResult::State::bad);
    EXPECT_EQ(readRequest("POST / HTTP/1.1\r\nno colon\r\n\r\n").state, ReadResult::State::bad);

    const ReadResult waiting = readRequest("POST / HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 9\r\n\r\n");
    EXPECT_EQ(waiting.state, ReadResult::State::incomplete);
    EXPECT_TRUE(waiting.headersComplete && waiting.expectsContinue);

    EXPECT_TRUE(isWebSocketUpgrade("GET /v1/realtime HTTP/1.1\r\nUpgrade: WebSocket\r\nConnection: Upgrade\r\n\r\n"));
    EXPECT_FALSE(isWebSocketUpgrade("GET /v1/realtime HTTP/1.1\r\nHost: x\r\n\r\n"));
}

TEST(FakeHttpExchange, MultipartPartsWithQuotedBoundaryAndBinaryData) {
    const std::string binary("\0\x01\xff\r\n-", 6);
    const std::string body = "--b;1\r\nContent-Disposition: form-data; name=\"model\"\r\n\r\ngpt-transcribe\r\n"
                             "--b;1\r\nContent-Disposition: form-data; name=\"file\"; filename=\"a;b.wav\"\r\n"
                             "Content-Type: audio/wav\r\n\r\n" + binary + "\r\n--b;1--\r\n";
    const auto parts = parseMultipart("multipart/form-data; boundary=\"b;1\"", body);
    ASSERT_TRUE(parts);
    ASSERT_EQ(parts->size(), 2u);
    EXPECT_EQ((*parts)[0].name, "model");
    EXPECT_EQ((*parts)[0].data, "gpt-transcribe");
    EXPECT_FALSE((*parts)[0].fileName);
    EXPECT_EQ((*parts)[1].fileName, "a;b.wav");
    EXPECT_EQ((*parts)[1].contentType, "audio/wav");
    EXPECT_EQ((*parts)[1].data, binary);
    EXPECT_FALSE(parseMultipart("application/json", body));

    // The record sizes the file and shows the plain field; the key is never written.
    HttpRequestData r = request("POST", "/v1/audio/transcriptions", body,
                                {{"Content-Type", "multipart/form-data; boundary=\"b;1\""},
                                 {"Authorization", "Bearer sk-secret"},
                                 {"X-Goog-Api-Key", "sk-secret"}});
    r.query = "alt=json&key=sk-secret";
    const Json line = recordOf(r, 3, 12, keyCheck(r.headers, r.query, std::string("sk-secret")), nullptr, unmatchedReply(r));
    EXPECT_EQ(line["authorization"], "ok");
    EXPECT_EQ(line["query"], "alt=json");
    EXPECT_EQ(line["multipart"], Json::parse(R"([{"name":"model","size":14,"value":"gpt-transcribe"},
        {"name":"file","filename":"a;b.wav","content_type":"audio/wav","size":6}])"));
    EXPECT_EQ(line["status"], 404);
    EXPECT_EQ(line["rule"], nullptr);
    EXPECT_EQ(json::dumpLine(line).find("sk-secret"), std::string::npos) << json::dumpLine(line);
}

TEST(FakeHttpExchange, KeysAreCheckedWhereverTheVendorPutsThem) {
    const std::optional<std::string> k = std::string("sk-1");
    EXPECT_EQ(keyCheck({{"authorization", "Bearer sk-1"}}, "", k), "ok");
    EXPECT_EQ(keyCheck({{"x-goog-api-key", "sk-1"}}, "", k), "ok");
    EXPECT_EQ(keyCheck({}, "a=b&key=sk-1", k), "ok");
    EXPECT_EQ(keyCheck({{"Authorization", "Bearer sk-2"}}, "", k), "mismatch");
    EXPECT_EQ(keyCheck({{"Content-Type", "x"}}, "keys=1", k), "missing");
    EXPECT_EQ(keyCheck({{"authorization", "Bearer sk-2"}}, "", std::nullopt), "present");
    EXPECT_EQ(queryWithoutKey("key=a&model=x&key=b&monkey=c"), "model=x&monkey=c");
}

TEST(FakeHttpExchange, RulesAnswerByPathMatchAndOrderFirstInFileWins) {
    const auto scenario = parseScenario(R"(
{"http": {"method": "post", "path": "/v1/responses", "match": "待处理的原句：\n今日は"}, "reply": {"json": {"output": []}}}
{"http": {"path": "/v1/responses", "nth": [1, 2]}, "reply": {"status": 429, "headers": {"retry-after": 3}, "json": {"error": {"message": "slow down"}}}}
{"http": {"path": "/v1/responses"}, "reply": {"delay_ms": 250, "body": "{broken"}}
{"http": {"path": "/v1beta/models/*", "query": "alt=sse", "headers": {"Content-Type": "json"}}, "reply": {"drop": true}}
{"on": "connect", "send": {"type": "session.created"}}
)");
    ASSERT_TRUE(scenario) << scenario.error().message;
    ASSERT_EQ(scenario->httpRules.size(), 4u);
    EXPECT_EQ(scenario->socketRules.size(), 1u);
    const auto& rules = scenario->httpRules;

    // The match sees the JSON string decoded, line ends included.
    const auto translate = request("POST", "/v1/responses", R"({"input":"…\n\n待处理的原句：\n今日は"})");
    EXPECT_EQ(chooseRule(rules, translate, 1)->line, 2);
    const auto other = request("POST", "/v1/responses", R"({"input":"别的"})");
    EXPECT_EQ(chooseRule(rules, other, 2)->line, 3);
    EXPECT_EQ(chooseRule(rules, other, 3)->line, 4);
    EXPECT_EQ(chooseRule(rules, request("GET", "/v1/responses/x", ""), 1), nullptr);

    const HttpReply& limited = rules[1].reply;
    EXPECT_EQ(limited.status, 429);
    EXPECT_EQ(limited.headers, (HeaderPairs{{"Content-Type", "application/json"}, {"retry-after", "3"}}));
    const std::string wire = renderResponse(limited, false);
    EXPECT_EQ(wire.rfind("HTTP/1.1 429 Too Many Requests\r\n", 0), 0u);
    EXPECT_NE(wire.find("\r\nretry-after: 3\r\n"), std::string::npos);
    EXPECT_NE(wire.find("Content-Length: 33\r\n"), std::string::npos);
    EXPECT_EQ(rules[2].reply.delayMs, 250);
    EXPECT_EQ(rules[2].reply.body, "{broken");

    auto gemini = request("POST", "/v1beta/models/gemini-x:streamGenerateContent", "{}", {{"content-type", "application/json"}});
    gemini.query = "alt=sse";
    EXPECT_EQ(chooseRule(rules, gemini, 1)->reply.action, HttpReply::Action::drop);
    gemini.query = "";
    EXPECT_EQ(chooseRule(rules, gemini, 1), nullptr);
}

TEST(FakeHttpExchange, BodiesFromFilesAndBase64AndEveryBadRuleNamed) {
    const auto dir = std::filesystem::temp_directory_path() / ("osv-fake-http-" + Uuid::random().text());
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "clip.mp3", std::ios::binary) << std::string("ID3\0\x01", 5);
    const auto scenario = parseScenario(R"(
{"http": {"path": "/v1/audio/speech"}, "reply": {"file": "clip.mp3"}}
{"http": {"path": "/b"}, "reply": {"base64": "AAEC", "headers": {"Content-Type": "audio/wav"}}}
)",
                                        dir.string());
    ASSERT_TRUE(scenario) << scenario.error().message;
    EXPECT_EQ(scenario->httpRules[0].reply.body, std::string("ID3\0\x01", 5));
    EXPECT_EQ(scenario->httpRules[0].reply.headers, (HeaderPairs{{"Content-Type", "audio/mpeg"}}));
    EXPECT_EQ(scenario->httpRules[1].reply.body, std::string("\0\x01\x02", 3));
    EXPECT_EQ(scenario->httpRules[1].reply.headers, (HeaderPairs{{"Content-Type", "audio/wav"}}));
    std::filesystem::remove_all(dir);

    const auto bad = parseScenario(R"({"http": {"path": "/ok"}, "reply": {}}
{"http": {"path": "no-slash"}, "reply": {}}
{"http": {"path": "/x"}}
{"http": {"path": "/x", "nht": 1}, "reply": {}}
{"http": {"path": "/x"}, "reply": {"json": {}, "body": "x"}}
{"http": {"path": "/x"}, "reply": {"status": 700}}
{"http": {"path": "/x"}, "reply": {"file": "does-not-exist.mp3"}}
{"http": {"path": "/x", "nth": 0}, "reply": {}}
{"http": {"path": "/x"}, "reply": {"base64": "!!"}}
)");
    ASSERT_FALSE(bad);
    const std::string& m = bad.error().message;
    for (int line = 2; line <= 9; ++line) EXPECT_NE(m.find("line " + std::to_string(line) + ":"), std::string::npos) << m;
    EXPECT_EQ(m.find("line 1:"), std::string::npos) << m;
    EXPECT_NE(m.find("unknown key \"nht\" in \"http\""), std::string::npos) << m;
}

}  // namespace
}  // namespace osv::fake
