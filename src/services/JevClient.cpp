#include "services/JevClient.h"

#include "core/Json.h"
#include "core/Text.h"
#include "core/TranslatorError.h"
#include "services/ServiceEndpoints.h"

namespace osv {
namespace {

using json::Json;
using Level = DebugEvent::Level;

OpenAIDebugLog log(Level level, std::string title, std::string details, std::optional<std::string> code = {}) {
    OpenAIDebugLog l;
    l.level = level;
    l.category = DebugEvent::Category::assistant;
    l.title = std::move(title);
    l.details = std::move(details);
    l.code = std::move(code);
    return l;
}

bool isValidUTF8(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size()) {
        std::size_t before = i;
        if (text::decodeScalar(s, i) == 0xFFFD) {
            // U+FFFD itself is three bytes; an ill-formed byte advances by one.
            if (i - before != 3 || s.substr(before, 3) != "\xEF\xBF\xBD") return false;
        }
    }
    return true;
}

}  // namespace

JevClient::JevClient(HttpTransport& http, Scheduler& scheduler, std::string base)
    : http_(http), scheduler_(scheduler), base_(std::move(base)) {}

JevClient::~JevClient() = default;

std::string JevClient::payload(std::string_view state, const std::vector<Question>& questions) {
    Json map = Json::object();
    for (const Question& q : questions) {
        Json question = Json::object();
        question["type"] = "noul";
        question["instructions"] = q.statement;
        question["criteria"]["true"] = q.whenTrue;
        question["criteria"]["false"] = q.whenFalse;
        map[q.name] = std::move(question);
    }
    Json m = Json::object();
    m["model"] = "jev-latest";
    m["state"] = state;
    m["questions"] = std::move(map);
    return json::dumpLine(m);
}

Expected<JevClient::Probabilities> JevClient::probabilitiesFrom(std::string_view body,
                                                                const std::vector<Question>& questions) {
    const auto reply = json::parse(body);
    const Json* answers = reply && reply->is_object() ? json::member(*reply, "answers") : nullptr;
    if (!answers || !answers->is_object()) return Error{"jev_unreadable_answer", "Jev 返回的内容里没有 answers。"};
    Probabilities out;
    for (const Question& q : questions) {
        const Json* answer = json::member(*answers, q.name);
        const auto noul = answer ? json::readOptional<double>(*answer, "noul") : std::nullopt;
        if (!noul) return Error{"jev_unreadable_answer", "Jev 没有回答「" + q.name + "」，或者它不是一个 noul 答案。"};
        out[q.name] = *noul;
    }
    return out;
}

std::string JevClient::readable(std::string_view body) {
    if (!isValidUTF8(body)) return std::to_string(body.size()) + " bytes, not UTF-8";
    const std::size_t count = text::graphemeCount(body);
    if (count <= kReadableCharacters) return std::string(body);
    const auto rest = text::dropGraphemes(body, kReadableCharacters);
    return std::string(body.substr(0, body.size() - rest.size())) + "…（共 " + std::to_string(count) + " 字，已截断）";
}

void JevClient::probabilities(std::string state, std::vector<Question> questions, std::string apiKey,
                              DebugHandler onDebug, std::function<void(Expected<Probabilities>)> done) {
    const std::string key(text::trimmed(apiKey));
    const auto url = httpEndpointURL(base_, "/v1/systemone");
    if (key.empty() || questions.empty() || !url) {
        scheduler_.post([guard = lifetime_.guard(), done = std::move(done)] {
            if (!guard.expired()) done(Probabilities{});
        });
        return;
    }
    HttpRequest request;
    request.method = "POST";
    request.url = *url;
    request.timeoutSeconds = kTimeoutSeconds;
    request.headers = {{"Authorization", "Bearer " + key}, {"Content-Type", "application/json"}};
    request.body = payload(state, questions);
    const std::uint64_t id = ++nextCall_;
    calls_[id] = http_.send(request, [this, guard = lifetime_.guard(), id, questions = std::move(questions), onDebug,
                                      done = std::move(done)](Expected<HttpResponse> r) {
        if (guard.expired()) return;
        if (auto it = calls_.find(id); it != calls_.end()) {
            std::shared_ptr<HttpCall> call(std::move(it->second));
            calls_.erase(it);
            scheduler_.post([call] {});
        }
        if (!r) {
            if (r.error().code == "http_failed") return done(TranslatorError::apiError("Jev 没有返回 HTTP 响应。").asError());
            return done(r.error());
        }
        if (r->status < 200 || r->status > 299) {
            const std::string status = std::to_string(r->status);
            if (onDebug) onDebug(log(Level::warning, "Jev 拒绝了这次判断", readable(r->body), "jev_http " + status));
            return done(Error{"jev_http", "HTTP " + status});
        }
        auto result = probabilitiesFrom(r->body, questions);
        if (!result && onDebug)
            onDebug(log(Level::warning, "Jev 的回答读不出来", result.error().message + "\n" + readable(r->body),
                        "jev_unreadable_answer"));
        done(std::move(result));
    });
}

}  // namespace osv
