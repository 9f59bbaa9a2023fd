// The HTTP transport over QNetworkAccessManager against a minimal HTTP server on loopback.

#include <gtest/gtest.h>

#include <QTcpServer>
#include <QTcpSocket>

#include "LoopbackServers.h"
#include "platform/qt/QtHttpTransport.h"

namespace osv {
namespace {

using testing::settle;
using testing::waitFor;

// Reads whole requests (head and Content-Length body) and answers those whose path it
// knows; "/silent" gets no answer.
class MiniHttpServer {
public:
    MiniHttpServer() {
        server_.listen(QHostAddress::LocalHost);
        QObject::connect(&server_, &QTcpServer::newConnection, [this] {
            QTcpSocket* socket = server_.nextPendingConnection();
            auto buffer = std::make_shared<QByteArray>();
            QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket, buffer] {
                buffer->append(socket->readAll());
                const qsizetype headEnd = buffer->indexOf("\r\n\r\n");
                if (headEnd < 0) return;
                const QByteArray head = buffer->left(headEnd);
                qsizetype length = 0;
                for (const QByteArray& line : head.split('\n'))
                    if (line.toLower().startsWith("content-length:")) length = line.mid(15).trimmed().toLongLong();
                if (buffer->size() < headEnd + 4 + length) return;
                requests.push_back({head.toStdString(), buffer->mid(headEnd + 4, length).toStdString()});
                const QByteArray path = head.split(' ').value(1);
                buffer->clear();
                if (path == "/silent") return;
                const QByteArray body = path == "/fail" ? "broken" : "hello";
                socket->write((path == "/fail" ? "HTTP/1.1 500 Internal Server Error\r\n" : "HTTP/1.1 201 Created\r\n") +
                              QByteArray("X-Test: yes\r\nContent-Length: ") + QByteArray::number(body.size()) +
                              "\r\nConnection: close\r\n\r\n" + body);
                socket->disconnectFromHost();
            });
        });
    }
    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(server_.serverPort()) + path;
    }

    struct Request {
        std::string head, body;
    };
    std::vector<Request> requests;

private:
    QTcpServer server_;
};

struct Outcome {
    std::optional<Expected<HttpResponse>> result;
    HttpTransport::Completion done() {
        return [this](Expected<HttpResponse> r) { result = std::move(r); };
    }
};

TEST(QtHttpTransport, SendsMethodHeadersAndBodyAndReturnsStatusHeadersAndBody) {
    MiniHttpServer server;
    QtHttpTransport transport;
    HttpRequest request;
    request.method = "POST";
    request.url = server.url("/v1/responses");
    request.headers = {{"Authorization", "Bearer sk-fake"}, {"Content-Type", "application/json"}};
    request.body = R"({"input":"你好"})";
    Outcome ok;
    auto call = transport.send(request, ok.done());
    ASSERT_TRUE(waitFor([&] { return ok.result.has_value(); }));
    ASSERT_TRUE(ok.result->ok()) << ok.result->error().message;
    EXPECT_EQ((*ok.result)->status, 201);
    EXPECT_EQ((*ok.result)->header("x-TEST"), "yes");
    EXPECT_EQ((*ok.result)->body, "hello");
    ASSERT_EQ(server.requests.size(), 1u);
    EXPECT_EQ(server.requests[0].head.rfind("POST /v1/responses HTTP/1.1", 0), 0u) << server.requests[0].head;
    EXPECT_NE(server.requests[0].head.find("Authorization: Bearer sk-fake"), std::string::npos);
    EXPECT_EQ(server.requests[0].body, R"({"input":"你好"})");

    // A server error is a reply, not a failure.
    request.url = server.url("/fail");
    Outcome failed;
    auto second = transport.send(request, failed.done());
    ASSERT_TRUE(waitFor([&] { return failed.result.has_value(); }));
    ASSERT_TRUE(failed.result->ok());
    EXPECT_EQ((*failed.result)->status, 500);
    EXPECT_EQ((*failed.result)->body, "broken");
}

TEST(QtHttpTransport, SendsAMultipartForm) {
    MiniHttpServer server;
    QtHttpTransport transport;
    HttpRequest request;
    request.method = "POST";
    request.url = server.url("/v1/audio/transcriptions");
    request.form = std::vector<MultipartPart>{{"model", std::nullopt, "", "gpt-4o-mini-transcribe"},
                                              {"file", "chunk.wav", "audio/wav", std::string("RIFF\0\1\2", 7)}};
    Outcome outcome;
    auto call = transport.send(request, outcome.done());
    ASSERT_TRUE(waitFor([&] { return outcome.result.has_value(); }));
    ASSERT_EQ(server.requests.size(), 1u);
    const auto& [head, body] = server.requests[0];
    EXPECT_NE(head.find("multipart/form-data; boundary="), std::string::npos) << head;
    EXPECT_NE(body.find("Content-Disposition: form-data; name=\"model\"\r\n\r\ngpt-4o-mini-transcribe\r\n"),
              std::string::npos) << body;
    EXPECT_NE(body.find("Content-Disposition: form-data; name=\"file\"; filename=\"chunk.wav\""), std::string::npos);
    EXPECT_NE(body.find("Content-Type: audio/wav\r\n\r\n" + std::string("RIFF\0\1\2", 7)), std::string::npos);
}

TEST(QtHttpTransport, TimesOutFailsAndCancelsWithoutCallingBack) {
    MiniHttpServer server;
    QtHttpTransport transport;
    HttpRequest request;
    request.url = server.url("/silent");
    request.timeoutSeconds = 0.3;
    Outcome late;
    auto call = transport.send(request, late.done());
    ASSERT_TRUE(waitFor([&] { return late.result.has_value(); }, 5.0));
    ASSERT_FALSE(late.result->ok());
    EXPECT_EQ(late.result->error().code, "http_timeout");

    Outcome cancelled;
    request.timeoutSeconds = 0.2;
    auto cancelledCall = transport.send(request, cancelled.done());
    cancelledCall->cancel();
    Outcome dropped;
    transport.send(request, dropped.done()).reset();  // destroying a call cancels it
    settle(0.5);
    EXPECT_FALSE(cancelled.result.has_value());
    EXPECT_FALSE(dropped.result.has_value());

    QTcpServer vacant;
    ASSERT_TRUE(vacant.listen(QHostAddress::LocalHost));
    request.url = "http://127.0.0.1:" + std::to_string(vacant.serverPort()) + "/";
    vacant.close();
    Outcome refused;
    auto refusedCall = transport.send(request, refused.done());
    ASSERT_TRUE(waitFor([&] { return refused.result.has_value(); }));
    EXPECT_EQ(refused.result->error().code, "http_failed");
}

}  // namespace
}  // namespace osv
