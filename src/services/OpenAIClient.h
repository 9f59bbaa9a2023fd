#pragma once

// All HTTP work with the OpenAI API: text through the Responses endpoint, file
// transcription and speech. It owns the envelopes, the error handling, the debug records
// and the prompts of its methods; when a method is called and what is done with the result
// is the caller's business. There is no retry here: callers decide.
//
// Thread contract: main thread. Every method returns at once with the call's handle
// (destroying or cancelling it aborts the request; `done` then never runs) and calls `done`
// exactly once on the main thread, never from inside the method. The client holds no
// state between calls.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Expected.h"
#include "core/Scheduler.h"
#include "metering/DebugEvent.h"
#include "recordings/StoredValues.h"
#include "services/HttpTransport.h"
#include "settings/ModelPreferences.h"
#include "settings/TranslatorSettings.h"
#include "transcript/GlossaryTerm.h"

namespace osv {

// A Responses request. The whole prompt goes in `input` as one piece.
struct ResponsesRequest {
    std::string model;
    std::string input;
    std::optional<double> temperature;
    std::optional<std::string> reasoningEffort;

    // Temperature and reasoning as the model's profile accepts them.
    static ResponsesRequest make(std::string model, std::string input, double temperature);
    // The JSON body: model, input, then temperature or reasoning where present.
    std::string body() const;
    bool operator==(const ResponsesRequest&) const = default;
};

struct ResponsesResponse {
    // The text of every content item of every output item, in order, joined and trimmed.
    // Items without content (a reasoning item) add nothing.
    std::string outputText;
    std::optional<std::int64_t> inputTokens;
    std::optional<std::int64_t> outputTokens;

    // Fails with json_decode_error when the body is not a JSON object.
    static Expected<ResponsesResponse> decode(std::string_view body);
};

struct OpenAIVoice {
    std::string name;
    std::string note;
};

class OpenAIClient {
public:
    using DebugHandler = std::function<void(const OpenAIDebugLog&)>;
    // Model, input tokens, output tokens of one reply.
    using UsageHandler = std::function<void(const std::string&, std::int64_t, std::int64_t)>;
    template <class T>
    using Done = std::function<void(Expected<T>)>;
    using Call = std::unique_ptr<HttpCall>;

    static constexpr double kTimeoutSeconds = 60.0;
    static constexpr double kSourceReviewTimeoutSeconds = 12.0;
    static constexpr int kTitleCharacters = 14;

    // `openAIBase` is the API's base ("https://api.openai.com/v1"), already resolved by the
    // caller from the environment, the settings and the default.
    OpenAIClient(HttpTransport& transport, Scheduler& scheduler, std::string openAIBase);

    // One sentence pass: the input is `instruction`, the settings' glossary, the context
    // lines and the text, composed by sentencePassInput(). The model is `model`, else the
    // strongText job's. An empty reply is returned empty.
    Call sentencePass(const std::string& instruction, const std::string& text, const std::vector<std::string>& context,
                      const TranslatorSettings& settings, const std::string& title,
                      const std::optional<std::string>& model, DebugHandler onDebug, UsageHandler onUsage,
                      Done<std::string> done);

    // Corrections of numbered sentences seen together; `earlier` are unnumbered background.
    // The result maps numbers (from 1) to corrected sentences.
    Call repairInContext(const std::vector<std::string>& sentences, const std::vector<std::string>& earlier,
                         const std::string& glossary, const TranslatorSettings& settings, DebugHandler onDebug,
                         UsageHandler onUsage, Done<std::map<int, std::string>> done);

    Call summarize(const std::optional<SessionSummary>& previous, const std::vector<std::string>& newLines,
                   const TranslatorSettings& settings, DebugHandler onDebug, UsageHandler onUsage,
                   Done<SessionSummary> done);

    Call learnGlossary(const std::vector<std::string>& lines, const std::vector<std::string>& known,
                       const TranslatorSettings& settings, DebugHandler onDebug, UsageHandler onUsage,
                       Done<std::vector<GlossaryTerm>> done);

    // None when the model found no title.
    Call summarizeTitle(const std::string& text, const TranslatorSettings& settings, DebugHandler onDebug,
                        Done<std::optional<std::string>> done);

    // Fails with invalid_response "翻译结果为空。" on an empty reply.
    Call translateJapaneseToChinese(const std::string& text, const TranslatorSettings& settings,
                                    DebugHandler onDebug, Done<std::string> done);

    // Multipart upload of an audio file, read off the main thread first; fails with
    // empty_transcript on an empty text.
    Call transcribe(const std::string& audioPath, const TranslatorSettings& settings, RecognitionLanguage language,
                    DebugHandler onDebug, UsageHandler onUsage, Done<std::string> done);

    // The second hearing of a stretch of working-format PCM; an empty text is no failure.
    Call reviewSourceAudio(const TranslatorSettings& settings, const std::vector<std::uint8_t>& pcm16,
                           Done<std::string> done);

    // The teacher's voice as MP3 bytes.
    Call speak(const std::string& text, TargetLanguage language, const TranslatorSettings& settings,
               DebugHandler onDebug, Done<std::string> done);

    // The pieces, open for tests and for callers that compose.
    static std::string sentencePassInput(const std::string& instruction, const std::string& glossary,
                                         const std::vector<std::string>& context, const std::string& text);
    static std::string repairInContextInput(const std::vector<std::string>& sentences,
                                            const std::vector<std::string>& earlier, const std::string& glossary);
    static std::string summarizeInput(const std::optional<SessionSummary>& previous,
                                      const std::vector<std::string>& newLines, TargetLanguage language);
    static std::string learnGlossaryInput(const std::vector<std::string>& lines, const std::vector<std::string>& known);
    static std::string titleInstruction(TargetLanguage language);
    static std::string translateJapaneseToChineseInput(const std::string& text, TargetLanguage language);
    static std::string speechInstructions(TargetLanguage language, double rate, bool takesSpeed);
    static std::map<int, std::string> numberedCorrections(std::string_view reply, int count);
    static std::optional<SessionSummary> parseSummary(std::string_view reply);
    static std::vector<GlossaryTerm> parseGlossary(std::string_view reply);
    // Trimmed of quotes, brackets, spaces and full stops; cut to 14 characters; none if empty.
    static std::optional<std::string> cleanTitle(std::string_view reply);
    // "简体中文" or "日语".
    static std::string languageName(TargetLanguage language);
    static std::string mimeType(std::string_view fileName);

    static std::vector<OpenAIVoice> voices();

private:
    using RawDone = std::function<void(Expected<HttpResponse>)>;

    // Performs one request and reports its status: failures without an HTTP reply pass
    // out as they are, statuses outside 2xx become api_error with the envelope's message.
    Call send(HttpRequest request, const std::string& operation, DebugHandler onDebug,
              std::function<void(Expected<std::string>)> done);
    // A Responses request: key check, send, decode, usage.
    Call responses(const ResponsesRequest& request, const TranslatorSettings& settings, const std::string& operation,
                   DebugHandler onDebug, UsageHandler onUsage, Done<ResponsesResponse> done);
    Call fail(Error error, std::function<void(Error)> done);
    Call sendTranscription(std::string data, const std::string& audioPath, const std::string& key,
                           const std::string& endpoint, const TranslatorSettings& settings, RecognitionLanguage language,
                           DebugHandler onDebug, UsageHandler onUsage, Done<std::string> done);
    std::optional<std::string> url(std::string_view path) const;

    HttpTransport& transport_;
    Scheduler& scheduler_;
    std::string base_;
    Lifetime lifetime_;
};

}  // namespace osv
