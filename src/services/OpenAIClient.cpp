#include "services/OpenAIClient.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "audio/PCM16WavWriter.h"
#include "audio/RealtimePCMEncoder.h"
#include "core/Json.h"
#include "core/Text.h"
#include "core/TranslatorError.h"
#include "core/Uuid.h"
#include "services/ServiceEndpoints.h"

namespace osv {
namespace {

using json::Json;
using Level = DebugEvent::Level;

OpenAIDebugLog log(Level level, std::string title, std::string details, std::optional<std::string> code = {}) {
    OpenAIDebugLog l;
    l.level = level;
    l.category = DebugEvent::Category::openAI;
    l.title = std::move(title);
    l.details = std::move(details);
    l.code = std::move(code);
    return l;
}

void report(const OpenAIClient::DebugHandler& onDebug, OpenAIDebugLog l) {
    if (onDebug) onDebug(l);
}

std::string lowered(std::string_view s) {
    std::string out(s);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return out;
}

std::string trimmedString(std::string_view s) { return std::string(text::trimmed(s)); }

std::string joined(const std::vector<std::string>& lines, std::string_view separator) {
    std::string out;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (i) out += separator;
        out += lines[i];
    }
    return out;
}

// The text between the first `open` and the last `close`, both included; none without them.
std::optional<std::string_view> outermost(std::string_view text, char open, char close) {
    const auto first = text.find(open);
    const auto last = text.rfind(close);
    if (first == std::string_view::npos || last == std::string_view::npos || last < first) return std::nullopt;
    return text.substr(first, last - first + 1);
}

std::string firstCharacters(std::string_view text, std::size_t count) {
    text::GraphemeWalker walker(text);
    std::string_view cluster;
    std::size_t taken = 0, bytes = 0;
    while (taken < count && walker.next(cluster)) {
        bytes = std::size_t(cluster.data() + cluster.size() - text.data());
        ++taken;
    }
    return std::string(text.substr(0, bytes));
}

bool isValidUTF8(std::string_view s) {
    std::size_t pos = 0;
    while (pos < s.size()) {
        const std::size_t before = pos;
        const char32_t c = text::decodeScalar(s, pos);
        if (c == 0xFFFD && !(pos - before == 3 && s.substr(before, 3) == "\xEF\xBF\xBD")) return false;
        if (pos == before) return false;
    }
    return true;
}

std::string formatRate(double rate) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.2f", rate);
    std::string s = buffer;
    while (s.size() > 3 && s.back() == '0' && s[s.size() - 2] != '.') s.pop_back();
    return s;
}

// A failure that is reported after the method has returned, unless the handle goes first.
class PostedFailure final : public HttpCall {
public:
    explicit PostedFailure(std::shared_ptr<bool> cancelled) : cancelled_(std::move(cancelled)) {}
    ~PostedFailure() override { cancel(); }
    void cancel() override { *cancelled_ = true; }

private:
    std::shared_ptr<bool> cancelled_;
};

// A call whose request is not sent yet: cancelling it now keeps the request from going.
class DeferredCall final : public HttpCall {
public:
    struct State {
        bool cancelled = false;
        std::unique_ptr<HttpCall> call;
    };
    explicit DeferredCall(std::shared_ptr<State> state) : state_(std::move(state)) {}
    ~DeferredCall() override { cancel(); }
    void cancel() override {
        state_->cancelled = true;
        state_->call.reset();
    }

private:
    std::shared_ptr<State> state_;
};

struct FormField {
    std::string name;
    std::string value;
    std::optional<std::string> fileName;
    std::string contentType;
};

// A multipart/form-data body with the boundary "Boundary-{UUID}", as the API documents it.
std::pair<std::string, std::string> multipartBody(const std::vector<FormField>& fields) {
    const std::string boundary = "Boundary-" + Uuid::random().text();
    std::string body;
    for (const auto& f : fields) {
        body += "--" + boundary + "\r\n";
        body += "Content-Disposition: form-data; name=\"" + f.name + "\"";
        if (f.fileName) body += "; filename=\"" + *f.fileName + "\"";
        body += "\r\n";
        if (!f.contentType.empty()) body += "Content-Type: " + f.contentType + "\r\n";
        body += "\r\n" + f.value + "\r\n";
    }
    body += "--" + boundary + "--\r\n";
    return {"multipart/form-data; boundary=" + boundary, body};
}

std::optional<std::string> languageCode(RecognitionLanguage language) {
    switch (language) {
        case RecognitionLanguage::chinese: return "zh";
        case RecognitionLanguage::japanese: return "ja";
        case RecognitionLanguage::automatic: return std::nullopt;
    }
    return std::nullopt;
}

