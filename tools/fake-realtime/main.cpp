// fake-realtime: a loopback stand-in for the realtime WebSocket endpoints. It plays a
// scenario file to every client that connects and writes everything it receives to a
// JSON Lines file. See README.md in this folder.

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QNetworkRequest>
#include <QPointer>
#include <QTimer>
#include <QUrl>
#include <QWebSocket>
#include <QWebSocketServer>

#include <algorithm>
#include <cstdio>
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
    "  --record FILE    append every received message, connection and close as JSON lines\n"
    "  --expect-key K   record whether the Authorization header is \"Bearer K\" (never the key)\n"
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
    std::vector<Rule> rules;
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
        connect["path"] = request.url().path().toStdString();
        connect["query"] = request.url().query(QUrl::FullyDecoded).toStdString();
        Json headers = Json::object();
        std::string authorization = "missing";
        for (const QByteArray& name : request.rawHeaderList()) {
            const std::string value = request.rawHeader(name).toStdString();
            if (name.compare("authorization", Qt::CaseInsensitive) == 0) {
                // Never written down: only whether it is what the test gave.
                authorization = !options_.expectedKey ? "present"
                                : value == "Bearer " + *options_.expectedKey ? "ok"
                                                                             : "mismatch";
            } else if (name.compare("openai-safety-identifier", Qt::CaseInsensitive) == 0) {
                headers[name.toStdString()] = value;
            }
        }
        connect["authorization"] = authorization;
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
        std::string type;
        if (message && message->is_object()) {
            line["message"] = *message;
            type = json::read<std::string>(*message, "type", "");
        } else {
            line["raw"] = payload;
        }
        recorder_.write(line);
        if (type == "session.input_audio_buffer.append" && speaker_ == 0) speaker_ = ++speakersSoFar;
        if (!type.empty()) trigger(type, ++counts_[type]);
    }

    void trigger(const std::string& on, int count) {
        for (const Rule& rule : options_.rules) {
            if (rule.on != on || !rule.firesAt(count)) continue;
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
    int speaker_ = 0;
    inline static int speakersSoFar = 0;
    inline static int connectionsSoFar = 0;
    const int connection_ = ++connectionsSoFar;
    bool stalled_ = false;
    bool ended_ = false;
    bool dropped_ = false;
    bool closedByServer_ = false;
};

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
    auto rules = parseScenario(text.str());
    if (!rules) {
        std::cerr << "fake-realtime: " << scenarioPath << ":\n" << rules.error().message;
        return 2;
    }
    options.rules = std::move(*rules);
    Recorder recorder(recordPath);
    if (!recordPath.empty() && recorder.failed()) {
        std::cerr << "fake-realtime: cannot write " << recordPath << "\n";
        return 2;
    }

    QWebSocketServer server("fake-realtime", QWebSocketServer::NonSecureMode);
    if (!server.listen(QHostAddress::LocalHost, quint16(port))) {
        std::cerr << "fake-realtime: cannot listen: " << server.errorString().toStdString() << "\n";
        return 1;
    }
    std::cout << server.serverPort() << std::endl;

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
