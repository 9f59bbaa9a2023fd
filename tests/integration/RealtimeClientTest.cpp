// The realtime translation client over the Qt adapters, against the fake realtime server
// over a loopback socket.

#include <gtest/gtest.h>

#include <QTcpServer>
#include <QTcpSocket>

#include "LoopbackServers.h"
#include "core/Base64.h"
#include "platform/qt/QtScheduler.h"
#include "platform/qt/QtWebSocketTransport.h"
#include "services/OpenAIRealtimeTranslationClient.h"
#include "settings/TranslatorSettings.h"

namespace osv {
namespace {

using json::Json;
using Event = RealtimeTranslationEvent;
using testing::FakeRealtimeServer;
using testing::settle;
using testing::waitFor;

struct Session {
    QtScheduler scheduler;
    QtWebSocketTransport transport;
    OpenAIRealtimeTranslationClient client;
    std::vector<Event> events;
    std::vector<OpenAIDebugLog> logs;
    std::optional<Expected<void>> started;

    explicit Session(const std::string& base) : client(transport, scheduler, base) {}

    void start(const std::string& key = "sk-fake") {
        TranslatorSettings settings;
        settings.apiKey = key;
        client.start(
            settings, "zh", true, [this](const Event& e) { events.push_back(e); },
            [this](const OpenAIDebugLog& l) { logs.push_back(l); },
            [this](Expected<void> r) { started = std::move(r); });
    }
    bool startAndWait() {
        start();
        return waitFor([&] { return started.has_value(); }) && started->ok();
    }
    bool has(const Event& e) const { return std::find(events.begin(), events.end(), e) != events.end(); }
    bool hasKind(Event::Kind kind) const {
        return std::any_of(events.begin(), events.end(), [&](const Event& e) { return e.kind == kind; });
    }
};

std::vector<Json> messages(const std::vector<Json>& record) {
    std::vector<Json> out;
    for (const auto& line : record)
        if (line.value("event", "") == "message") out.push_back(line.value("message", Json()));
    return out;
}

TEST(RealtimeClientOverLoopback, ConfigurationAudioAndFramesOfBothKindsCrossTheRealSocket) {
    FakeRealtimeServer server(R"(
{"on": "connect", "send": {"type": "session.created"}}
{"on": "append", "nth": 1, "send": {"type": "session.input_transcript.delta", "delta": "こんにちは"}}
{"on": "append", "nth": 2, "binary": true, "send": {"type": "session.output_transcript.delta", "delta": "你好"}}
{"on": "append", "nth": 3, "binary": true, "raw": "not json"}
)");
    ASSERT_GT(server.port(), 0);
    Session s(server.base());
    ASSERT_TRUE(s.startAndWait());

    std::vector<std::vector<std::uint8_t>> chunks;
    for (int c = 0; c < 3; ++c) {
        std::vector<std::uint8_t> chunk(1920);
        for (std::size_t i = 0; i < chunk.size(); ++i) chunk[i] = std::uint8_t((i * 7 + std::size_t(c) * 13) & 0xff);
        ASSERT_TRUE(s.client.sendAudio(chunk).ok());
        chunks.push_back(std::move(chunk));
    }
    ASSERT_TRUE(waitFor([&] { return s.has(Event::outputTranscriptDelta("你好")) && !s.logs.empty() &&
                                      s.logs.back().code == std::optional<std::string>("realtime_unknown_event"); }));
    EXPECT_EQ(s.events, (std::vector<Event>{Event::connected(), Event::inputTranscriptDelta("こんにちは"),
                                            Event::outputTranscriptDelta("你好")}));
    EXPECT_EQ(s.logs.back().details, "type: <undecodable>\nnot json");

    bool closed = false;
    s.client.close([&] { closed = true; });
    EXPECT_TRUE(waitFor([&] { return closed; }));
    ASSERT_TRUE(waitFor([&] { return server.hasClosedLine(); }));

    auto record = server.record();
    ASSERT_GE(record.size(), 2u);
    EXPECT_EQ(record.front()["path"], "/v1/realtime/translations");
    EXPECT_EQ(record.front()["query"], "model=gpt-realtime-translate");
    EXPECT_EQ(record.front()["authorization"], "ok");
    EXPECT_EQ(record.front()["headers"]["OpenAI-Safety-Identifier"], "ossevra");
    const auto sent = messages(record);
    ASSERT_EQ(sent.size(), 5u);
    EXPECT_EQ(sent[0], *json::parse(R"({"type":"session.update","session":{"audio":{"output":{"language":"zh"}}}})"));
    EXPECT_EQ(sent[1], *json::parse(
                           R"({"type":"session.update","session":{"audio":{"input":{"transcription":{"model":"gpt-transcribe"}}}}})"));
    for (std::size_t c = 0; c < 3; ++c) {
        EXPECT_EQ(sent[2 + c]["type"], "session.input_audio_buffer.append");
        EXPECT_EQ(base64Decode(sent[2 + c]["audio"].get<std::string>()), chunks[c]) << c;
    }
    for (const auto& line : record)
        if (line["event"] == "message") {
            EXPECT_EQ(line["kind"], "text");
        }
    EXPECT_EQ(record.back()["event"], "closed");
    EXPECT_EQ(record.back()["by"], "client");
    EXPECT_EQ(record.back()["code"], 1001);
    EXPECT_EQ(record.back()["reason"], "");
    EXPECT_FALSE(s.hasKind(Event::Kind::failed));
}

TEST(RealtimeClientOverLoopback, TheServersCloseDeliversClosedAndNoFailure) {
    FakeRealtimeServer server(R"(
{"on": "append", "nth": 1, "send": {"type": "session.closed"}}
{"on": "append", "nth": 1, "after_ms": 30, "close": {"code": 1000, "reason": "bye"}}
)");
    Session s(server.base());
    ASSERT_TRUE(s.startAndWait());
    ASSERT_TRUE(s.client.sendAudio(std::vector<std::uint8_t>(1920, 1)).ok());
    ASSERT_TRUE(waitFor([&] { return s.hasKind(Event::Kind::closed) && server.hasClosedLine(); }));
    settle(0.2);
    EXPECT_EQ(s.events, (std::vector<Event>{Event::connected(), Event::closed()}));
    EXPECT_FALSE(s.client.hasSocket());
    EXPECT_EQ(s.logs.back().title, "Realtime 同传已关闭");
}

TEST(RealtimeClientOverLoopback, AServerCloseFrameWithoutSessionClosedIsALostSocket) {
    FakeRealtimeServer server(R"({"on": "append", "nth": 1, "close": {"code": 1011, "reason": "overloaded"}})");
    Session s(server.base());
    ASSERT_TRUE(s.startAndWait());
    ASSERT_TRUE(s.client.sendAudio(std::vector<std::uint8_t>(1920, 1)).ok());
    ASSERT_TRUE(waitFor([&] { return s.hasKind(Event::Kind::failed); }));
    EXPECT_EQ(s.events.back().code, "realtime_receive_failed");
    EXPECT_NE(s.events.back().text.find("1011"), std::string::npos) << s.events.back().text;
    EXPECT_NE(s.events.back().text.find("overloaded"), std::string::npos) << s.events.back().text;
}

TEST(RealtimeClientOverLoopback, ADroppedConnectionDeliversFailedWithReceiveFailed) {
    FakeRealtimeServer server(R"(
{"on": "append", "nth": 1, "send": {"type": "session.output_transcript.delta", "delta": "先到"}}
{"on": "append", "nth": 2, "drop": true}
)");
    Session s(server.base());
    ASSERT_TRUE(s.startAndWait());
    ASSERT_TRUE(s.client.sendAudio(std::vector<std::uint8_t>(1920, 1)).ok());
    ASSERT_TRUE(waitFor([&] { return s.events.size() == 2; }));
    ASSERT_TRUE(s.client.sendAudio(std::vector<std::uint8_t>(1920, 2)).ok());
    ASSERT_TRUE(waitFor([&] { return s.hasKind(Event::Kind::failed); }));
    const Event& failed = s.events.back();
    EXPECT_EQ(failed.kind, Event::Kind::failed);
    EXPECT_EQ(failed.code, "realtime_receive_failed");
    EXPECT_EQ(failed.text, "The remote host closed the connection");
    EXPECT_EQ(s.logs.back().title, "Realtime 接收失败");
    EXPECT_EQ(s.logs.back().details, failed.text + "\n本次会话事件统计：\nsession.output_transcript.delta ×1");
    EXPECT_FALSE(s.client.hasSocket());
    EXPECT_TRUE(s.client.sendAudio(std::vector<std::uint8_t>(1920, 3)).ok());  // dropped quietly
}

TEST(RealtimeClientOverLoopback, ClosingDuringAPendingReceiveReportsNothing) {
    FakeRealtimeServer server(R"({"on": "connect", "stall": true})");
    Session s(server.base());
    ASSERT_TRUE(s.startAndWait());
    s.client.markClosing();
    ASSERT_TRUE(s.client.sendJSON(Json::object({{"type", "session.close"}})).ok());
    s.client.close();
    ASSERT_TRUE(waitFor([&] { return server.hasClosedLine(); }));
    settle(0.3);
    EXPECT_EQ(s.events, (std::vector<Event>{Event::connected()}));
    for (const auto& l : s.logs) EXPECT_NE(l.level, DebugEvent::Level::error) << l.title;
    auto record = server.record();
    EXPECT_EQ(messages(record).back(), *json::parse(R"({"type":"session.close"})"));
    EXPECT_EQ(record.back()["code"], 1001);
}

TEST(RealtimeClientOverLoopback, ARefusedConnectionFailsTheStartWithoutConnected) {
    QTcpServer probe;
    ASSERT_TRUE(probe.listen(QHostAddress::LocalHost));
    const int port = probe.serverPort();
    probe.close();  // nothing listens there now
    Session s("http://127.0.0.1:" + std::to_string(port) + "/v1");
    s.start();
    ASSERT_TRUE(waitFor([&] { return s.started.has_value(); }));
    EXPECT_FALSE(s.started->ok());
    EXPECT_EQ(s.started->error().code, "realtime_connect_failed");
    EXPECT_FALSE(s.started->error().message.empty());
    EXPECT_FALSE(s.hasKind(Event::Kind::connected));
    EXPECT_FALSE(s.hasKind(Event::Kind::failed));
}

TEST(QtWebSocketTransport, AHandshakeThatNeverAnswersTimesOut) {
    QTcpServer silent;  // accepts, then says nothing
    ASSERT_TRUE(silent.listen(QHostAddress::LocalHost));
    std::vector<QTcpSocket*> accepted;
    QObject::connect(&silent, &QTcpServer::newConnection, [&] { accepted.push_back(silent.nextPendingConnection()); });
    QtWebSocketTransport transport;
    std::optional<WebSocketEnd> end;
    bool opened = false;
    WebSocketRequest request;
    request.url = "ws://127.0.0.1:" + std::to_string(silent.serverPort()) + "/v1/realtime/translations";
    request.timeoutSeconds = 0.3;
    auto connection = transport.connect(request, {[&] { opened = true; }, [](WebSocketFrame) {},
                                                  [&](const WebSocketEnd& e) { end = e; }});
    ASSERT_TRUE(waitFor([&] { return end.has_value(); }, 5.0));
    EXPECT_FALSE(opened);
    EXPECT_EQ(end->reason, WebSocketEnd::Reason::failed);
    EXPECT_FALSE(end->wasOpen);
    EXPECT_EQ(end->description, "Connection timed out");
    EXPECT_FALSE(connection->sendText("x").ok());
}

}  // namespace
}  // namespace osv
