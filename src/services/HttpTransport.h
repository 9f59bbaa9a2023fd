#pragma once

// The HTTP port of the wire clients: one request, one reply or failure, cancellable.
//
// Thread contract: send() is called on the main thread and `done` runs on the main thread,
// exactly once, unless the call is cancelled or destroyed first: then it never runs.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Expected.h"
#include "services/WebSocketTransport.h"

namespace osv {

struct MultipartPart {
    std::string name;
    std::optional<std::string> fileName;  // set for a file part
    std::string contentType;              // empty: none given
    std::string data;
    bool operator==(const MultipartPart&) const = default;
};

struct HttpRequest {
    std::string method = "GET";
    std::string url;
    HeaderList headers;
    // The body as given; ignored when `form` is set, which is sent as multipart/form-data
    // with a boundary of the transport's choosing.
    std::string body;
    std::optional<std::vector<MultipartPart>> form;
    double timeoutSeconds = 60.0;
};

struct HttpResponse {
    int status = 0;
    HeaderList headers;  // as received, names in the server's spelling
    std::string body;

    // The first header of that name, ignoring case.
    std::optional<std::string> header(std::string_view name) const;
};

class HttpCall {
public:
    // Destroying a call cancels it.
    virtual ~HttpCall() = default;
    virtual void cancel() = 0;
};

class HttpTransport {
public:
    // Error codes of a request that got no HTTP reply: "http_timeout", "http_failed".
    // A reply with any status, 4xx and 5xx included, is a response, not an error.
    using Completion = std::function<void(Expected<HttpResponse>)>;

    virtual ~HttpTransport() = default;
    virtual std::unique_ptr<HttpCall> send(const HttpRequest& request, Completion done) = 0;
};

}  // namespace osv
