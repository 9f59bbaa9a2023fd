#include "HttpExchange.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/Base64.h"
#include "core/Json.h"

namespace osv::fake {
namespace {

using json::Json;

std::string lowered(std::string_view s) {
    std::string out(s);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return out;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) { return lowered(a) == lowered(b); }

std::string_view trimmedView(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
    return s;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string percentDecoded(std::string_view s) {
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size() && hexValue(s[i + 1]) >= 0 && hexValue(s[i + 2]) >= 0) {
            out.push_back(char(hexValue(s[i + 1]) * 16 + hexValue(s[i + 2])));
            i += 2;
        } else {
            out.push_back(s[i]);
        }
    }
    return out;
}

struct HeaderBlock {
    std::string method, target;
    HeaderPairs headers;
};

std::optional<HeaderBlock> parseHeaderBlock(std::string_view block, std::string& problem) {
    HeaderBlock h;
    std::size_t lineEnd = block.find("\r\n");
    const std::string_view requestLine = block.substr(0, lineEnd);
    const auto s1 = requestLine.find(' ');
    const auto s2 = requestLine.rfind(' ');
    if (s1 == std::string_view::npos || s2 == s1 || requestLine.substr(s2 + 1).rfind("HTTP/", 0) != 0) {
        problem = "bad request line";
        return std::nullopt;
    }
    h.method = std::string(requestLine.substr(0, s1));
    h.target = std::string(requestLine.substr(s1 + 1, s2 - s1 - 1));
    while (lineEnd != std::string_view::npos && lineEnd + 2 < block.size()) {
        const std::size_t start = lineEnd + 2;
        lineEnd = block.find("\r\n", start);
        const std::string_view line = block.substr(start, lineEnd == std::string_view::npos ? block.npos : lineEnd - start);
        if (line.empty()) break;
        const auto colon = line.find(':');
        if (colon == std::string_view::npos || colon == 0) {
            problem = "bad header line";
            return std::nullopt;
        }
        h.headers.emplace_back(std::string(trimmedView(line.substr(0, colon))),
                               std::string(trimmedView(line.substr(colon + 1))));
    }
    return h;
}

std::optional<std::string> headerOf(const HeaderPairs& headers, std::string_view name) {
    for (const auto& [k, v] : headers)
        if (equalsIgnoringCase(k, name)) return v;
    return std::nullopt;
}

// A parameter of a header value such as `form-data; name="file"; filename="a.wav"`.
std::optional<std::string> headerParameter(std::string_view value, std::string_view name) {
    std::size_t pos = value.find(';');
    while (pos != std::string_view::npos) {
        std::size_t next = pos + 1;
        std::string_view rest = value.substr(next);
        // A quoted value may hold ';'.
        std::string_view item = trimmedView(rest.substr(0, rest.find(';')));
        const auto eq = item.find('=');
        if (eq != std::string_view::npos && equalsIgnoringCase(trimmedView(item.substr(0, eq)), name)) {
            std::string_view v = trimmedView(rest.substr(rest.find('=') + 1));
            if (!v.empty() && v.front() == '"') {
                const auto close = v.find('"', 1);
                return std::string(v.substr(1, close == std::string_view::npos ? v.npos : close - 1));
            }
            return std::string(trimmedView(v.substr(0, v.find(';'))));
        }
        pos = value.find(';', next);
    }
    return std::nullopt;
}

// Every string the body carries, for "match": the raw text, the decoded strings of a
// JSON body, the values of a form's parts.
std::vector<std::string> searchableTexts(const HttpRequestData& request) {
    std::vector<std::string> texts{request.body};
    if (auto parsed = json::parse(request.body)) {
        std::vector<const Json*> stack{&*parsed};
        while (!stack.empty()) {
            const Json* j = stack.back();
            stack.pop_back();
            if (j->is_string()) texts.push_back(j->get<std::string>());
            else if (j->is_structured())
                for (const auto& child : *j) stack.push_back(&child);
        }
    } else if (auto form = parseMultipart(request.header("content-type").value_or(""), request.body)) {
        for (auto& part : *form) texts.push_back(std::move(part.data));
    }
    return texts;
}

bool isValidUTF8(std::string_view s) {
    const auto parsed = json::parse(json::dumpLine(Json(std::string(s))));
    return parsed && parsed->is_string() && parsed->get<std::string>() == s;
}

Json bodyValue(const std::string& data) {
    if (isValidUTF8(data)) return Json(data);
    return Json::object({{"base64", base64Encode(reinterpret_cast<const std::uint8_t*>(data.data()), data.size())}});
}

std::string reasonPhrase(int status) {
    switch (status) {
        case 100: return "Continue";
        case 200: return "OK";
        case 201: return "Created";
        case 204: return "No Content";
        case 400: return "Bad Request";
        case 401: return "Unauthorized";
        case 403: return "Forbidden";
        case 404: return "Not Found";
        case 408: return "Request Timeout";
        case 413: return "Payload Too Large";
        case 429: return "Too Many Requests";
        case 500: return "Internal Server Error";
        case 502: return "Bad Gateway";
        case 503: return "Service Unavailable";
        case 504: return "Gateway Timeout";
        default: return "Status";
    }
}

std::string defaultContentType(const std::string& fileName) {
    const std::string ext = lowered(std::filesystem::path(fileName).extension().string());
    if (ext == ".mp3") return "audio/mpeg";
    if (ext == ".wav") return "audio/wav";
    if (ext == ".ogg" || ext == ".opus") return "audio/ogg";
    if (ext == ".m4a" || ext == ".mp4") return "audio/mp4";
    if (ext == ".json") return "application/json";
    if (ext == ".txt") return "text/plain; charset=utf-8";
    return "application/octet-stream";
}

}  // namespace

