#pragma once

// The WebSocket port of the wire clients: a client asks the transport for a connection
// and learns through three handlers what the socket did. Adapters implement it over a
// platform socket; tests over an in-memory fake.
//
// Thread contract: connect(), send*() and close() are called on the main thread, and
// every handler runs on the main thread. Once onEnd has run nothing more is delivered.
// Destroying a connection detaches its handlers at once (nothing is delivered after), and
// closes a socket that is still open with code 1001, letting the close handshake finish
// in the background.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/Expected.h"

namespace osv {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct WebSocketRequest {
    std::string url;  // ws:// or wss://, with its query
    HeaderList headers;
    // Time allowed for the connection and the opening handshake.
    double timeoutSeconds = 60.0;
};

// One message as it came off the wire: a text frame's payload is UTF-8; a binary frame's
// payload is whatever bytes the peer sent.
struct WebSocketFrame {
    enum class Kind { text, binary };
    Kind kind = Kind::text;
    std::string payload;
    bool operator==(const WebSocketFrame&) const = default;
};

// How a connection ended.
struct WebSocketEnd {
    enum class Reason {
        closedByPeer,    // the peer sent a close frame
        closedByUs,      // our close() completed
        failed,          // refused, timed out, TLS refused, dropped without a close frame
    };
    Reason reason = Reason::failed;
    bool wasOpen = false;           // the opening handshake had completed
    std::optional<int> closeCode;   // the peer's close code, when it sent one
    std::string closeReason;        // the peer's close reason
    std::string description;        // what happened, as the platform says it
};

class WebSocketConnection {
public:
    struct Handlers {
        std::function<void()> onOpen;
        std::function<void(WebSocketFrame)> onFrame;
        std::function<void(const WebSocketEnd&)> onEnd;
    };

    virtual ~WebSocketConnection() = default;
    // Queues one text frame. Fails (code "websocket_not_open") unless the socket is open.
    virtual Expected<void> sendText(std::string_view text) = 0;
    virtual Expected<void> sendBinary(std::string_view bytes) = 0;
    // Starts the closing handshake with `code`; onEnd follows with closedByUs (or with what
    // the peer did first). Closing a socket that is still connecting abandons it.
    virtual void close(int code, std::string_view reason) = 0;
};

class WebSocketTransport {
public:
    virtual ~WebSocketTransport() = default;
    // Starts connecting; the outcome arrives through `handlers`, never from inside this call.
    virtual std::unique_ptr<WebSocketConnection> connect(const WebSocketRequest& request,
                                                         WebSocketConnection::Handlers handlers) = 0;
};

}  // namespace osv
