#include "services/ModelLiveStatusClient.h"

#include "core/Json.h"
#include "services/ServiceEndpoints.h"

namespace osv {

using json::Json;

std::optional<ModelLiveStatus> ModelLiveStatus::decode(std::string_view body) {
    const auto reply = json::parse(body);
    if (!reply || !reply->is_object()) return std::nullopt;
    ModelLiveStatus status;
    if (const Json* services = json::member(*reply, "services")) status.audio = json::read<bool>(*services, "audio", false);
    if (const Json* profiles = json::member(*reply, "profiles"))
        if (const Json* active = json::member(*profiles, "active"); active && active->is_object()) {
            std::map<std::string, std::string> map;
            for (auto it = active->begin(); it != active->end(); ++it)
                if (auto v = json::as<std::string>(*it)) map[it.key()] = *v;
            status.activeProfiles = std::move(map);
        }
    return status;
}

ModelLiveStatusClient::ModelLiveStatusClient(HttpTransport& http, Scheduler& scheduler, std::string base)
    : http_(http), scheduler_(scheduler), base_(std::move(base)) {}

ModelLiveStatusClient::~ModelLiveStatusClient() = default;

std::string ModelLiveStatusClient::consoleURL() const { return httpEndpointURL(base_, "/").value_or(base_); }

void ModelLiveStatusClient::fetch(std::function<void(Expected<ModelLiveStatus>)> done) {
    HttpRequest request;
    request.url = httpEndpointURL(base_, "/api/state").value_or("");
    request.timeoutSeconds = kTimeoutSeconds;
    call_ = http_.send(request, [this, guard = lifetime_.guard(), done = std::move(done)](Expected<HttpResponse> r) {
        if (guard.expired()) return;
        std::shared_ptr<HttpCall> call(std::move(call_));
        scheduler_.post([call] {});
        if (!r) return done(Error{"local_invalid_response", "本地模型没有返回 HTTP 响应"});
        if (r->status < 200 || r->status > 299)
            return done(Error{"local_http_status", "本地模型返回 HTTP " + std::to_string(r->status)});
        auto status = ModelLiveStatus::decode(r->body);
        if (!status) return done(Error{"local_invalid_response", "本地模型返回的状态无法解析"});
        done(std::move(*status));
    });
}

}  // namespace osv
