#pragma once

// Jev, a judging service asked fast yes-or-no questions about a conversation's state; it
// answers each with a probability. A late answer is worth nothing (it decides whether to
// speak up in a live conversation), hence the short timeout.
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

class JevClient {
public:
    struct Question {
        std::string name;
        std::string statement;
        std::string whenTrue;
        std::string whenFalse;
    };
    using Probabilities = std::map<std::string, double>;
    using DebugHandler = std::function<void(const OpenAIDebugLog&)>;

    static constexpr double kTimeoutSeconds = 2.0;
    static constexpr std::size_t kReadableCharacters = 500;

    // `base` is the service's scheme and host.
    JevClient(HttpTransport& http, Scheduler& scheduler, std::string base);
    ~JevClient();

    // The probability of each question, by name. Empty without a key or questions. Any
    // question left unanswered fails the whole call.
    void probabilities(std::string state, std::vector<Question> questions, std::string apiKey, DebugHandler onDebug,
                       std::function<void(Expected<Probabilities>)> done);

    static std::string payload(std::string_view state, const std::vector<Question>& questions);
    static Expected<Probabilities> probabilitiesFrom(std::string_view body, const std::vector<Question>& questions);
    // The body as text for a log, cut to 500 characters.
    static std::string readable(std::string_view body);

private:
    HttpTransport& http_;
    Scheduler& scheduler_;
    std::string base_;
    std::map<std::uint64_t, std::unique_ptr<HttpCall>> calls_;
    std::uint64_t nextCall_ = 0;
    Lifetime lifetime_;
};

}  // namespace osv
