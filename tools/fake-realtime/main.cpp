// fake-realtime: a loopback stand-in for the vendors' endpoints. One port serves both the
// WebSocket endpoints (a scenario played to every client that connects) and plain HTTP
// (requests answered by the scenario's "http" rules); everything received is written to a
// JSON Lines file. See README.md in this folder.

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QNetworkRequest>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QUrl>
#include <QWebSocket>
#include <QWebSocketServer>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>

#include "Scenario.h"
#include "core/Json.h"

namespace osv::fake {
namespace {

using json::Json;

constexpr const char* kUsage =
    "usage: fake-realtime --scenario FILE.jsonl [--port N] [--record FILE.jsonl] [--expect-key KEY] [--once]\n"
    "  --port N         listen on 127.0.0.1:N (0, the default: any free port); the port is the\n"
    "                   first line on standard output\n"
    "  --record FILE    append every received message, connection, close and HTTP request as\n"
    "                   JSON lines\n"
    "  --expect-key K   record whether the request carried the key K (never the key itself)\n"
    "  --once           exit once the first client has gone\n";

class Recorder {
public:
    explicit Recorder(const std::string& path) {
        if (!path.empty()) file_.open(path, std::ios::app);
    }
    bool failed() const { return !file_.good(); }
    void write(const Json& line) {
        if (file_.is_open()) file_ << json::dumpLine(line) << "\n" << std::flush;
    }

private:
    std::ofstream file_;
};

struct Options {
    Scenario scenario;
    std::optional<std::string> expectedKey;
};

// One client's run of the scenario.
class Session {
public:
    Session(QWebSocket* socket, const Options& options, Recorder& recorder, std::function<void()> onGone)
        : socket_(socket), options_(options), recorder_(recorder), onGone_(std::move(onGone)) {
        clock_.start();
        QObject::connect(socket_, &QWebSocket::textMessageReceived, socket_,
                         [this](const QString& m) { received(m.toStdString(), "text"); });
        QObject::connect(socket_, &QWebSocket::binaryMessageReceived, socket_,
                         [this](const QByteArray& m) { received(m.toStdString(), "binary"); });
        QObject::connect(socket_, &QWebSocket::disconnected, socket_, [this] { gone(); });

        const QNetworkRequest request = socket_->request();
        Json connect = Json::object();
        connect["event"] = "connect";
        connect["connection"] = connection_;
        connect["ms"] = 0;
        path_ = request.url().path().toStdString();
        connect["path"] = path_;
        connect["query"] = queryWithoutKey(request.url().query(QUrl::FullyEncoded).toStdString());
        Json headers = Json::object();
        HeaderPairs all;
        for (const QByteArray& name : request.rawHeaderList()) {
            const std::string value = request.rawHeader(name).toStdString();
            all.emplace_back(name.toStdString(), value);
            if (name.compare("openai-safety-identifier", Qt::CaseInsensitive) == 0) headers[name.toStdString()] = value;
        }
        // The key is never written down: only whether it is what the test gave.
        connect["authorization"] = keyCheck(all, request.url().query(QUrl::FullyEncoded).toStdString(), options_.expectedKey);
        connect["headers"] = headers;
        recorder_.write(connect);
        trigger("connect", 0);
    }

private:
    void received(const std::string& payload, const char* kind) {
        Json line = Json::object();
        line["event"] = "message";
        line["connection"] = connection_;
        line["ms"] = clock_.elapsed();
        line["kind"] = kind;
        const auto message = json::parse(payload);
        std::vector<std::string> triggers;
        if (message && message->is_object()) {
            line["message"] = *message;
            triggers = triggersOf(*message);
        } else {
            line["raw"] = payload;
        }
        recorder_.write(line);
        if (std::find(triggers.begin(), triggers.end(), "session.input_audio_buffer.append") != triggers.end() &&
            speaker_ == 0)
            speaker_ = ++speakersSoFar;
        for (const auto& name : triggers) trigger(name, ++counts_[name]);
    }

