#pragma once

// `realtime probe`: one realtime translation client fed from a decoded file, ended as a
// stop ends a client, with every event and debug record printed as a JSON line. Over the
// Scheduler and WebSocket ports, so that its pacing and its drain run in virtual time in
// tests. Main thread only.

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Scheduler.h"
#include "services/OpenAIRealtimeTranslationClient.h"

namespace osv::cli {

class RealtimeProbe {
public:
    static constexpr std::size_t kChunkBytes = 1920;  // 40 ms of working-format audio
    static constexpr double kChunkSeconds = 0.04;
    static constexpr double kDrainLimitSeconds = 2.5;
    static constexpr double kDrainQuietSeconds = 0.6;
    static constexpr double kDrainPollSeconds = 0.12;
    // How long the socket may take to close before the probe ends anyway.
    static constexpr double kCloseWaitSeconds = 5.0;

    struct Options {
        bool realTime = true;  // else as fast as the socket takes it
        std::string targetLanguage = "zh";
    };

    // Event and debug lines go to `out`, what went wrong to `err`.
    RealtimeProbe(Scheduler& scheduler, WebSocketTransport& transport, std::string openAIBase, std::ostream& out,
                  std::ostream& err);
    ~RealtimeProbe();

    // `finished` receives the exit status: kOk after a complete run or a session the server
    // closed; kFailed when the start failed or the socket was lost.
    void run(const TranslatorSettings& settings, std::vector<std::uint8_t> pcm, Options options,
             std::function<void(int)> finished);

    std::size_t chunksSent() const { return chunksSent_; }
    std::size_t bytesSent() const { return bytesSent_; }

private:
    void started(Expected<void> result);
    void sendNext();
    void drain();
    void stop();
    void finish(int status);
    void print(const RealtimeTranslationEvent& event);
    void print(const OpenAIDebugLog& log);

    Scheduler& scheduler_;
    std::ostream& out_;
    std::ostream& err_;
    OpenAIRealtimeTranslationClient client_;
    std::vector<std::uint8_t> pcm_;
    Options options_;
    std::function<void(int)> finished_;
    std::size_t offset_ = 0;
    std::size_t chunksSent_ = 0;
    std::size_t bytesSent_ = 0;
    Date streamStartedAt_;
    std::optional<Date> lastDeltaAt_;
    Date drainDeadline_;
    std::optional<int> lost_;  // the status once the session is over from the other side
    TimerHandle timer_;
    Lifetime lifetime_;
};

}  // namespace osv::cli