constexpr const char* kContextRepairOpening =
    "下面是同一场对话里连续的几句语音识别结果，每行前面是编号。\n请只订正**放在一起看才能发现**的识别错误：\n"
    "- 同一个人名 / 公司名 / 产品名在不同句里写法不一致，统一成正确的那个\n- 前后文明确表明某个词听错了\n"
    "- 同一条信息重复出现时，结合相近读音核对前后不一致的关键词；不要把复述误当成另一件事\n"
    "- 发音相近但词义不通的识别词也要检查，不要只改标点或假名/汉字字形。可利用后文消除早先歧义，但必须保留每次发言各自的细节\n"
    "- 修正词必须与识别词读音接近、且有上下文支持，不能按常识补出没说过的内容\n\n";

constexpr const char* kContextRepairRules =
    "\n绝对不要做：不要回答、不要续写、不要翻译、不要改写语气或用词习惯、\n不要把口语整理成书面语、不要动没有明确证据的句子。\n\n"
    "严格只输出 JSON 对象，不要解释，不要 markdown 代码块。\n只列出**需要修改**的句子：{\"编号\": \"订正后的整句\"}\n"
    "没有需要改的就输出 {}\n\n";

constexpr const char* kSummaryFormat =
    "严格只输出 JSON，不要解释，不要用 markdown 代码块：\n"
    "{\"overview\": \"两三句话说清这场对话是关于什么的\", \"topics\": [{\"title\": \"话题名（两到六个字）\", \"points\": "
    "[\"这个话题下值得记住的内容，每条一句\"]}], \"actions\": [\"落到我头上要做或要确认的事，没有就给空数组\"]}\n\n"
    "要求：\n- 只写对话里真实出现过的内容，不要推测、不要补全\n"
    "- 已有话题继续沿用原标题往下加内容，不要改名、不要合并；新话题追加在最后\n"
    "- 话题 6 个以内，每个话题的 points 4 条以内，太琐碎的不要\n- actions 只写明确要求或承诺过的事\n\n最新片段：\n";

constexpr const char* kJapaneseSpeech =
    "标准东京口音的日语。语速比平常稍慢、发音清楚，音调（アクセント）要准确自然，\n"
    "像老师给学生示范一句话该怎么说——是说给人听的示范，不是朗读课文。\n不要用中文的声调去念。";
constexpr const char* kChineseSpeech =
    "用中文说，你是一位日语老师，正在跟学生面对面讲解。自然的口语节奏，有轻重、\n"
    "有停顿，不要一个调子念到底，也不要像播报。语气亲切，像在解释一件你很熟的事。";

Json summaryJson(const SessionSummary& s) {
    Json j = Json::object();
    j["overview"] = s.overview;
    Json topics = Json::array();
    for (const auto& t : s.topics) topics.push_back(Json{{"title", t.title}, {"points", t.points}});
    j["topics"] = topics;
    j["actions"] = s.actions;
    return j;
}

template <class T>
std::function<void(Error)> failing(OpenAIClient::Done<T> done) {
    return [done = std::move(done)](Error e) { done(std::move(e)); };
}

}  // namespace

// MARK: - Requests and replies

ResponsesRequest ResponsesRequest::make(std::string model, std::string input, double temperature) {
    ResponsesRequest r;
    const auto profile = OpenAIModelProfile::forModel(model);
    r.model = std::move(model);
    r.input = std::move(input);
    if (profile.usesTemperature) r.temperature = temperature;
    r.reasoningEffort = profile.reasoningEffort;
    return r;
}

std::string ResponsesRequest::body() const {
    Json j = Json::object();
    j["model"] = model;
    j["input"] = input;
    if (temperature) j["temperature"] = *temperature;
    if (reasoningEffort) j["reasoning"] = Json{{"effort", *reasoningEffort}};
    return json::dumpLine(j);
}

Expected<ResponsesResponse> ResponsesResponse::decode(std::string_view body) {
    const auto parsed = json::parse(body);
    if (!parsed || !parsed->is_object()) return Error{"json_decode_error", "响应不是 JSON 对象。"};
    ResponsesResponse r;
    std::string text;
    if (const Json* output = json::member(*parsed, "output"); output && output->is_array()) {
        for (const auto& item : *output) {
            const Json* content = json::member(item, "content");
            if (!content || !content->is_array()) continue;
            for (const auto& part : *content)
                if (const Json* t = json::member(part, "text"); t && t->is_string()) text += t->get<std::string>();
        }
    }
    r.outputText = trimmedString(text);
    if (const Json* usage = json::member(*parsed, "usage"); usage && usage->is_object()) {
        r.inputTokens = json::as<std::int64_t>(usage->value("input_tokens", Json()));
        r.outputTokens = json::as<std::int64_t>(usage->value("output_tokens", Json()));
    }
    return r;
}

// MARK: - Prompts

std::string OpenAIClient::languageName(TargetLanguage language) {
    return language == TargetLanguage::japanese ? "日语" : "简体中文";
}