    void trigger(const std::string& on, int count) {
        for (const Rule& rule : options_.scenario.socketRules) {
            if (rule.on != on || !rule.firesAt(count) || !rule.appliesTo(path_)) continue;
            if (rule.speaker && *rule.speaker != speaker_) continue;
            if (!rule.connections.empty() &&
                std::find(rule.connections.begin(), rule.connections.end(), connection_) == rule.connections.end())
                continue;
            if (rule.afterMs == 0) {
                run(rule);
            } else {
                QTimer::singleShot(rule.afterMs, socket_, [this, &rule] { run(rule); });
            }
        }
    }

    void run(const Rule& rule) {
        if (stalled_ || ended_ || socket_->state() != QAbstractSocket::ConnectedState) return;
        switch (rule.action) {
            case Rule::Action::send:
                for (const auto& frame : rule.frames) {
                    if (rule.binary) socket_->sendBinaryMessage(QByteArray::fromStdString(frame));
                    else socket_->sendTextMessage(QString::fromStdString(frame));
                }
                socket_->flush();
                break;
            case Rule::Action::close:
                closedByServer_ = true;
                socket_->close(static_cast<QWebSocketProtocol::CloseCode>(rule.closeCode),
                               QString::fromStdString(rule.closeReason));
                break;
            case Rule::Action::drop:
                dropped_ = true;
                socket_->abort();
                break;
            case Rule::Action::stall:
                stalled_ = true;
                break;
            case Rule::Action::expire: {
                // As the service does it: an announced lifetime, then an error and a going-away close.
                if (rule.announce) {
                    Json created = Json::object();
                    created["type"] = "session.created";
                    created["session"] = Json::object();
                    created["session"]["id"] = "sess_fake";
                    created["session"]["expires_at"] =
                        double(QDateTime::currentMSecsSinceEpoch()) / 1000.0 + rule.expiresAfterS;
                    socket_->sendTextMessage(QString::fromStdString(json::dumpLine(created)));
                }
                const int minutes = std::max(1, rule.expiresAfterS / 60);
                QTimer::singleShot(rule.expiresAfterS * 1000, socket_, [this, minutes] {
                    if (ended_ || socket_->state() != QAbstractSocket::ConnectedState) return;
                    Json error = Json::object();
                    error["type"] = "error";
                    error["error"] = Json::object();
                    error["error"]["type"] = "invalid_request_error";
                    error["error"]["code"] = "session_expired";
                    error["error"]["message"] =
                        "Your session hit the maximum duration of " + std::to_string(minutes) + " minutes.";
                    socket_->sendTextMessage(QString::fromStdString(json::dumpLine(error)));
                    closedByServer_ = true;
                    socket_->close(QWebSocketProtocol::CloseCodeGoingAway, "session expired");
                });
                break;
            }
        }
    }

    void gone() {
        if (ended_) return;
        ended_ = true;
        Json line = Json::object();
        line["event"] = "closed";
        line["connection"] = connection_;
        line["ms"] = clock_.elapsed();
        line["by"] = dropped_ ? "dropped" : closedByServer_ ? "server" : "client";
        line["code"] = int(socket_->closeCode());
        line["reason"] = socket_->closeReason().toStdString();
        recorder_.write(line);
        socket_->deleteLater();
        onGone_();
    }

