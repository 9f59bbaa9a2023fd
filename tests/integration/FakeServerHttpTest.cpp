// The fake server's plain HTTP side, reached through the Qt HTTP transport on the same port
// as its WebSocket endpoints.

#include <gtest/gtest.h>

#include "LoopbackServers.h"
#include "platform/qt/QtHttpTransport.h"
#include "platform/qt/QtWebSocketTransport.h"

namespace osv {
namespace {

using json::Json;
using testing::FakeRealtimeServer;
using testing::settle;
using testing::waitFor;

struct Outcome {
    std::optional<Expected<HttpResponse>> result;
    HttpTransport::Completion done() {
        return [this](Expected<HttpResponse> r) { result = std::move(r); };
    }
};

std::vector<Json> lines(const FakeRealtimeServer& server, const std::string& event) {
    std::vector<Json> out;
    for (auto& l : server.record())
        if (l.value("event", "") == event) out.push_back(l);
    return out;
}

TEST(FakeServerHttp, AnswersByRuleRecordsEveryRequestAndServesWebSocketsOnTheSamePort) {
    FakeRealtimeServer server(R"(
{"on": "connect", "send": {"type": "session.created"}}
{"http": {"method": "POST", "path": "/v1/responses", "nth": 1}, "reply": {"status": 429, "headers": {"retry-after": "2"}, "json": {"error": {"message": "Rate limit reached", "type": "rate_limit"}}}}
{"http": {"method": "POST", "path": "/v1/responses", "match": "你好"}, "reply": {"json": {"output": [{"content": [{"text": "こんにちは"}]}]}}}
{"http": {"path": "/v1/audio/transcriptions"}, "reply": {"json": {"text": "听到了"}}}
{"http": {"path": "/v1/slow"}, "reply": {"delay_ms": 5000, "body": "late"}}
)");
    ASSERT_GT(server.port(), 0);
    QtHttpTransport transport;
    HttpRequest request;
    request.method = "POST";
    request.url = server.base() + "/responses";
    request.headers = {{"Authorization", "Bearer sk-fake"}, {"Content-Type", "application/json"}};
    request.body = R"({"input":"你好"})";

    Outcome limited, answered;
    auto first = transport.send(request, limited.done());
    ASSERT_TRUE(waitFor([&] { return limited.result.has_value(); }));
    ASSERT_TRUE(limited.result->ok()) << limited.result->error().message;
    EXPECT_EQ((*limited.result)->status, 429);
    EXPECT_EQ((*limited.result)->header("Retry-After"), "2");
    auto second = transport.send(request, answered.done());
    ASSERT_TRUE(waitFor([&] { return answered.result.has_value(); }));
    EXPECT_EQ((*answered.result)->status, 200);
    EXPECT_EQ(json::parse((*answered.result)->body)->at("output")[0]["content"][0]["text"], "こんにちは");

    HttpRequest form;
    form.method = "POST";
    form.url = server.base() + "/audio/transcriptions";
    form.headers = {{"Authorization", "Bearer sk-wrong"}};
    form.form = std::vector<MultipartPart>{{"model", std::nullopt, "", "gpt-4o-mini-transcribe"},
                                           {"file", "chunk.wav", "audio/wav", std::string("RIFF\0\1\2", 7)}};
    Outcome transcribed;
    auto third = transport.send(form, transcribed.done());
    ASSERT_TRUE(waitFor([&] { return transcribed.result.has_value(); }));
    EXPECT_EQ((*transcribed.result)->body, R"({"text":"听到了"})");

    // A request the client gives up on is recorded as cancelled.
    HttpRequest slow;
    slow.url = server.base() + "/slow";
    Outcome never;
    auto fourth = transport.send(slow, never.done());
    ASSERT_TRUE(waitFor([&] { return lines(server, "http").size() == 4; }));
    fourth->cancel();
    ASSERT_TRUE(waitFor([&] { return lines(server, "http_cancelled").size() == 1; }));

    QtWebSocketTransport sockets;
    std::vector<std::string> frames;
    std::string wsURL = server.base() + "/realtime";
    wsURL.replace(0, 4, "ws");
    auto connection = sockets.connect({wsURL, {}, 10.0},
                                      WebSocketConnection::Handlers{
                                          [] {}, [&](WebSocketFrame f) { frames.push_back(f.payload); },
                                          [](const WebSocketEnd&) {}});
    ASSERT_TRUE(waitFor([&] { return !frames.empty(); }));
    EXPECT_EQ(*json::parse(frames[0]), Json::parse(R"({"type":"session.created"})"));

    const auto http = lines(server, "http");
    ASSERT_EQ(http.size(), 4u);
    EXPECT_EQ(http[0]["path"], "/v1/responses");
    EXPECT_EQ(http[0]["authorization"], "ok");
    EXPECT_EQ(http[0]["json"], Json::parse(R"({"input":"你好"})"));
    EXPECT_EQ(http[0]["status"], 429);
    EXPECT_EQ(http[1]["status"], 200);
    EXPECT_EQ(http[2]["authorization"], "mismatch");
    EXPECT_EQ(http[2]["multipart"], Json::parse(R"([{"name":"model","size":22,"value":"gpt-4o-mini-transcribe"},
        {"name":"file","filename":"chunk.wav","content_type":"audio/wav","size":7}])"));
    EXPECT_EQ(lines(server, "http_cancelled")[0]["id"], http[3]["id"]);
    for (const auto& l : http) EXPECT_FALSE(l["headers"].contains("authorization"));
    EXPECT_EQ(lines(server, "connect").size(), 1u);
}

}  // namespace
}  // namespace osv
