#pragma once

// Google Text-to-Speech: the voice list and speech synthesis (MP3), with the key of the
// settings. Holds no state beyond its calls in flight.
// Thread contract: main thread only; `done` runs once, never from inside the call.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/Expected.h"
#include "core/Scheduler.h"
#include "metering/DebugEvent.h"
#include "services/HttpTransport.h"

namespace osv {

struct TranslatorSettings;

enum class SpeechLanguage { chinese, japanese };

struct GoogleVoice {
    // By price, dearest first; a name containing none of the marks is standard.
    enum class Tier { chirp3HD, chirpHD, neural2, studio, wavenet, standard };

    std::string name;
    std::string gender;  // ssmlGender as given, empty when absent
    std::vector<std::string> languageCodes;

    Tier tier() const;
    bool speaks(SpeechLanguage language) const;
    bool operator==(const GoogleVoice&) const = default;
};
std::string_view rawValue(GoogleVoice::Tier tier);  // "chirp3-hd", ..., "standard"

class GoogleSpeechClient {
public:
    using DebugHandler = std::function<void(const OpenAIDebugLog&)>;
    static constexpr double kSpeakTimeoutSeconds = 60.0;

    // `base` is the API's scheme and host ("https://texttospeech.googleapis.com").
    GoogleSpeechClient(HttpTransport& http, Scheduler& scheduler, std::string base);
    ~GoogleSpeechClient();

    void allVoices(const TranslatorSettings& settings, DebugHandler onDebug,
                   std::function<void(Expected<std::vector<GoogleVoice>>)> done);
    // MP3 bytes of `text` in the settings' voice for the language, at the settings' rate.
    void speak(std::string text, SpeechLanguage language, const TranslatorSettings& settings, DebugHandler onDebug,
               std::function<void(Expected<std::vector<std::uint8_t>>)> done);

    static std::string languageCode(SpeechLanguage language);  // "cmn-CN", "ja-JP"
    static std::string synthesizeRequest(std::string_view text, SpeechLanguage language, std::string_view voice,
                                         double rate);
    // The voices with a name; none when the body is no voice list.
    static std::optional<std::vector<GoogleVoice>> readVoices(std::string_view body);
    // The error envelope's message, else the body, else "（没有返回内容）".
    static std::string reason(std::string_view body);

private:
    void send(const HttpRequest& request, HttpTransport::Completion done);
    template <class T>
    void failLater(std::function<void(Expected<T>)> done, Error error);

    HttpTransport& http_;
    Scheduler& scheduler_;
    std::string base_;
    std::map<std::uint64_t, std::unique_ptr<HttpCall>> calls_;
    std::uint64_t nextCall_ = 0;
    Lifetime lifetime_;
};

}  // namespace osv
