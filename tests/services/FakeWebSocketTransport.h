#pragma once

// An in-memory WebSocket transport: the test plays the server by calling the handlers of
// the connection the client made, and reads what the client sent. The transport keeps
// every connection's record after the client has let go of it.

#include <memory>
#include <string>
#include <vector>

#include "services/WebSocketTransport.h"

namespace osv::testing {

class FakeWebSocketConnection {
public:
    explicit FakeWebSocketConnection(WebSocketConnection::Handlers h) : handlers(std::move(h)) {}

    Expected<void> sendText(std::string_view text) {
        if (failSends) return Error{"websocket_send_failed", "send failed"};
        if (!open || closeCode) return Error{"websocket_not_open", "not open"};
        sent.emplace_back(text);
        return {};
    }
    void close(int code, std::string_view reason) {
        closeCode = code;
        closeReason = std::string(reason);
        if (endsInsideClose) end(WebSocketEnd::Reason::closedByUs, "Closed");
    }

    // The server's side. Nothing reaches a client that has let go of the connection.
    void accept() {
        open = true;
        if (handlers.onOpen) handlers.onOpen();
    }
    void text(const std::string& payload) {
        if (handlers.onFrame) handlers.onFrame({WebSocketFrame::Kind::text, payload});
    }
    void binary(const std::string& payload) {
        if (handlers.onFrame) handlers.onFrame({WebSocketFrame::Kind::binary, payload});
    }
    void end(WebSocketEnd::Reason reason, std::string description, bool wasOpen = true) {
        WebSocketEnd e;
        e.reason = reason;
        e.wasOpen = wasOpen;
        e.description = std::move(description);
        open = false;
        auto onEnd = std::move(handlers.onEnd);
        handlers = {};
        if (onEnd) onEnd(e);
    }

    WebSocketConnection::Handlers handlers;
    std::vector<std::string> sent;
    bool open = false;
    bool failSends = false;
    bool endsInsideClose = false;  // as a socket that closes at once does
    bool destroyed = false;        // the client let go of it
    std::optional<int> closeCode;
    std::string closeReason;
};

class FakeWebSocketTransport final : public WebSocketTransport {
public:
    std::unique_ptr<WebSocketConnection> connect(const WebSocketRequest& request,
                                                 WebSocketConnection::Handlers handlers) override {
        requests.push_back(request);
        connections.push_back(std::make_unique<FakeWebSocketConnection>(std::move(handlers)));
        return std::make_unique<Handle>(*connections.back());
    }
    FakeWebSocketConnection& last() const { return *connections.back(); }
    bool isDestroyed(std::size_t i) const { return connections.at(i)->destroyed; }

    std::vector<WebSocketRequest> requests;
    std::vector<std::unique_ptr<FakeWebSocketConnection>> connections;

private:
    // What the client holds.
    class Handle final : public WebSocketConnection {
    public:
        explicit Handle(FakeWebSocketConnection& c) : c_(c) {}
        ~Handle() override {
            c_.destroyed = true;
            c_.handlers = {};
        }
        Expected<void> sendText(std::string_view text) override { return c_.sendText(text); }
        Expected<void> sendBinary(std::string_view bytes) override { return c_.sendText(bytes); }
        void close(int code, std::string_view reason) override { c_.close(code, reason); }

    private:
        FakeWebSocketConnection& c_;
    };
};

}  // namespace osv::testing