    QWebSocket* socket_;
    const Options& options_;
    Recorder& recorder_;
    std::function<void()> onGone_;
    QElapsedTimer clock_;
    std::map<std::string, int> counts_;
    std::string path_;
    int speaker_ = 0;
    inline static int speakersSoFar = 0;
    inline static int connectionsSoFar = 0;
    const int connection_ = ++connectionsSoFar;
    bool stalled_ = false;
    bool ended_ = false;
    bool dropped_ = false;
    bool closedByServer_ = false;
};

// What all HTTP connections share: the numbering of requests and the count per path.
struct HttpState {
    const Options& options;
    Recorder& recorder;
    QElapsedTimer clock;
    int nextId = 0;
    std::map<std::string, int> countByPath;
};

// One plain HTTP connection: requests are read and answered one after another.
class HttpConnection : public QObject {
public:
    HttpConnection(QTcpSocket* socket, HttpState& state, std::string alreadyRead)
        : QObject(socket), socket_(socket), state_(state), buffer_(std::move(alreadyRead)) {
        QObject::connect(socket_, &QTcpSocket::readyRead, this, [this] {
            const QByteArray bytes = socket_->readAll();
            buffer_.append(bytes.constData(), std::size_t(bytes.size()));
            process();
        });
        QObject::connect(socket_, &QTcpSocket::disconnected, this, [this] { gone(); });
        process();
    }

private:
    void process() {
        while (!busy_ && !closing_) {
            const ReadResult r = readRequest(buffer_);
            if (r.state == ReadResult::State::bad) {
                HttpReply reply;
                reply.status = 400;
                reply.body = "fake-realtime: " + r.problem + "\n";
                write(renderResponse(reply, true));
                closing_ = true;
                socket_->disconnectFromHost();
                return;
            }
            if (r.state == ReadResult::State::incomplete) {
                if (r.headersComplete && r.expectsContinue && !continueSent_) {
                    continueSent_ = true;
                    write("HTTP/1.1 100 Continue\r\n\r\n");
                }
                return;
            }
            buffer_.erase(0, r.consumed);
            continueSent_ = false;
            handle(r.request);
        }
    }

    void handle(const HttpRequestData& request) {
        const int id = ++state_.nextId;
        const int count = ++state_.countByPath[request.method + " " + request.path];
        const HttpRule* rule = chooseRule(state_.options.scenario.httpRules, request, count);
        const HttpReply reply = rule ? rule->reply : unmatchedReply(request);
        state_.recorder.write(recordOf(request, id, state_.clock.elapsed(),
                                       keyCheck(request.headers, request.query, state_.options.expectedKey), rule, reply));

        busy_ = true;
        pendingId_ = id;
        if (reply.action == HttpReply::Action::stall) return;
        const bool close = request.wantsClose();
        auto answer = [this, reply, close] {
            if (!busy_) return;
            busy_ = false;
            if (reply.action == HttpReply::Action::drop) {
                closing_ = true;
                socket_->abort();
                return;
            }
            write(renderResponse(reply, close));
            if (close) {
                closing_ = true;
                socket_->disconnectFromHost();
            } else {
                process();
            }
        };
        if (reply.delayMs > 0) QTimer::singleShot(reply.delayMs, this, answer);
        else answer();
    }

    void write(const std::string& bytes) {
        socket_->write(bytes.data(), qint64(bytes.size()));
        socket_->flush();
    }

    void gone() {
        if (busy_) {
            // The client went away before its answer: a cancelled request.
            busy_ = false;
            Json line = Json::object();
            line["event"] = "http_cancelled";
            line["id"] = pendingId_;
            line["ms"] = state_.clock.elapsed();
            state_.recorder.write(line);
        }
        socket_->deleteLater();
    }