std::string OpenAIClient::sentencePassInput(const std::string& instruction, const std::string& glossary,
                                            const std::vector<std::string>& context, const std::string& text) {
    std::string input = instruction;
    const std::string terms = trimmedString(glossary);
    if (!terms.empty()) input += "\n\n固定译法（人名/产品名等，必须照用）：\n" + terms;
    if (!context.empty()) input += "\n\n前文（仅供理解代词和称呼，不要翻译）：\n" + joined(context, "\n");
    input += "\n\n待处理的原句：\n" + text;
    return input;
}

std::string OpenAIClient::repairInContextInput(const std::vector<std::string>& sentences,
                                               const std::vector<std::string>& earlier, const std::string& glossary) {
    std::string input = kContextRepairOpening;
    if (!glossary.empty()) input += "这场对话已确认的专有名词（以此为准）：\n" + glossary + "\n";
    input += kContextRepairRules;
    if (!earlier.empty())
        input += "以下是之前的原文，仅供核对语境、称呼与重复信息，没有编号，不得修改或输出：\n" + joined(earlier, "\n");
    input += "\n\n待校准的编号句：\n";
    for (std::size_t i = 0; i < sentences.size(); ++i) {
        if (i) input += "\n";
        input += std::to_string(i + 1) + ": " + sentences[i];
    }
    return input;
}

std::string OpenAIClient::summarizeInput(const std::optional<SessionSummary>& previous,
                                         const std::vector<std::string>& newLines, TargetLanguage language) {
    std::string input;
    if (previous)
        input += "这是目前为止的摘要，请在它的基础上更新（不要重复罗列已有内容，也不要把它整个改写）：\n" +
                 json::dumpLine(summaryJson(*previous));
    input += "下面是一场对话的语音识别与翻译结果的最新片段。请用" + languageName(language) + "更新这场对话的摘要。\n\n";
    input += kSummaryFormat;
    input += joined(newLines, "\n");
    return input;
}

std::string OpenAIClient::learnGlossaryInput(const std::vector<std::string>& lines, const std::vector<std::string>& known) {
    std::string input =
        "下面是一段对话的语音识别结果。请找出其中反复出现、且译法必须固定的专有名词：\n"
        "公司名、人名、产品名、职位、技术栈、制度或业务名词。\n\n";
    if (!known.empty()) input += "已经记录过的（不要重复列出）：" + joined(known, "、") + "\n";
    input +=
        "\n严格只输出 JSON 数组，不要解释，不要用 markdown 代码块。最多 6 条。\n"
        "每条：{\"written\": \"正确写法\", \"heard\": \"识别常见的错误写法，没有就省略\", \"translated\": "
        "\"对应的中文译法，没有就省略\"}\n\n只列真正的专有名词。普通词汇、常见动词、寒暄语一律不要。\n"
        "如果没有可记录的，输出 []。\n\n对话：\n";
    input += joined(lines, "\n");
    return input;
}

std::string OpenAIClient::titleInstruction(TargetLanguage language) {
    return "下面是一段中日同传会议记录。请用" + languageName(language) +
           "给它起一个标题，概括这段对话真正讨论的事情。\n要求：不超过 " + std::to_string(kTitleCharacters) +
           " 个字；是内容主题，不是开场白或寒暄；\n不要书名号、引号、句号；不要出现「会议记录」「同传」「录音」「助答」这类词——\n"
           "这些由应用自己加在标题前面，你只写主题。只输出标题本身。\n"
           "如果内容太少或只有测试性质的发言（例如试麦、「能听到吗」），只返回空字符串。";
}

std::string OpenAIClient::translateJapaneseToChineseInput(const std::string& text, TargetLanguage language) {
    return "请把下面的日语会议发言翻译成简洁、自然的" + languageName(language) +
           "。\n保留人名、产品名、数字、日期和待办事项。只输出中文译文，不要解释。\n"
           "如果原文为空或没有可翻译的实际内容，请只返回空字符串，绝对不要索要内容或添加任何说明。\n\n日语原文：\n" + text;
}

std::string OpenAIClient::speechInstructions(TargetLanguage language, double rate, bool takesSpeed) {
    std::string instructions = language == TargetLanguage::japanese ? kJapaneseSpeech : kChineseSpeech;
    if (takesSpeed) return instructions;
    const char* sentence = rate < 0.8    ? "语速明显放慢，每个词都咬清楚，像在给初学者做示范。"
                           : rate < 0.95 ? "语速比平常稍慢一点，发音清楚。"
                           : rate < 1.1  ? "语速自然，就像平常说话。"
                           : rate < 1.3  ? "语速比平常稍快一点，但不要含糊。"
                                         : "语速偏快，接近日常快速交谈。";
    return instructions + "\n" + sentence;
}