std::optional<std::string> HttpRequestData::header(std::string_view name) const { return headerOf(headers, name); }

bool HttpRequestData::wantsClose() const {
    return lowered(header("connection").value_or("")).find("close") != std::string::npos;
}

bool isWebSocketUpgrade(std::string_view headerBlock) {
    std::string problem;
    const auto h = parseHeaderBlock(headerBlock, problem);
    if (!h) return false;
    return lowered(headerOf(h->headers, "upgrade").value_or("")).find("websocket") != std::string::npos;
}

ReadResult readRequest(std::string_view buffer) {
    ReadResult r;
    const auto end = buffer.find("\r\n\r\n");
    if (end == std::string_view::npos) {
        if (buffer.size() > 256 * 1024) {
            r.state = ReadResult::State::bad;
            r.problem = "headers too long";
        }
        return r;
    }
    auto h = parseHeaderBlock(buffer.substr(0, end + 2), r.problem);
    if (!h) {
        r.state = ReadResult::State::bad;
        return r;
    }
    r.headersComplete = true;
    HttpRequestData& q = r.request;
    q.method = h->method;
    q.headers = std::move(h->headers);
    const auto mark = h->target.find('?');
    q.path = percentDecoded(std::string_view(h->target).substr(0, mark));
    if (mark != std::string::npos) q.query = h->target.substr(mark + 1);
    r.expectsContinue = lowered(q.header("expect").value_or("")) == "100-continue";

    std::size_t pos = end + 4;
    if (lowered(q.header("transfer-encoding").value_or("")).find("chunked") != std::string::npos) {
        while (true) {
            const auto lineEnd = buffer.find("\r\n", pos);
            if (lineEnd == std::string_view::npos) return r;
            std::size_t size = 0;
            std::string_view sizeText = buffer.substr(pos, lineEnd - pos);
            sizeText = sizeText.substr(0, sizeText.find(';'));
            if (sizeText.empty()) {
                r.state = ReadResult::State::bad;
                r.problem = "bad chunk size";
                return r;
            }
            for (char c : sizeText) {
                if (hexValue(c) < 0 || size > (std::size_t(1) << 40)) {
                    r.state = ReadResult::State::bad;
                    r.problem = "bad chunk size";
                    return r;
                }
                size = size * 16 + std::size_t(hexValue(c));
            }
            pos = lineEnd + 2;
            if (size == 0) {
                // Trailers, then the empty line.
                const auto trailerEnd = buffer.find("\r\n", pos);
                if (trailerEnd == std::string_view::npos) return r;
                if (trailerEnd != pos) {
                    const auto all = buffer.find("\r\n\r\n", pos);
                    if (all == std::string_view::npos) return r;
                    pos = all + 4;
                } else {
                    pos += 2;
                }
                break;
            }
            if (buffer.size() < pos + size + 2) return r;
            q.body.append(buffer.substr(pos, size));
            pos += size + 2;
        }
    } else if (auto length = q.header("content-length")) {
        std::size_t n = 0;
        for (char c : trimmedView(*length)) {
            if (c < '0' || c > '9' || n > (std::size_t(1) << 40)) {
                r.state = ReadResult::State::bad;
                r.problem = "bad Content-Length";
                return r;
            }
            n = n * 10 + std::size_t(c - '0');
        }
        if (buffer.size() < pos + n) return r;
        q.body.assign(buffer.substr(pos, n));
        pos += n;
    }
    r.state = ReadResult::State::complete;
    r.consumed = pos;
    return r;
}

