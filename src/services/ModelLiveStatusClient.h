#pragma once

// The state of Model Live, the loopback transcription service: whether its audio service
// runs and which profiles are active. Main thread; `done` runs once, never from inside.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/Expected.h"
#include "core/Scheduler.h"
#include "services/HttpTransport.h"

namespace osv {

struct ModelLiveStatus {
    bool audio = false;                                        // services.audio
    std::optional<std::map<std::string, std::string>> activeProfiles;  // profiles.active

    // Forgiving: a missing or ill-typed field takes its default; none for no JSON object.
    static std::optional<ModelLiveStatus> decode(std::string_view body);
    bool operator==(const ModelLiveStatus&) const = default;
};

class ModelLiveStatusClient {
public:
    static constexpr double kTimeoutSeconds = 3.0;

    ModelLiveStatusClient(HttpTransport& http, Scheduler& scheduler, std::string base);
    ~ModelLiveStatusClient();

    // GET api/state; errors "local_invalid_response" and "local_http_status".
    void fetch(std::function<void(Expected<ModelLiveStatus>)> done);
    // The service's own page.
    std::string consoleURL() const;

private:
    HttpTransport& http_;
    Scheduler& scheduler_;
    std::string base_;
    std::unique_ptr<HttpCall> call_;
    Lifetime lifetime_;
};

}  // namespace osv