std::map<int, std::string> OpenAIClient::numberedCorrections(std::string_view reply, int count) {
    std::map<int, std::string> out;
    const auto object = outermost(reply, '{', '}');
    if (!object) return out;
    const auto parsed = json::parse(*object);
    if (!parsed || !parsed->is_object()) return out;
    for (auto it = parsed->begin(); it != parsed->end(); ++it) {
        const std::string& key = it.key();
        if (key.empty() || key.size() > 6 || !std::all_of(key.begin(), key.end(), [](char c) { return c >= '0' && c <= '9'; }))
            continue;
        const int number = std::stoi(key);
        if (number < 1 || number > count || !it->is_string() || text::isBlank(it->get<std::string>())) continue;
        out[number] = trimmedString(it->get<std::string>());
    }
    return out;
}

std::optional<SessionSummary> OpenAIClient::parseSummary(std::string_view reply) {
    const auto object = outermost(reply, '{', '}');
    if (!object) return std::nullopt;
    const auto parsed = json::parse(*object);
    if (!parsed || !parsed->is_object()) return std::nullopt;
    SessionSummary s;
    s.overview = trimmedString(json::read<std::string>(*parsed, "overview", ""));
    if (const Json* topics = json::member(*parsed, "topics"); topics && topics->is_array()) {
        for (const auto& t : *topics) {
            SessionSummary::Topic topic;
            topic.title = trimmedString(json::read<std::string>(t, "title", ""));
            if (const Json* points = json::member(t, "points"); points && points->is_array())
                for (const auto& p : *points)
                    if (p.is_string() && !text::isBlank(p.get<std::string>()))
                        topic.points.push_back(trimmedString(p.get<std::string>()));
            if (!topic.title.empty() || !topic.points.empty()) s.topics.push_back(std::move(topic));
        }
    }
    if (const Json* actions = json::member(*parsed, "actions"); actions && actions->is_array())
        for (const auto& a : *actions)
            if (a.is_string() && !text::isBlank(a.get<std::string>())) s.actions.push_back(trimmedString(a.get<std::string>()));
    if (s.isEmpty()) return std::nullopt;
    return s;
}

std::vector<GlossaryTerm> OpenAIClient::parseGlossary(std::string_view reply) {
    const auto array = outermost(reply, '[', ']');
    if (!array) return {};
    const auto parsed = json::parse(*array);
    if (!parsed || !parsed->is_array()) return {};
    std::vector<GlossaryTerm> terms;
    for (const auto& item : *parsed) {
        const Json* written = json::member(item, "written");
        if (!written || !written->is_string()) return {};
        GlossaryTerm term;
        term.written = written->get<std::string>();
        for (auto [key, field] : {std::pair{"heard", &term.heard}, std::pair{"translated", &term.translated}}) {
            const Json* value = json::member(item, key);
            if (!value || value->is_null()) continue;
            if (!value->is_string()) return {};
            *field = value->get<std::string>();
        }
        terms.push_back(std::move(term));
    }
    return terms;
}

std::optional<std::string> OpenAIClient::cleanTitle(std::string_view reply) {
    static const std::vector<std::string_view> kMarks{"「", "」", "『", "』", "\"", "'", "《", "》", "。", ".",
                                                      " ", "\t", "\n", "\r", "　"};
    bool changed = true;
    while (changed && !reply.empty()) {
        changed = false;
        for (auto mark : kMarks) {
            if (reply.substr(0, mark.size()) == mark) {
                reply.remove_prefix(mark.size());
                changed = true;
            }
            if (reply.size() >= mark.size() && reply.substr(reply.size() - mark.size()) == mark) {
                reply.remove_suffix(mark.size());
                changed = true;
            }
        }
    }
    if (reply.empty()) return std::nullopt;
    if (text::graphemeCount(reply) >= std::size_t(kTitleCharacters) + 1) return firstCharacters(reply, kTitleCharacters);
    return std::string(reply);
}

std::string OpenAIClient::mimeType(std::string_view fileName) {
    const std::string ext = lowered(std::filesystem::path(std::string(fileName)).extension().string());
    if (ext == ".m4a" || ext == ".mp4") return "audio/mp4";
    if (ext == ".mp3") return "audio/mpeg";
    if (ext == ".wav") return "audio/wav";
    return "application/octet-stream";
}

std::vector<OpenAIVoice> OpenAIClient::voices() {
    return {{"alloy", "中性，平稳"},   {"ash", "男声，清晰"},     {"ballad", "男声，柔和"},
            {"coral", "女声，明亮"},   {"echo", "男声，沉稳"},    {"fable", "中性，讲述感"},
            {"nova", "女声，亲切"},    {"onyx", "男声，低沉"},    {"sage", "女声，平静"},
            {"shimmer", "女声，温和"}, {"verse", "男声，有起伏"}};
}

// MARK: - Transport

OpenAIClient::OpenAIClient(HttpTransport& transport, Scheduler& scheduler, std::string openAIBase)
    : transport_(transport), scheduler_(scheduler), base_(std::move(openAIBase)) {}

std::optional<std::string> OpenAIClient::url(std::string_view path) const { return httpEndpointURL(base_, path); }