std::optional<std::vector<FormPart>> parseMultipart(std::string_view contentType, std::string_view body) {
    if (lowered(contentType).rfind("multipart/", 0) != 0) return std::nullopt;
    const auto boundary = headerParameter(contentType, "boundary");
    if (!boundary || boundary->empty()) return std::nullopt;
    const std::string delimiter = "--" + *boundary;
    std::vector<FormPart> parts;
    std::size_t pos = body.find(delimiter);
    while (pos != std::string_view::npos) {
        pos += delimiter.size();
        if (body.substr(pos, 2) == "--") break;  // the closing delimiter
        if (body.substr(pos, 2) == "\r\n") pos += 2;
        const auto headersEnd = body.find("\r\n\r\n", pos);
        if (headersEnd == std::string_view::npos) break;
        const auto next = body.find("\r\n" + delimiter, headersEnd + 4);
        if (next == std::string_view::npos) break;
        FormPart part;
        std::string_view headerText = body.substr(pos, headersEnd - pos);
        std::size_t at = 0;
        while (at <= headerText.size()) {
            const auto lineEnd = headerText.find("\r\n", at);
            const std::string_view line = headerText.substr(at, lineEnd == std::string_view::npos ? headerText.npos : lineEnd - at);
            const auto colon = line.find(':');
            if (colon != std::string_view::npos) {
                const auto name = trimmedView(line.substr(0, colon));
                const auto value = trimmedView(line.substr(colon + 1));
                if (equalsIgnoringCase(name, "content-disposition")) {
                    part.name = headerParameter(value, "name").value_or("");
                    part.fileName = headerParameter(value, "filename");
                } else if (equalsIgnoringCase(name, "content-type")) {
                    part.contentType = std::string(value);
                }
            }
            if (lineEnd == std::string_view::npos) break;
            at = lineEnd + 2;
        }
        part.data = std::string(body.substr(headersEnd + 4, next - headersEnd - 4));
        parts.push_back(std::move(part));
        pos = next + 2;
    }
    return parts;
}

bool HttpRule::matches(const HttpRequestData& request, int countOnPath) const {
    if (method && !equalsIgnoringCase(*method, request.method)) return false;
    if (pathIsPrefix ? request.path.rfind(path, 0) != 0 : request.path != path) return false;
    if (query && request.query.find(*query) == std::string::npos && percentDecoded(request.query).find(*query) == std::string::npos)
        return false;
    if (!nth.empty() && std::find(nth.begin(), nth.end(), countOnPath) == nth.end()) return false;
    for (const auto& [name, part] : headerMatch) {
        const auto value = request.header(name);
        if (!value || value->find(part) == std::string::npos) return false;
    }
    if (!match.empty()) {
        const auto texts = searchableTexts(request);
        for (const auto& m : match)
            if (std::none_of(texts.begin(), texts.end(), [&](const std::string& t) { return t.find(m) != std::string::npos; }))
                return false;
    }
    return true;
}

