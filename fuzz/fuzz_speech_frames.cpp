// Server replies of the speech vendors, one frame or body a line: the realtime
// transcription session's events through the turn reader (whose output must stay in
// spoken order), Gemini Live frames through the client's reading, and the HTTP bodies of
// the Gemini file route, Google speech, Jev and Model Live through their readers.

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "core/ManualScheduler.h"
#include "services/GeminiTranscriptionClient.h"
#include "services/GoogleSpeechClient.h"
#include "services/JevClient.h"
#include "services/ModelLiveStatusClient.h"
#include "services/OpenAIRealtimeTranscriptionClient.h"

namespace {

// A socket that takes everything and lets the fuzzer play the server.
class OpenSocket final : public osv::WebSocketConnection {
public:
    osv::Expected<void> sendText(std::string_view) override { return {}; }
    osv::Expected<void> sendBinary(std::string_view) override { return {}; }
    void close(int, std::string_view) override {}
};

class LoopTransport final : public osv::WebSocketTransport {
public:
    std::unique_ptr<osv::WebSocketConnection> connect(const osv::WebSocketRequest&,
                                                      osv::WebSocketConnection::Handlers h) override {
        handlers = std::move(h);
        return std::make_unique<OpenSocket>();
    }
    osv::WebSocketConnection::Handlers handlers;
};

class NoHttp final : public osv::HttpTransport {
public:
    std::unique_ptr<osv::HttpCall> send(const osv::HttpRequest&, Completion) override { return nullptr; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static NoHttp http;
    LoopTransport sockets;
    osv::ManualScheduler scheduler;
    osv::GeminiTranscriptionClient gemini(sockets, http, scheduler, "http://127.0.0.1:1");
    const std::string text(reinterpret_cast<const char*>(data), size);
    // A Live stream past its setup, reading what the fuzzer sends.
    gemini.startLive("gemini-live", {}, "key", [](const osv::GeminiLiveEvent&) {}, [](const osv::OpenAIDebugLog&) {},
                     [](osv::Expected<void>) {});
    sockets.handlers.onOpen();
    sockets.handlers.onFrame({osv::WebSocketFrame::Kind::text, R"({"setupComplete":{}})"});
    scheduler.runUntilIdle();

    osv::TranscriptionTurnReader reader;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (auto event = osv::TranscriptionWireEvent::decode(line)) {
            for (const auto& out : reader.accept(*event))
                if (out.kind == osv::TranscriptionTurnReader::Output::Kind::revised && out.previous == out.text)
                    __builtin_trap();  // a revision always changes the text
        }
        (void)osv::GeminiTranscriptionClient::liveEvent(line);
        (void)osv::GeminiTranscriptionClient::shapeKey(line);
        gemini.receiveLive({osv::WebSocketFrame::Kind::text, line});
    }
    (void)gemini.liveShapeReport();
    (void)osv::GeminiTranscriptionClient::readInteraction(text);
    (void)osv::GeminiTranscriptionClient::retryDelay(text);
    (void)osv::GeminiTranscriptionClient::quotaSummary(text);
    osv::HttpResponse response;
    response.status = size > 0 && data[0] & 1 ? 429 : 500;
    response.body = text;
    (void)osv::GeminiTranscriptionClient::check(response, "转写", {});
    (void)osv::GoogleSpeechClient::readVoices(text);
    (void)osv::GoogleSpeechClient::reason(text);
    (void)osv::JevClient::probabilitiesFrom(text, {{"a", "", "", ""}, {"b", "", "", ""}});
    (void)osv::JevClient::readable(text);
    (void)osv::ModelLiveStatus::decode(text);
    return 0;
}