OpenAIClient::Call OpenAIClient::fail(Error error, std::function<void(Error)> done) {
    auto cancelled = std::make_shared<bool>(false);
    scheduler_.post([cancelled, error = std::move(error), done = std::move(done)] {
        if (!*cancelled) done(error);
    });
    return std::make_unique<PostedFailure>(cancelled);
}

OpenAIClient::Call OpenAIClient::send(HttpRequest request, const std::string& operation, DebugHandler onDebug,
                                      std::function<void(Expected<std::string>)> done) {
    return transport_.send(request, [operation, onDebug = std::move(onDebug),
                                     done = std::move(done)](Expected<HttpResponse> reply) {
        if (!reply) return done(reply.error());
        const int status = reply->status;
        if (status <= 0) {
            report(onDebug, log(Level::error, "没有收到 HTTP 响应", "operation: " + operation, "missing_http_response"));
            return done(TranslatorError::invalidResponse("没有收到 HTTP 响应。").asError());
        }
        const bool ok = status >= 200 && status <= 299;
        report(onDebug, log(ok ? Level::success : Level::error, "HTTP " + std::to_string(status),
                            "operation: " + operation + "\nresponseBytes: " + std::to_string(reply->body.size()),
                            "http_" + std::to_string(status)));
        if (ok) return done(std::move(reply->body));
        const auto envelope = json::parse(reply->body);
        const Json* error = envelope ? json::member(*envelope, "error") : nullptr;
        const Json* message = error ? json::member(*error, "message") : nullptr;
        if (message && message->is_string()) {
            std::string code = "http_" + std::to_string(status);
            if (auto c = json::read<std::string>(*error, "code", ""); !c.empty()) code = c;
            else if (auto t = json::read<std::string>(*error, "type", ""); !t.empty()) code = t;
            report(onDebug, log(Level::error, "OpenAI 返回错误", message->get<std::string>(), code));
            return done(TranslatorError::apiError(message->get<std::string>()).asError());
        }
        std::string text = isValidUTF8(reply->body) ? trimmedString(reply->body) : std::string();
        if (text.empty()) text = "HTTP " + std::to_string(status);
        report(onDebug, log(Level::error, "OpenAI 返回未知错误", text, "http_" + std::to_string(status)));
        done(TranslatorError::apiError(text).asError());
    });
}

OpenAIClient::Call OpenAIClient::responses(const ResponsesRequest& request, const TranslatorSettings& settings,
                                           const std::string& operation, DebugHandler onDebug, UsageHandler onUsage,
                                           Done<ResponsesResponse> done) {
    const std::string key = trimmedString(settings.apiKey);
    if (key.empty()) return fail(TranslatorError::missingAPIKey().asError(), failing(done));
    const auto endpoint = url("/responses");
    if (!endpoint) return fail(TranslatorError::invalidResponse("OpenAI 地址无效：" + base_).asError(), failing(done));
    HttpRequest http;
    http.method = "POST";
    http.url = *endpoint;
    http.headers = {{"Authorization", "Bearer " + key}, {"Content-Type", "application/json"}};
    http.body = request.body();
    http.timeoutSeconds = kTimeoutSeconds;
    return send(std::move(http), operation, onDebug,
                [model = request.model, onDebug, onUsage = std::move(onUsage), done = std::move(done)](Expected<std::string> body) {
                    if (!body) return done(body.error());
                    auto decoded = ResponsesResponse::decode(*body);
                    if (!decoded) {
                        report(onDebug, log(Level::error, "响应 JSON 解析失败", decoded.error().message, "json_decode_error"));
                        return done(decoded.error());
                    }
                    if (onUsage && (decoded->inputTokens || decoded->outputTokens))
                        onUsage(model, decoded->inputTokens.value_or(0), decoded->outputTokens.value_or(0));
                    done(std::move(*decoded));
                });
}

// MARK: - Text

OpenAIClient::Call OpenAIClient::sentencePass(const std::string& instruction, const std::string& text,
                                              const std::vector<std::string>& context,
                                              const TranslatorSettings& settings, const std::string& title,
                                              const std::optional<std::string>& model, DebugHandler onDebug,
                                              UsageHandler onUsage, Done<std::string> done) {
    const std::string chosen = model && !text::isBlank(*model) ? trimmedString(*model)
                                                               : settings.models.resolved(ModelJob::strongText, settings.activeMode);
    const auto request =
        ResponsesRequest::make(chosen, sentencePassInput(instruction, settings.glossary, context, text), 0.1);
    if (!text::isBlank(settings.apiKey))
        report(onDebug, log(Level::info, title,
                            "endpoint: /v1/responses\nmodel: " + chosen + "\nsourceChars: " +
                                std::to_string(text::graphemeCount(text)) + "\ncontextSentences: " +
                                std::to_string(context.size()) + "\nglossary: " +
                                (text::isBlank(settings.glossary) ? "无" : "有")));
    return responses(request, settings, "responses.sentence_pass", onDebug, std::move(onUsage),
                     [done = std::move(done)](Expected<ResponsesResponse> r) {
                         if (!r) return done(r.error());
                         done(std::move(r->outputText));
                     });
}