std::optional<HttpRule> parseHttpRule(const Json& j, int line, const std::string& baseDirectory, std::string& problem) {
    static const std::vector<std::string> kRuleKeys{"http", "reply"};
    static const std::vector<std::string> kRequestKeys{"method", "path", "query", "match", "headers", "nth"};
    static const std::vector<std::string> kReplyKeys{"status", "headers", "json", "body", "base64", "file",
                                                     "delay_ms", "drop", "stall"};
    auto unknownKey = [&](const Json& object, const std::vector<std::string>& known, const char* where) {
        for (auto it = object.begin(); it != object.end(); ++it)
            if (std::find(known.begin(), known.end(), it.key()) == known.end()) {
                problem = "unknown key \"" + it.key() + "\"" + where;
                return true;
            }
        return false;
    };
    if (unknownKey(j, kRuleKeys, "")) return std::nullopt;
    const Json& http = j.at("http");
    if (!http.is_object()) {
        problem = "\"http\" takes the request to answer, e.g. {\"method\": \"POST\", \"path\": \"/v1/responses\"}";
        return std::nullopt;
    }
    if (unknownKey(http, kRequestKeys, " in \"http\"")) return std::nullopt;
    HttpRule r;
    r.line = line;
    if (const auto m = http.find("method"); m != http.end()) {
        if (!m->is_string() || m->get<std::string>().empty()) {
            problem = "\"method\" takes a string such as \"POST\"";
            return std::nullopt;
        }
        std::string method = m->get<std::string>();
        std::transform(method.begin(), method.end(), method.begin(), [](unsigned char c) { return char(std::toupper(c)); });
        r.method = method;
    }
    const auto path = http.find("path");
    if (path == http.end() || !path->is_string() || path->get<std::string>().empty() ||
        path->get<std::string>().front() != '/') {
        problem = "\"path\" takes the path, from \"/\"; a trailing \"*\" makes it a prefix";
        return std::nullopt;
    }
    r.path = path->get<std::string>();
    if (r.path.back() == '*') {
        r.path.pop_back();
        r.pathIsPrefix = true;
    }
    if (const auto q = http.find("query"); q != http.end()) {
        if (!q->is_string()) {
            problem = "\"query\" takes a piece of the query string";
            return std::nullopt;
        }
        r.query = q->get<std::string>();
    }
    if (const auto m = http.find("match"); m != http.end()) {
        if (m->is_string()) {
            r.match.push_back(m->get<std::string>());
        } else if (m->is_array() && std::all_of(m->begin(), m->end(), [](const Json& x) { return x.is_string(); })) {
            for (const auto& x : *m) r.match.push_back(x.get<std::string>());
        } else {
            problem = "\"match\" takes a string or a list of strings, each to be found in the body";
            return std::nullopt;
        }
    }
    if (const auto h = http.find("headers"); h != http.end()) {
        if (!h->is_object()) {
            problem = "\"headers\" in \"http\" takes {\"name\": \"piece of the value\"}";
            return std::nullopt;
        }
        for (auto it = h->begin(); it != h->end(); ++it) {
            if (!it->is_string()) {
                problem = "\"headers\" in \"http\" takes string values";
                return std::nullopt;
            }
            r.headerMatch.emplace_back(lowered(it.key()), it->get<std::string>());
        }
    }
    if (const auto n = http.find("nth"); n != http.end()) {
        const auto addNth = [&](const Json& x) {
            if (!x.is_number_integer() || x.get<long long>() < 1 || x.get<long long>() > 1'000'000'000) return false;
            r.nth.push_back(int(x.get<long long>()));
            return true;
        };
        bool ok = n->is_array() ? !n->empty() && std::all_of(n->begin(), n->end(), addNth) : addNth(*n);
        if (!ok) {
            problem = "\"nth\" takes a whole number from 1, or a list of them";
            return std::nullopt;
        }
    }

    const auto replyIt = j.find("reply");
    if (replyIt == j.end() || !replyIt->is_object()) {
        problem = "an \"http\" rule needs \"reply\": {\"status\": 200, \"json\": {...}}";
        return std::nullopt;
    }
    const Json& reply = *replyIt;
    if (unknownKey(reply, kReplyKeys, " in \"reply\"")) return std::nullopt;
    HttpReply& out = r.reply;
    if (const auto s = reply.find("status"); s != reply.end()) {
        if (!s->is_number_integer() || s->get<long long>() < 100 || s->get<long long>() > 599) {
            problem = "\"status\" takes 100 to 599";
            return std::nullopt;
        }
        out.status = int(s->get<long long>());
    }
    if (const auto d = reply.find("delay_ms"); d != reply.end()) {
        if (!d->is_number_integer() || d->get<long long>() < 0 || d->get<long long>() > 600'000) {
            problem = "\"delay_ms\" takes 0 to 600000";
            return std::nullopt;
        }
        out.delayMs = int(d->get<long long>());
    }
    int bodies = 0;
    std::string contentType;
    if (const auto b = reply.find("json"); b != reply.end()) {
        ++bodies;
        out.body = json::dumpLine(*b);
        contentType = "application/json";
    }
    if (const auto b = reply.find("body"); b != reply.end()) {
        ++bodies;
        if (!b->is_string()) {
            problem = "\"body\" takes a string, sent as it is";
            return std::nullopt;
        }
        out.body = b->get<std::string>();
        contentType = "text/plain; charset=utf-8";
    }
    if (const auto b = reply.find("base64"); b != reply.end()) {
        ++bodies;
        const auto bytes = b->is_string() ? base64Decode(b->get<std::string>()) : std::nullopt;
        if (!bytes) {
            problem = "\"base64\" takes standard base64 text";
            return std::nullopt;
        }
        out.body.assign(bytes->begin(), bytes->end());
        contentType = "application/octet-stream";
    }
    if (const auto b = reply.find("file"); b != reply.end()) {
        ++bodies;
        if (!b->is_string() || b->get<std::string>().empty()) {
            problem = "\"file\" takes a path, relative to the scenario file's folder";
            return std::nullopt;
        }
        std::filesystem::path file = b->get<std::string>();
        if (file.is_relative() && !baseDirectory.empty()) file = std::filesystem::path(baseDirectory) / file;
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            problem = "cannot read \"" + file.string() + "\"";
            return std::nullopt;
        }
        std::ostringstream data;
        data << in.rdbuf();
        out.body = data.str();
        contentType = defaultContentType(file.string());
    }
    for (const char* action : {"drop", "stall"}) {
        if (const auto a = reply.find(action); a != reply.end()) {
            ++bodies;
            if (!a->is_boolean() || !a->get<bool>()) {
                problem = std::string("\"") + action + "\" takes true";
                return std::nullopt;
            }
            out.action = std::string(action) == "drop" ? HttpReply::Action::drop : HttpReply::Action::stall;
        }
    }
    if (bodies > 1) {
        problem = "give at most one of \"json\", \"body\", \"base64\", \"file\", \"drop\", \"stall\"";
        return std::nullopt;
    }
    bool hasContentType = false;
    if (const auto h = reply.find("headers"); h != reply.end()) {
        if (!h->is_object()) {
            problem = "\"headers\" in \"reply\" takes {\"name\": \"value\"}";
            return std::nullopt;
        }
        for (auto it = h->begin(); it != h->end(); ++it) {
            std::string value;
            if (it->is_string()) value = it->get<std::string>();
            else if (it->is_number_integer()) value = std::to_string(it->get<long long>());
            else {
                problem = "\"headers\" in \"reply\" takes strings or whole numbers";
                return std::nullopt;
            }
            if (value.find_first_of("\r\n") != std::string::npos || it.key().find_first_of("\r\n:") != std::string::npos) {
                problem = "a header may not hold a line end";
                return std::nullopt;
            }
            if (equalsIgnoringCase(it.key(), "content-length")) continue;  // always computed
            hasContentType = hasContentType || equalsIgnoringCase(it.key(), "content-type");
            out.headers.emplace_back(it.key(), value);
        }
    }
    if (!hasContentType && !contentType.empty()) out.headers.emplace(out.headers.begin(), "Content-Type", contentType);
    return r;
}

