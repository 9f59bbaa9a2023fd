#pragma once

// The WebSocket port over QWebSocket. Certificates are verified as Qt does by default; a
// certificate error ends the connection. Frames arrive whole, text as UTF-8.

#include "services/WebSocketTransport.h"

namespace osv {

class QtWebSocketTransport final : public WebSocketTransport {
public:
    std::unique_ptr<WebSocketConnection> connect(const WebSocketRequest& request,
                                                 WebSocketConnection::Handlers handlers) override;
};

}  // namespace osv