    QTcpSocket* socket_;
    HttpState& state_;
    std::string buffer_;
    bool busy_ = false;
    bool closing_ = false;
    bool continueSent_ = false;
    int pendingId_ = 0;
};

// Waits for a new connection's request head, then hands the socket to the WebSocket server
// (an Upgrade request) or to an HTTP connection. Only peeks, so the WebSocket server reads
// the handshake itself.
void route(QTcpSocket* socket, QWebSocketServer& webSockets, HttpState& http) {
    auto* context = new QObject(socket);
    auto decide = [socket, context, &webSockets, &http] {
        const QByteArray head = socket->peek(socket->bytesAvailable());
        const qsizetype end = head.indexOf("\r\n\r\n");
        if (end < 0) {
            if (head.size() > 256 * 1024) socket->abort();
            return;
        }
        QObject::disconnect(socket, nullptr, context, nullptr);
        context->deleteLater();
        if (isWebSocketUpgrade(std::string_view(head.constData(), std::size_t(end + 4)))) {
            webSockets.handleConnection(socket);
        } else {
            const QByteArray bytes = socket->readAll();
            new HttpConnection(socket, http, std::string(bytes.constData(), std::size_t(bytes.size())));
        }
    };
    QObject::connect(socket, &QTcpSocket::readyRead, context, decide);
    QObject::connect(socket, &QTcpSocket::disconnected, context, [socket] { socket->deleteLater(); });
    if (socket->bytesAvailable() > 0) QTimer::singleShot(0, context, decide);
}

int run(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    std::string scenarioPath, recordPath;
    int port = 0;
    bool once = false;
    Options options;
    const QStringList args = app.arguments();
    for (qsizetype i = 1; i < args.size(); ++i) {
        const QString a = args[i];
        auto value = [&]() -> std::optional<std::string> {
            if (i + 1 >= args.size()) return std::nullopt;
            return args[++i].toStdString();
        };
        if (a == "--once") {
            once = true;
        } else if (a == "--scenario" || a == "--record" || a == "--port" || a == "--expect-key") {
            const auto v = value();
            if (!v) {
                std::cerr << a.toStdString() << " takes a value\n" << kUsage;
                return 2;
            }
            if (a == "--scenario") scenarioPath = *v;
            else if (a == "--record") recordPath = *v;
            else if (a == "--expect-key") options.expectedKey = *v;
            else {
                bool ok = false;
                port = QString::fromStdString(*v).toInt(&ok);
                if (!ok || port < 0 || port > 65535) {
                    std::cerr << "--port takes 0 to 65535\n";
                    return 2;
                }
            }
        } else {
            std::cerr << "unexpected argument \"" << a.toStdString() << "\"\n" << kUsage;
            return 2;
        }
    }
    if (scenarioPath.empty()) {
        std::cerr << kUsage;
        return 2;
    }
    std::ifstream scenarioFile(scenarioPath);
    if (!scenarioFile) {
        std::cerr << "fake-realtime: cannot read " << scenarioPath << "\n";
        return 2;
    }
    std::stringstream text;
    text << scenarioFile.rdbuf();
    auto scenario = parseScenario(text.str(), std::filesystem::path(scenarioPath).parent_path().string());
    if (!scenario) {
        std::cerr << "fake-realtime: " << scenarioPath << ":\n" << scenario.error().message;
        return 2;
    }
    options.scenario = std::move(*scenario);
    Recorder recorder(recordPath);
    if (!recordPath.empty() && recorder.failed()) {
        std::cerr << "fake-realtime: cannot write " << recordPath << "\n";
        return 2;
    }

    // One port for both: the TCP server takes every connection, the WebSocket server only
    // handles the upgrades handed to it.
    QWebSocketServer server("fake-realtime", QWebSocketServer::NonSecureMode);
    QTcpServer tcp;
    if (!tcp.listen(QHostAddress::LocalHost, quint16(port))) {
        std::cerr << "fake-realtime: cannot listen: " << tcp.errorString().toStdString() << "\n";
        return 1;
    }
    HttpState http{options, recorder, {}, 0, {}};
    http.clock.start();
    QObject::connect(&tcp, &QTcpServer::newConnection, &tcp, [&] {
        while (QTcpSocket* socket = tcp.nextPendingConnection()) route(socket, server, http);
    });
    std::cout << tcp.serverPort() << std::endl;

    std::vector<std::unique_ptr<Session>> sessions;
    QObject::connect(&server, &QWebSocketServer::newConnection, &server, [&] {
        while (QWebSocket* socket = server.nextPendingConnection()) {
            sessions.push_back(std::make_unique<Session>(socket, options, recorder, [&app, once] {
                if (once) QTimer::singleShot(0, &app, &QCoreApplication::quit);
            }));
        }
    });
    return app.exec();
}

}  // namespace
}  // namespace osv::fake

int main(int argc, char** argv) { return osv::fake::run(argc, argv); }