OpenAIClient::Call OpenAIClient::repairInContext(const std::vector<std::string>& sentences,
                                                 const std::vector<std::string>& earlier, const std::string& glossary,
                                                 const TranslatorSettings& settings, DebugHandler onDebug,
                                                 UsageHandler onUsage, Done<std::map<int, std::string>> done) {
    const std::string model = settings.models.resolved(ModelJob::strongText, settings.activeMode);
    const auto request = ResponsesRequest::make(model, repairInContextInput(sentences, earlier, glossary), 0);
    const int count = int(sentences.size());
    if (!text::isBlank(settings.apiKey))
        report(onDebug, log(Level::info, "发送上下文校准请求",
                            "endpoint: /v1/responses\nmodel: " + model + "\nsentences: " + std::to_string(count) +
                                "\ncontextSentences: " + std::to_string(earlier.size()) +
                                "\nglossary: " + (glossary.empty() ? "无" : "有")));
    return responses(request, settings, "responses.context_repair", onDebug, std::move(onUsage),
                     [count, done = std::move(done)](Expected<ResponsesResponse> r) {
                         if (!r) return done(r.error());
                         done(numberedCorrections(r->outputText, count));
                     });
}

OpenAIClient::Call OpenAIClient::summarize(const std::optional<SessionSummary>& previous,
                                           const std::vector<std::string>& newLines,
                                           const TranslatorSettings& settings, DebugHandler onDebug,
                                           UsageHandler onUsage, Done<SessionSummary> done) {
    const std::string model = settings.models.resolved(ModelJob::strongText, settings.activeMode);
    const auto request =
        ResponsesRequest::make(model, summarizeInput(previous, newLines, settings.targetLanguage), 0.2);
    if (!text::isBlank(settings.apiKey))
        report(onDebug, log(Level::info, "发送摘要请求",
                            "endpoint: /v1/responses\nmodel: " + model + "\nnewLines: " + std::to_string(newLines.size()) +
                                "\nprevious: " + (previous ? "有" : "无")));
    return responses(request, settings, "responses.summary", onDebug, std::move(onUsage),
                     [onDebug, done = std::move(done)](Expected<ResponsesResponse> r) {
                         if (!r) return done(r.error());
                         auto summary = parseSummary(r->outputText);
                         if (!summary) {
                             Error e{"json_decode_error", "摘要不是可读的 JSON。"};
                             report(onDebug, log(Level::error, "响应 JSON 解析失败", e.message, e.code));
                             return done(e);
                         }
                         done(std::move(*summary));
                     });
}

OpenAIClient::Call OpenAIClient::learnGlossary(const std::vector<std::string>& lines,
                                               const std::vector<std::string>& known,
                                               const TranslatorSettings& settings, DebugHandler onDebug,
                                               UsageHandler onUsage, Done<std::vector<GlossaryTerm>> done) {
    const std::string model = settings.models.resolved(ModelJob::strongText, settings.activeMode);
    const auto request = ResponsesRequest::make(model, learnGlossaryInput(lines, known), 0);
    if (!text::isBlank(settings.apiKey))
        report(onDebug, log(Level::info, "发送术语学习请求",
                            "endpoint: /v1/responses\nmodel: " + model + "\nlines: " + std::to_string(lines.size()) +
                                "\nknown: " + std::to_string(known.size())));
    return responses(request, settings, "responses.glossary", onDebug, std::move(onUsage),
                     [done = std::move(done)](Expected<ResponsesResponse> r) {
                         if (!r) return done(r.error());
                         done(parseGlossary(r->outputText));
                     });
}

OpenAIClient::Call OpenAIClient::summarizeTitle(const std::string& text, const TranslatorSettings& settings,
                                                DebugHandler onDebug, Done<std::optional<std::string>> done) {
    return sentencePass(titleInstruction(settings.targetLanguage), text, {}, settings, "生成标题", std::nullopt,
                        std::move(onDebug), nullptr, [done = std::move(done)](Expected<std::string> r) {
                            if (!r) return done(r.error());
                            done(cleanTitle(*r));
                        });
}

OpenAIClient::Call OpenAIClient::translateJapaneseToChinese(const std::string& text, const TranslatorSettings& settings,
                                                            DebugHandler onDebug, Done<std::string> done) {
    const std::string model = settings.models.resolved(ModelJob::fastText, settings.activeMode);
    const auto request = ResponsesRequest::make(model, translateJapaneseToChineseInput(text, settings.targetLanguage), 0.1);
    if (!text::isBlank(settings.apiKey))
        report(onDebug, log(Level::info, "发送翻译请求",
                            "endpoint: /v1/responses\nmodel: " + model +
                                "\nsourceChars: " + std::to_string(text::graphemeCount(text))));
    return responses(request, settings, "responses.translate", onDebug, nullptr,
                     [onDebug, done = std::move(done)](Expected<ResponsesResponse> r) {
                         if (!r) return done(r.error());
                         if (r->outputText.empty()) {
                             report(onDebug, log(Level::warning, "翻译结果为空",
                                                 "Responses API 返回了 200，但 output text 为空。", "empty_translation"));
                             return done(TranslatorError::invalidResponse("翻译结果为空。").asError());
                         }
                         done(std::move(r->outputText));
                     });
}

