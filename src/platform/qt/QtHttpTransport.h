#pragma once

// The HTTP port over QNetworkAccessManager. Certificates are verified as Qt does by
// default; nothing here turns that off.

#include <memory>

#include "services/HttpTransport.h"

class QNetworkAccessManager;

namespace osv {

class QtHttpTransport final : public HttpTransport {
public:
    // Create on the main thread.
    QtHttpTransport();
    ~QtHttpTransport() override;

    std::unique_ptr<HttpCall> send(const HttpRequest& request, Completion done) override;

private:
    std::unique_ptr<QNetworkAccessManager> manager_;
};

}  // namespace osv