const HttpRule* chooseRule(const std::vector<HttpRule>& rules, const HttpRequestData& request, int countOnPath) {
    for (const auto& rule : rules)
        if (rule.matches(request, countOnPath)) return &rule;
    return nullptr;
}

HttpReply unmatchedReply(const HttpRequestData& request) {
    HttpReply reply;
    reply.status = 404;
    Json body = Json::object();
    body["error"]["message"] = "fake-realtime: no rule answers " + request.method + " " + request.path;
    body["error"]["type"] = "not_found";
    reply.body = json::dumpLine(body);
    reply.headers.emplace_back("Content-Type", "application/json");
    return reply;
}

std::string renderResponse(const HttpReply& reply, bool close) {
    std::string out = "HTTP/1.1 " + std::to_string(reply.status) + " " + reasonPhrase(reply.status) + "\r\n";
    for (const auto& [name, value] : reply.headers) out += name + ": " + value + "\r\n";
    out += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n";
    out += close ? "Connection: close\r\n" : "Connection: keep-alive\r\n";
    out += "\r\n";
    out += reply.body;
    return out;
}

bool isKeyHeader(std::string_view name) {
    const std::string n = lowered(name);
    return n == "authorization" || n == "x-api-key" || n == "api-key" || n == "x-goog-api-key" ||
           n == "proxy-authorization";
}

