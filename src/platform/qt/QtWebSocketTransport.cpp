#include "platform/qt/QtWebSocketTransport.h"

#include <QMetaObject>
#include <QNetworkRequest>
#include <QTimer>
#include <QUrl>
#include <QWebSocket>

#include <cmath>

#include "core/EntryGuard.h"

namespace osv {
namespace {

// How long a socket we let go may take to finish its closing handshake.
constexpr int kLingerMilliseconds = 5000;

class QtWebSocketConnection final : public WebSocketConnection {
public:
    QtWebSocketConnection(const WebSocketRequest& request, Handlers handlers)
        : handlers_(std::move(handlers)), socket_(new QWebSocket()), context_(std::make_unique<QObject>()) {
        QObject* ctx = context_.get();
        QObject::connect(socket_, &QWebSocket::connected, ctx, [this] {
            opened_ = true;
            timeout_.stop();
            if (handlers_.onOpen) guardEntry("WebSocket open", handlers_.onOpen);
        });
        QObject::connect(socket_, &QWebSocket::textMessageReceived, ctx, [this](const QString& message) {
            if (handlers_.onFrame && !ended_)
                guardEntry("WebSocket frame", [&] { handlers_.onFrame({WebSocketFrame::Kind::text, message.toStdString()}); });
        });
        QObject::connect(socket_, &QWebSocket::binaryMessageReceived, ctx, [this](const QByteArray& message) {
            if (handlers_.onFrame && !ended_)
                guardEntry("WebSocket frame", [&] {
                    handlers_.onFrame(
                        {WebSocketFrame::Kind::binary, std::string(message.constData(), std::size_t(message.size()))});
                });
        });
        // Emitted whenever the socket closes. Before any error it is Qt answering the peer's
        // close frame; a lost connection reports its error first.
        QObject::connect(socket_, &QWebSocket::aboutToClose, ctx, [this] {
            if (opened_ && !closingByUs_ && errorText_.empty()) peerClosed_ = true;
        });
        QObject::connect(socket_, qOverload<QAbstractSocket::SocketError>(&QWebSocket::error), ctx, [this](QAbstractSocket::SocketError) {
            if (errorText_.empty()) errorText_ = socket_->errorString().toStdString();
            // A socket that never connected may not report a disconnection.
            if (socket_->state() == QAbstractSocket::UnconnectedState)
                QMetaObject::invokeMethod(context_.get(), [this] { finish(); }, Qt::QueuedConnection);
        });
        QObject::connect(socket_, &QWebSocket::disconnected, ctx, [this] { finish(); });

        timeout_.setSingleShot(true);
        QObject::connect(&timeout_, &QTimer::timeout, ctx, [this] {
            if (opened_ || ended_) return;
            errorText_ = "Connection timed out";
            socket_->abort();
            finish();
        });
        const double ms = std::isfinite(request.timeoutSeconds) ? request.timeoutSeconds * 1000.0 : 0.0;
        if (ms > 0) timeout_.start(int(std::min(ms, 2.0e9)));

        QNetworkRequest networkRequest{QUrl(QString::fromStdString(request.url))};
        for (const auto& [name, value] : request.headers)
            networkRequest.setRawHeader(QByteArray::fromStdString(name), QByteArray::fromStdString(value));
        socket_->open(networkRequest);
    }

    ~QtWebSocketConnection() override {
        // Handlers are detached with the context; the socket lingers to finish a close.
        context_.reset();
        timeout_.stop();
        QWebSocket* socket = socket_;
        if (socket->state() == QAbstractSocket::UnconnectedState) {
            socket->deleteLater();
            return;
        }
        QObject::connect(socket, &QWebSocket::disconnected, socket, &QObject::deleteLater);
        QTimer::singleShot(kLingerMilliseconds, socket, [socket] {
            socket->abort();
            socket->deleteLater();
        });
        if (!opened_) socket->abort();
        else if (!closingByUs_ && !peerClosed_) socket->close(QWebSocketProtocol::CloseCodeGoingAway);
    }

    Expected<void> sendText(std::string_view text) override {
        if (!isOpen()) return Error{"websocket_not_open", "WebSocket is not open"};
        socket_->sendTextMessage(QString::fromUtf8(text.data(), qsizetype(text.size())));
        return {};
    }

    Expected<void> sendBinary(std::string_view bytes) override {
        if (!isOpen()) return Error{"websocket_not_open", "WebSocket is not open"};
        socket_->sendBinaryMessage(QByteArray(bytes.data(), qsizetype(bytes.size())));
        return {};
    }

    void close(int code, std::string_view reason) override {
        if (ended_ || closingByUs_) return;
        closingByUs_ = true;
        if (!opened_) {
            socket_->abort();
            return;
        }
        socket_->close(static_cast<QWebSocketProtocol::CloseCode>(code),
                       QString::fromUtf8(reason.data(), qsizetype(reason.size())));
    }

private:
    bool isOpen() const {
        return opened_ && !ended_ && !closingByUs_ && socket_->state() == QAbstractSocket::ConnectedState;
    }

    void finish() {
        if (ended_) return;
        ended_ = true;
        timeout_.stop();
        // A refused connection may report its disconnection before its error.
        if (errorText_.empty() && socket_->error() != QAbstractSocket::UnknownSocketError)
            errorText_ = socket_->errorString().toStdString();
        WebSocketEnd end;
        end.wasOpen = opened_;
        if (peerClosed_) {
            end.reason = WebSocketEnd::Reason::closedByPeer;
            end.closeCode = int(socket_->closeCode());
            end.closeReason = socket_->closeReason().toStdString();
            end.description = "The server closed the connection (code " + std::to_string(*end.closeCode) +
                              (end.closeReason.empty() ? "" : ": " + end.closeReason) + ")";
        } else if (closingByUs_) {
            end.reason = WebSocketEnd::Reason::closedByUs;
            end.description = "Closed";
        } else {
            end.reason = WebSocketEnd::Reason::failed;
            end.description = errorText_.empty() ? "The remote host closed the connection" : errorText_;
        }
        // The handler may destroy this connection: nothing of it is touched afterwards.
        auto onEnd = std::move(handlers_.onEnd);
        handlers_ = {};
        if (onEnd) guardEntry("WebSocket end", [&] { onEnd(end); });
    }

    Handlers handlers_;
    QWebSocket* socket_;
    QTimer timeout_;
    std::unique_ptr<QObject> context_;
    bool opened_ = false;
    bool ended_ = false;
    bool closingByUs_ = false;
    bool peerClosed_ = false;
    std::string errorText_;
};

}  // namespace

std::unique_ptr<WebSocketConnection> QtWebSocketTransport::connect(const WebSocketRequest& request,
                                                                   WebSocketConnection::Handlers handlers) {
    return std::make_unique<QtWebSocketConnection>(request, std::move(handlers));
}

}  // namespace osv
