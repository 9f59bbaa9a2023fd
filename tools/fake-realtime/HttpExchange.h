#pragma once

// The plain HTTP side of the fake server, without Qt: reading requests off a byte stream,
// the rules that answer them, and the lines written to the record. main.cpp moves the
// bytes; everything that decides something is here, so that it is tested directly.

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace osv::fake {

using HeaderPairs = std::vector<std::pair<std::string, std::string>>;

struct HttpRequestData {
    std::string method;  // as sent, e.g. "POST"
    std::string path;    // percent-decoded, without the query
    std::string query;   // as sent, without "?"
    HeaderPairs headers;
    std::string body;    // chunked bodies already joined

    // The first header of that name, ignoring case.
    std::optional<std::string> header(std::string_view name) const;
    bool wantsClose() const;
};

struct ReadResult {
    enum class State { incomplete, complete, bad };
    State state = State::incomplete;
    HttpRequestData request;
    std::size_t consumed = 0;         // bytes of the buffer the complete request took
    bool headersComplete = false;     // for "Expect: 100-continue"
    bool expectsContinue = false;
    std::string problem;              // for bad
};

// Reads one request from the front of `buffer` (which is left alone).
ReadResult readRequest(std::string_view buffer);

// Whether the request asks to become a WebSocket (headers alone are enough to tell).
bool isWebSocketUpgrade(std::string_view headerBlock);

struct FormPart {
    std::string name;
    std::optional<std::string> fileName;
    std::string contentType;
    std::string data;
};

// The parts of a multipart/form-data body; none when the content type is not multipart or
// carries no boundary.
std::optional<std::vector<FormPart>> parseMultipart(std::string_view contentType, std::string_view body);

struct HttpReply {
    enum class Action { reply, drop, stall };
    Action action = Action::reply;
    int status = 200;
    HeaderPairs headers;  // including Content-Type
    std::string body;
    int delayMs = 0;
};

struct HttpRule {
    int line = 0;
    std::optional<std::string> method;  // upper case; none: any
    std::string path;                   // exact, or a prefix when `pathIsPrefix`
    bool pathIsPrefix = false;
    std::optional<std::string> query;   // a substring of the query
    std::vector<std::string> match;     // each must occur in the body's text
    HeaderPairs headerMatch;            // name (lower case), substring of the value
    std::vector<int> nth;               // empty: every request
    HttpReply reply;

    // `countOnPath`: this request's number among those of its method and path, from 1.
    bool matches(const HttpRequestData& request, int countOnPath) const;
};

// Reads one scenario line that has an "http" key. `baseDirectory` resolves "file" bodies.
std::optional<HttpRule> parseHttpRule(const nlohmann::ordered_json& j, int line, const std::string& baseDirectory,
                                      std::string& problem);

// The first rule in file order that answers, or null.
const HttpRule* chooseRule(const std::vector<HttpRule>& rules, const HttpRequestData& request, int countOnPath);

// What a request without a rule gets: 404 with an error envelope that names it.
HttpReply unmatchedReply(const HttpRequestData& request);

// The bytes of a response. `close`: say so and let the caller close after writing.
std::string renderResponse(const HttpReply& reply, bool close);

// Whether the request carried the expected key: "ok", "mismatch", "missing", or
// "present" when no key is expected. Looks at Authorization "Bearer K", the api-key
// headers and a "key" query item.
std::string keyCheck(const HeaderPairs& headers, std::string_view query, const std::optional<std::string>& expectedKey);

// The query without its "key" item, so that a key never reaches the record.
std::string queryWithoutKey(std::string_view query);

// Whether a header carries a key and so is never written down.
bool isKeyHeader(std::string_view name);

// The record line of one request (event "http"); `ms` counts from the server's start.
nlohmann::ordered_json recordOf(const HttpRequestData& request, int id, long long ms, const std::string& authorization,
                                const HttpRule* rule, const HttpReply& reply);

}  // namespace osv::fake