std::string keyCheck(const HeaderPairs& headers, std::string_view query, const std::optional<std::string>& expectedKey) {
    std::vector<std::string> offered;
    for (const auto& [name, value] : headers) {
        if (!isKeyHeader(name)) continue;
        std::string v = value;
        if (lowered(name) == "authorization" && lowered(v).rfind("bearer ", 0) == 0) v = v.substr(7);
        offered.push_back(v);
    }
    std::size_t pos = 0;
    while (pos <= query.size()) {
        const auto amp = query.find('&', pos);
        const std::string_view item = query.substr(pos, amp == std::string_view::npos ? query.npos : amp - pos);
        if (item.rfind("key=", 0) == 0) offered.push_back(percentDecoded(item.substr(4)));
        if (amp == std::string_view::npos) break;
        pos = amp + 1;
    }
    if (offered.empty()) return "missing";
    if (!expectedKey) return "present";
    return std::any_of(offered.begin(), offered.end(), [&](const std::string& k) { return k == *expectedKey; })
               ? "ok"
               : "mismatch";
}

std::string queryWithoutKey(std::string_view query) {
    std::string out;
    std::size_t pos = 0;
    while (pos <= query.size() && !query.empty()) {
        const auto amp = query.find('&', pos);
        const std::string_view item = query.substr(pos, amp == std::string_view::npos ? query.npos : amp - pos);
        if (item.rfind("key=", 0) != 0 && item != "key") {
            if (!out.empty()) out += '&';
            out += item;
        }
        if (amp == std::string_view::npos) break;
        pos = amp + 1;
    }
    return out;
}

Json recordOf(const HttpRequestData& request, int id, long long ms, const std::string& authorization,
              const HttpRule* rule, const HttpReply& reply) {
    Json line = Json::object();
    line["event"] = "http";
    line["id"] = id;
    line["ms"] = ms;
    line["method"] = request.method;
    line["path"] = request.path;
    line["query"] = percentDecoded(queryWithoutKey(request.query));
    line["authorization"] = authorization;
    Json headers = Json::object();
    for (const auto& [name, value] : request.headers)
        if (!isKeyHeader(name)) headers[lowered(name)] = value;
    line["headers"] = headers;
    const std::string contentType = request.header("content-type").value_or("");
    if (auto form = parseMultipart(contentType, request.body)) {
        Json parts = Json::array();
        for (const auto& p : *form) {
            Json part = Json::object();
            part["name"] = p.name;
            if (p.fileName) part["filename"] = *p.fileName;
            if (!p.contentType.empty()) part["content_type"] = p.contentType;
            part["size"] = p.data.size();
            // The value of a plain field is short text worth reading; a file is only sized.
            if (!p.fileName) part["value"] = bodyValue(p.data);
            parts.push_back(std::move(part));
        }
        line["multipart"] = std::move(parts);
    } else if (request.body.empty()) {
        // nothing
    } else if (auto parsed = json::parse(request.body)) {
        line["json"] = std::move(*parsed);
    } else {
        line["body"] = bodyValue(request.body);
    }
    line["bytes"] = request.body.size();
    line["rule"] = rule ? Json(rule->line) : Json(nullptr);
    switch (reply.action) {
        case HttpReply::Action::reply: line["status"] = reply.status; break;
        case HttpReply::Action::drop: line["status"] = "drop"; break;
        case HttpReply::Action::stall: line["status"] = "stall"; break;
    }
    return line;
}

}  // namespace osv::fake