// MARK: - Audio

OpenAIClient::Call OpenAIClient::transcribe(const std::string& audioPath, const TranslatorSettings& settings,
                                            RecognitionLanguage language, DebugHandler onDebug, UsageHandler onUsage,
                                            Done<std::string> done) {
    const std::string key = trimmedString(settings.apiKey);
    if (key.empty()) return fail(TranslatorError::missingAPIKey().asError(), failing(done));
    const auto endpoint = url("/audio/transcriptions");
    if (!endpoint) return fail(TranslatorError::invalidResponse("OpenAI 地址无效：" + base_).asError(), failing(done));
    // An hour of audio is tens of megabytes: it is read off the main thread, and the
    // request goes out once it has been.
    auto deferred = std::make_shared<DeferredCall::State>();
    const auto guard = lifetime_.guard();
    scheduler_.background(
        [audioPath]() -> std::optional<std::string> {
            std::ifstream in(audioPath, std::ios::binary);
            if (!in) return std::nullopt;
            std::ostringstream data;
            data << in.rdbuf();
            return data.str();
        },
        [this, guard, deferred, audioPath, key, endpoint = *endpoint, settings, language, onDebug = std::move(onDebug),
         onUsage = std::move(onUsage), done = std::move(done)](std::optional<std::string> data) mutable {
            if (guard.expired() || deferred->cancelled) return;
            if (!data) return done(TranslatorError::recordingFailed("无法读取音频文件 " + audioPath).asError());
            deferred->call = sendTranscription(std::move(*data), audioPath, key, endpoint, settings, language,
                                               std::move(onDebug), std::move(onUsage), std::move(done));
        });
    return std::make_unique<DeferredCall>(deferred);
}

OpenAIClient::Call OpenAIClient::sendTranscription(std::string data, const std::string& audioPath, const std::string& key,
                                                   const std::string& endpoint, const TranslatorSettings& settings,
                                                   RecognitionLanguage language, DebugHandler onDebug,
                                                   UsageHandler onUsage, Done<std::string> done) {
    const std::string model = settings.models.resolved(ModelJob::fileTranscribe, settings.activeMode);
    const std::string fileName = std::filesystem::path(audioPath).filename().string();
    const std::string mime = mimeType(fileName);
    const auto code = languageCode(language);
    const std::size_t bytes = data.size();
    std::vector<FormField> fields{{"model", model, {}, {}}, {"response_format", "json", {}, {}}};
    if (code) fields.push_back({"language", *code, {}, {}});
    fields.push_back({"file", std::move(data), fileName, mime});
    const auto [contentType, body] = multipartBody(fields);
    report(onDebug, log(Level::info, "发送音频识别请求",
                        "endpoint: /v1/audio/transcriptions\nmodel: " + model + "\nlanguage: " + code.value_or("auto") +
                            "\nfile: " + fileName + "\nmime: " + mime + "\nbytes: " + std::to_string(bytes)));
    HttpRequest http;
    http.method = "POST";
    http.url = endpoint;
    http.headers = {{"Authorization", "Bearer " + key}, {"Content-Type", contentType}};
    http.body = body;
    http.timeoutSeconds = kTimeoutSeconds;
    return send(std::move(http), "audio.transcriptions", onDebug,
                [model, onDebug, onUsage = std::move(onUsage), done = std::move(done)](Expected<std::string> reply) {
                    if (!reply) return done(reply.error());
                    const auto parsed = json::parse(*reply);
                    const Json* text = parsed ? json::member(*parsed, "text") : nullptr;
                    if (!text || !text->is_string()) {
                        Error e{"json_decode_error", "识别响应缺少 text。"};
                        report(onDebug, log(Level::error, "响应 JSON 解析失败", e.message, e.code));
                        return done(e);
                    }
                    if (const Json* usage = json::member(*parsed, "usage"); onUsage && usage && usage->is_object())
                        onUsage(model, json::read<std::int64_t>(*usage, "input_tokens", 0),
                                json::read<std::int64_t>(*usage, "output_tokens", 0));
                    const std::string transcript = trimmedString(text->get<std::string>());
                    if (transcript.empty()) {
                        report(onDebug, log(Level::warning, "识别结果为空", "OpenAI 返回了 200，但 text 为空。",
                                            "empty_transcript"));
                        return done(TranslatorError::emptyTranscript().asError());
                    }
                    done(transcript);
                });
}

