// Server frames of the realtime translation endpoint, as text and as binary, through the
// decoder, the route, the stream reader and the client's handling.

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/ManualScheduler.h"
#include "services/OpenAIRealtimeTranslationClient.h"

namespace {

class NoTransport final : public osv::WebSocketTransport {
public:
    std::unique_ptr<osv::WebSocketConnection> connect(const osv::WebSocketRequest&,
                                                      osv::WebSocketConnection::Handlers) override {
        return nullptr;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static osv::ManualScheduler scheduler;
    static NoTransport transport;
    static osv::OpenAIRealtimeTranslationClient client(transport, scheduler, "http://127.0.0.1:1/v1");
    const std::string text(reinterpret_cast<const char*>(data), size);

    if (auto event = osv::RealtimeServerEvent::decode(text)) {
        (void)event->wholeText();
        osv::RealtimeStreamReader reader;
        (void)reader.read(event->type, event->delta, event->wholeText());
    }
    // One byte picks the frame's kind; the rest is the frame.
    if (size > 0) {
        const auto kind = data[0] & 1 ? osv::WebSocketFrame::Kind::binary : osv::WebSocketFrame::Kind::text;
        client.receive({kind, text.substr(1)});
        (void)client.eventTypeReport();
    }
    return 0;
}
