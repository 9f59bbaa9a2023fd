#pragma once

// An in-memory WebSocket transport: the test plays the server by calling the handlers of
// the connection the client made, and reads what the client sent.

#include <memory>
#include <string>
#include <vector>

#include "services/WebSocketTransport.h"

namespace osv::testing {

class FakeWebSocketConnection final : public WebSocketConnection {
public:
    explicit FakeWebSocketConnection(Handlers h) : handlers(std::move(h)) {}
    ~FakeWebSocketConnection() override { *destroyed = true; }

    Expected<void> sendText(std::string_view text) override {
        if (failSends) return Error{"websocket_send_failed", "send failed"};
        if (!open || closeCode) return Error{"websocket_not_open", "not open"};
        sent.emplace_back(text);
        return {};
    }
    Expected<void> sendBinary(std::string_view bytes) override { return sendText(bytes); }
    void close(int code, std::string_view reason) override {
        closeCode = code;
        closeReason = std::string(reason);
        if (endsInsideClose) end(WebSocketEnd::Reason::closedByUs, "Closed");
    }

    // The server's side.
    void accept() {
        open = true;
        if (handlers.onOpen) handlers.onOpen();
    }
    void text(const std::string& payload) { handlers.onFrame({WebSocketFrame::Kind::text, payload}); }
    void binary(const std::string& payload) { handlers.onFrame({WebSocketFrame::Kind::binary, payload}); }
    void end(WebSocketEnd::Reason reason, std::string description, bool wasOpen = true) {
        WebSocketEnd e;
        e.reason = reason;
        e.wasOpen = wasOpen;
        e.description = std::move(description);
        open = false;
        if (handlers.onEnd) handlers.onEnd(e);
    }

    Handlers handlers;
    std::vector<std::string> sent;
    bool open = false;
    bool failSends = false;
    bool endsInsideClose = false;  // as a socket that closes at once does
    std::optional<int> closeCode;
    std::string closeReason;
    std::shared_ptr<bool> destroyed = std::make_shared<bool>(false);
};

class FakeWebSocketTransport final : public WebSocketTransport {
public:
    std::unique_ptr<WebSocketConnection> connect(const WebSocketRequest& request,
                                                 WebSocketConnection::Handlers handlers) override {
        requests.push_back(request);
        auto c = std::make_unique<FakeWebSocketConnection>(std::move(handlers));
        connections.push_back(c.get());
        destroyedFlags.push_back(c->destroyed);
        return c;
    }
    FakeWebSocketConnection& last() const { return *connections.back(); }
    bool isDestroyed(std::size_t i) const { return *destroyedFlags.at(i); }

    std::vector<WebSocketRequest> requests;
    std::vector<FakeWebSocketConnection*> connections;  // valid while not destroyed
    std::vector<std::shared_ptr<bool>> destroyedFlags;
};

}  // namespace osv::testing