OpenAIClient::Call OpenAIClient::reviewSourceAudio(const TranslatorSettings& settings,
                                                   const std::vector<std::uint8_t>& pcm16, Done<std::string> done) {
    const std::string key = trimmedString(settings.apiKey);
    if (key.empty()) return fail(TranslatorError::missingAPIKey().asError(), failing(done));
    const auto endpoint = url("/audio/transcriptions");
    if (!endpoint) return fail(TranslatorError::invalidResponse("OpenAI 地址无效：" + base_).asError(), failing(done));
    std::string model = settings.models.resolved(ModelJob::realtimeTranscribe, settings.activeMode);
    if (model == "gpt-realtime-whisper") model = "gpt-transcribe";
    const auto code = languageCode(settings.recognitionLanguage);
    std::string prompt = code ? "A conversation. "
                              : "A conversation in Japanese and Mandarin Chinese, including language switches. ";
    prompt += "Transcribe all audible speech faithfully in its original language, including quieter speech. "
              "Preserve names, numbers, dates and negation. Do not invent words for ringing, music or silence.";
    if (!text::isBlank(settings.glossary)) prompt += "\n" + trimmedString(settings.glossary);
    std::vector<FormField> fields{{"model", model, {}, {}}, {"response_format", "json", {}, {}}, {"prompt", prompt, {}, {}}};
    if (lowered(model).rfind("gpt-transcribe", 0) == 0) {
        for (const char* language : code ? std::vector<const char*>{code->c_str()} : std::vector<const char*>{"zh", "ja"})
            fields.push_back({"languages[]", language, {}, {}});
    } else if (code) {
        fields.push_back({"language", *code, {}, {}});
    }
    const auto wav = PCM16WavWriter::data(pcm16, 24'000, 1);
    fields.push_back({"file", std::string(wav.begin(), wav.end()), "source-review.wav", "audio/wav"});
    const auto [contentType, body] = multipartBody(fields);
    HttpRequest http;
    http.method = "POST";
    http.url = *endpoint;
    http.headers = {{"Authorization", "Bearer " + key}, {"Content-Type", contentType}};
    http.body = body;
    http.timeoutSeconds = kSourceReviewTimeoutSeconds;
    return send(std::move(http), "audio.source_review", nullptr, [done = std::move(done)](Expected<std::string> reply) {
        if (!reply) return done(reply.error());
        const auto parsed = json::parse(*reply);
        if (!parsed || !parsed->is_object()) return done(Error{"json_decode_error", "识别响应不是 JSON 对象。"});
        done(trimmedString(json::read<std::string>(*parsed, "text", "")));
    });
}

OpenAIClient::Call OpenAIClient::speak(const std::string& text, TargetLanguage language,
                                       const TranslatorSettings& settings, DebugHandler onDebug, Done<std::string> done) {
    const std::string key = trimmedString(settings.apiKey);
    if (key.empty()) return fail(TranslatorError::missingAPIKey().asError(), failing(done));
    const auto endpoint = url("/audio/speech");
    if (!endpoint) return fail(TranslatorError::invalidResponse("OpenAI 地址无效：" + base_).asError(), failing(done));
    const std::string model = settings.models.resolved(ModelJob::speech, settings.activeMode);
    const bool takesSpeed = lowered(trimmedString(model)).rfind("tts-1", 0) == 0;
    const std::string voice = language == TargetLanguage::japanese ? settings.japaneseVoice : settings.chineseVoice;
    Json body = Json::object();
    body["model"] = model;
    body["input"] = text;
    body["voice"] = voice;
    body["instructions"] = speechInstructions(language, settings.speechRate, takesSpeed);
    body["response_format"] = "mp3";
    if (takesSpeed) body["speed"] = settings.speechRate;
    report(onDebug, log(Level::info, "请求老师语音",
                        "model: " + model + "\nlanguage: " + (language == TargetLanguage::japanese ? "japanese" : "chinese") +
                            "\nvoice: " + voice + "\nrate: " +
                            (takesSpeed ? formatRate(settings.speechRate) : "（写进指令，这个模型不收 speed 字段）") +
                            "\nchars: " + std::to_string(text::graphemeCount(text))));
    HttpRequest http;
    http.method = "POST";
    http.url = *endpoint;
    http.headers = {{"Authorization", "Bearer " + key}, {"Content-Type", "application/json"}};
    http.body = json::dumpLine(body);
    http.timeoutSeconds = kTimeoutSeconds;
    return transport_.send(http, [onDebug = std::move(onDebug), done = std::move(done)](Expected<HttpResponse> reply) {
        if (!reply) return done(reply.error());
        if (reply->status < 200 || reply->status > 299) {
            report(onDebug, log(Level::error, "老师语音失败",
                                "status: " + std::to_string(reply->status) + "\n" + firstCharacters(reply->body, 400)));
            return done(TranslatorError::apiError("语音合成失败（" + std::to_string(reply->status) + "）。").asError());
        }
        done(std::move(reply->body));
    });
}

}  // namespace osv
