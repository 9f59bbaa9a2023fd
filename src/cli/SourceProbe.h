#pragma once

// `source probe`: one source recogniser (OpenAI realtime transcription or Gemini Live) fed
// from a decoded file as a live session feeds it (24 kHz to OpenAI, 16 kHz to Gemini, in
// 40 ms chunks), ended as a stop ends it, with every event and debug record printed as a
// JSON line. Over the Scheduler and transport ports, so that it runs in virtual time in
// tests. Main thread only.

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Scheduler.h"
#include "services/GeminiTranscriptionClient.h"
#include "services/OpenAIRealtimeTranscriptionClient.h"
#include "services/ServiceEndpoints.h"
#include "settings/TranslatorSettings.h"

namespace osv::cli {

enum class SourceVendor { openAI, gemini };

// The model a source probe uses: the one asked for, else the configured source model when
// it belongs to the vendor, else the vendor's default.
std::string sourceProbeModel(SourceVendor vendor, const std::optional<std::string>& asked,
                             const TranslatorSettings& settings);

class SourceProbe {
public:
    static constexpr std::size_t kChunkBytes = 1920;  // 40 ms of working-format audio
    static constexpr double kChunkSeconds = 0.04;
    // After the audio, how long Gemini may go on answering, and the quiet that ends it.
    static constexpr double kDrainLimitSeconds = 2.5;
    static constexpr double kDrainQuietSeconds = 0.6;
    static constexpr double kDrainPollSeconds = 0.12;

    struct Options {
        SourceVendor vendor = SourceVendor::openAI;
        std::string model;
        RecognitionLanguage language = RecognitionLanguage::automatic;
        bool realTime = true;
    };

    SourceProbe(Scheduler& scheduler, WebSocketTransport& sockets, HttpTransport& http, const ServiceEndpoints& endpoints,
                std::ostream& out, std::ostream& err);
    ~SourceProbe();

    // `finished` receives the exit status: kOk after a complete run, kFailed when the start
    // failed or the stream did.
    void run(const TranslatorSettings& settings, std::vector<std::uint8_t> pcm24k, Options options,
             std::function<void(int)> finished);

    std::size_t chunksSent() const { return chunksSent_; }
    std::size_t bytesSent() const { return bytesSent_; }  // as sent, after resampling

private:
    void started(Expected<void> result);
    void sendNext();
    void endOfAudio();
    void drain();
    void finish(int status);
    void print(const TranscriptionEvent& event);
    void print(const GeminiLiveEvent& event);
    void print(const OpenAIDebugLog& log);

    Scheduler& scheduler_;
    std::ostream& out_;
    std::ostream& err_;
    OpenAIRealtimeTranscriptionClient openAI_;
    GeminiTranscriptionClient gemini_;
    std::vector<std::uint8_t> pcm_;
    Options options_;
    std::function<void(int)> finished_;
    std::size_t offset_ = 0;
    std::size_t chunksSent_ = 0;
    std::size_t bytesSent_ = 0;
    Date streamStartedAt_;
    std::optional<Date> lastEventAt_;
    Date audioEndedAt_;
    Date drainDeadline_;
    std::optional<int> lost_;
    TimerHandle timer_;
    Lifetime lifetime_;
};

}  // namespace osv::cli
