#include "live/RealtimeConnections.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include <nlohmann/json.hpp>

#include "settings/TranslatorSettings.h"

namespace osv {

using Level = DebugEvent::Level;

RealtimeConnections::RotationPolicy RealtimeConnections::RotationPolicy::fromEnvironment() {
    RotationPolicy policy;
    if (const char* given = std::getenv("OSV_REALTIME_ROTATE_AFTER"); given && *given) {
        char* end = nullptr;
        const double seconds = std::strtod(given, &end);
        if (end && *end == '\0' && seconds > 0) policy.overrideAgeSeconds = seconds;
    }
    return policy;
}

RealtimeConnections::RealtimeConnections(Scheduler& scheduler, ClientFactory factory, Host& host,
                                         RotationPolicy rotation)
    : scheduler_(scheduler), factory_(std::move(factory)), host_(host), rotation_(rotation) {}

RealtimeConnections::~RealtimeConnections() = default;

void RealtimeConnections::debug(Level level, std::string title, std::string details, std::optional<std::string> code) {
    host_.clientDebug(OpenAIDebugLog{level, DebugEvent::Category::openAI, std::move(title), std::move(details),
                                     std::move(code)});
}

std::unique_ptr<RealtimeConnections::Client> RealtimeConnections::makeClient(CaptureChannel, const Uuid&) {
    return factory_();
}

void RealtimeConnections::connect(CaptureChannel channel, const Uuid& recordingID,
                                  std::function<void(Expected<void>)> done) {
    // A rotation under way gives way to the new connection.
    if (auto r = rotating_.find(channel); r != rotating_.end()) {
        std::map<CaptureChannel, std::unique_ptr<Client>> abandoned;
        abandoned.emplace(channel, std::move(r->second));
        rotating_.erase(r);
        closeGracefully(std::move(abandoned));
    }
    rotationChecks_.erase(channel);
    auto client = makeClient(channel, recordingID);
    Client* raw = client.get();
    clients_[channel] = std::move(client);
    connected_[channel] = false;
    eventCounts_[channel] = 0;
    const auto alive = lifetime_.guard();
    raw->start(
        host_.connectionSettings(channel), kTargetLanguageCode, true,
        [this, alive, raw, channel, recordingID](const RealtimeTranslationEvent& event) {
            if (!alive.expired()) clientEvent(raw, event, channel, recordingID);
        },
        [this, alive](const OpenAIDebugLog& log) {
            if (!alive.expired()) host_.clientDebug(log);
        },
        [this, alive, raw, channel, recordingID, done = std::move(done)](Expected<void> result) {
            if (alive.expired()) return;
            auto it = clients_.find(channel);
            const bool current = it != clients_.end() && it->second.get() == raw;
            if (current && result) {
                connected_[channel] = true;
                connectedAt_[channel] = scheduler_.now();
                flushPending(channel);
                armRotationCheck(channel, recordingID, 1.0);
            }
            if (!current && result) result = Error{"realtime_superseded", "连接已被替换。"};
            if (done) done(std::move(result));
        });
}

// Every client's events come through here, whether it is in service, draining after a
// rotation, or still in its handshake as a rotation's new connection (which reports nothing
// before it takes over).
void RealtimeConnections::clientEvent(Client* raw, const RealtimeTranslationEvent& event, CaptureChannel channel,
                                      const Uuid& recordingID) {
    using Kind = RealtimeTranslationEvent::Kind;
    // An old connection draining after a rotation still delivers its last text; nothing else.
    for (auto& r : retired_)
        if (r.client.get() == raw) {
            if (event.kind != Kind::inputTranscriptDelta && event.kind != Kind::outputTranscriptDelta) return;
            r.lastEventAt = scheduler_.now();
            host_.realtimeEvent(event, channel, recordingID);
            return;
        }
    // A client not in service (taken out, or not yet in) reports nothing.
    auto it = clients_.find(channel);
    if (it == clients_.end() || it->second.get() != raw) return;
    ++eventCounts_[channel];
    if (event.kind == Kind::failed || event.kind == Kind::closed) {
        connected_[channel] = false;  // audio is held from now until a new connection is up
        host_.connectionLost(channel);
    }
    host_.realtimeEvent(event, channel, recordingID);
}

std::optional<Date> RealtimeConnections::rotationDueAt(CaptureChannel channel) const {
    auto at = connectedAt_.find(channel);
    auto client = clients_.find(channel);
    if (at == connectedAt_.end() || client == clients_.end()) return std::nullopt;
    if (rotation_.overrideAgeSeconds) return at->second + *rotation_.overrideAgeSeconds;
    if (auto expires = client->second->sessionExpiresAt()) {
        // Some minutes before the end, but never in the first half of a short lifetime.
        const double lifetime = std::max(0.0, Date::fromUnixSeconds(*expires) - at->second);
        const double margin = std::min(rotation_.beforeExpirySeconds, lifetime * 0.25);
        return at->second + std::max(lifetime - margin, lifetime * 0.5);
    }
    return at->second + rotation_.defaultAgeSeconds;
}

void RealtimeConnections::armRotationCheck(CaptureChannel channel, const Uuid& recordingID, double seconds) {
    rotationChecks_[channel] = scheduler_.after(seconds, [this, channel, recordingID] { checkRotation(channel, recordingID); });
}

// Runs while a channel has a connection: far from the due time it looks again shortly before
// it; once due, it waits for a quiet moment, at the latest quietWaitSeconds.
void RealtimeConnections::checkRotation(CaptureChannel channel, const Uuid& recordingID) {
    if (!host_.mayReconnect(recordingID, channel) || !isConnected(channel) || isRotating(channel)) {
        if (clients_.count(channel)) armRotationCheck(channel, recordingID, 1.0);
        return;
    }
    const auto due = rotationDueAt(channel);
    if (!due) return;
    const Date now = scheduler_.now();
    if (now < *due) {
        armRotationCheck(channel, recordingID, std::clamp(*due - now, 0.2, 30.0));
        return;
    }
    if (host_.isQuietMoment(channel) || now - *due >= rotation_.quietWaitSeconds) {
        beginRotation(channel, recordingID);
        return;
    }
    armRotationCheck(channel, recordingID, 0.2);
}

void RealtimeConnections::beginRotation(CaptureChannel channel, const Uuid& recordingID) {
    const Date now = scheduler_.now();
    const double age = connectedAt_.count(channel) ? now - connectedAt_[channel] : 0;
    char details[160];
    std::snprintf(details, sizeof details, "channel: %s\nageS: %.0f", std::string(rawValue(channel)).c_str(), age);
    debug(Level::info, "实时连接到龄，正在轮换", std::string(details) + "\n先开新连接，连上后再放掉旧的；期间的音频先存着。",
          "realtime_rotation_started");
    // From here the channel's audio is held for the new connection: no byte goes to both.
    connected_[channel] = false;
    auto next = makeClient(channel, recordingID);
    Client* raw = next.get();
    rotating_[channel] = std::move(next);
    const auto alive = lifetime_.guard();
    raw->start(
        host_.connectionSettings(channel), kTargetLanguageCode, true,
        [this, alive, raw, channel, recordingID](const RealtimeTranslationEvent& event) {
            if (!alive.expired()) clientEvent(raw, event, channel, recordingID);
        },
        [this, alive](const OpenAIDebugLog& log) {
            if (!alive.expired()) host_.clientDebug(log);
        },
        [this, alive, raw, channel, recordingID, age](Expected<void> result) {
            if (alive.expired()) return;
            auto r = rotating_.find(channel);
            if (r == rotating_.end() || r->second.get() != raw) return;  // abandoned meanwhile
            std::unique_ptr<Client> incoming = std::move(r->second);
            rotating_.erase(r);
            auto old = clients_.find(channel);
            if (!result || old == clients_.end()) {
                // The old connection serves on; what was held goes to it.
                std::map<CaptureChannel, std::unique_ptr<Client>> failed;
                failed.emplace(channel, std::move(incoming));
                closeGracefully(std::move(failed));
                if (old != clients_.end()) {
                    connected_[channel] = true;
                    flushPending(channel);
                }
                debug(Level::warning, "实时连接轮换失败，继续用旧连接",
                      "channel: " + std::string(rawValue(channel)) + "\n" +
                          (result ? std::string("旧连接已不在") : result.error().message) + "\n稍后再试。",
                      "realtime_rotation_failed");
                armRotationCheck(channel, recordingID, rotation_.retrySeconds);
                return;
            }
            // The new connection takes the channel; the old one drains what is on its way.
            std::unique_ptr<Client> retiring = std::move(old->second);
            old->second = std::move(incoming);
            connected_[channel] = true;
            connectedAt_[channel] = scheduler_.now();
            ++rotations_;
            Client* retiringRaw = retiring.get();
            retired_.push_back({std::move(retiring), scheduler_.now(), {}});
            host_.realtimeEvent(RealtimeTranslationEvent::connected(), channel, recordingID);
            flushPending(channel);
            char text[160];
            std::snprintf(text, sizeof text, "channel: %s\noldAgeS: %.0f", std::string(rawValue(channel)).c_str(), age);
            debug(Level::success, "实时连接已轮换", std::string(text) + "\n旧连接收尾后关闭。", "realtime_rotation_succeeded");
            drainRetired(retiringRaw, scheduler_.now() + kRetiredDrainLimitSeconds);
            armRotationCheck(channel, recordingID, 1.0);
        });
}

// The old connection of a rotation closes once it has been quiet for a moment, or at the latest.
void RealtimeConnections::drainRetired(Client* client, Date deadline) {
    auto it = std::find_if(retired_.begin(), retired_.end(), [client](const Retired& r) { return r.client.get() == client; });
    if (it == retired_.end()) return;
    const Date now = scheduler_.now();
    if (now >= deadline || now - it->lastEventAt >= kRetiredQuietSeconds) {
        std::map<CaptureChannel, std::unique_ptr<Client>> done;
        done.emplace(CaptureChannel::system, std::move(it->client));
        retired_.erase(it);
        closeGracefully(std::move(done));
        return;
    }
    it->poll = scheduler_.after(0.12, [this, client, deadline] { drainRetired(client, deadline); });
}

void RealtimeConnections::cancelRotations() {
    rotationChecks_.clear();
    std::map<CaptureChannel, std::unique_ptr<Client>> pending;
    for (auto& [channel, client] : rotating_) pending.emplace(channel, std::move(client));
    rotating_.clear();
    closeGracefully(std::move(pending));
}

bool RealtimeConnections::isConnected(CaptureChannel channel) const {
    auto it = connected_.find(channel);
    return it != connected_.end() && it->second && clients_.count(channel);
}

void RealtimeConnections::send(CaptureChannel channel, const PCMBytes& pcm) {
    auto it = clients_.find(channel);
    if (it == clients_.end() || pcm.empty()) return;
    unbilledAudioSeconds += double(pcm.size()) / double(kWorkingBytesPerSecond);
    (void)it->second->sendAudio(pcm);  // a socket that just failed reports through its events
}

void RealtimeConnections::flushPending(CaptureChannel channel) {
    CaptureHandoff::Held held = host_.takePendingAudio(channel);
    const double seconds = double(held.bytes.size()) / double(kWorkingBytesPerSecond);
    const double dropped = double(held.droppedBytes) / double(kWorkingBytesPerSecond);
    if (!held.bytes.empty()) send(channel, held.bytes);
    if (held.afterOutage) {
        if (held.bytes.empty() && held.droppedBytes == 0) return;
        char text[96];
        std::snprintf(text, sizeof text, "\nheldS: %.1f\ndroppedS: %.1f", seconds, dropped);
        debug(dropped > 0 ? Level::warning : Level::info, "补送断线期间的音频",
              "channel: " + std::string(rawValue(channel)) + text +
                  (dropped > 0 ? "\n断线太久，最早的部分没能保留。" : ""),
              "outage_audio_flushed");
        return;
    }
    if (held.bytes.empty()) return;
    debug(Level::info, "补送握手期间的音频",
          "channel: " + std::string(rawValue(channel)) + ", " + std::to_string(std::lround(seconds)) + "s 左右",
          "handshake_audio_flushed");
}

std::optional<std::string> RealtimeConnections::rearmTranscription(CaptureChannel channel) {
    auto it = clients_.find(channel);
    if (it == clients_.end()) return std::nullopt;
    const auto alive = lifetime_.guard();
    return it->second->rearmTranscription([this, alive](const OpenAIDebugLog& log) {
        if (!alive.expired()) host_.clientDebug(log);
    });
}

std::map<CaptureChannel, std::unique_ptr<RealtimeConnections::Client>> RealtimeConnections::takeRealtimeClients() {
    cancelRotations();
    auto taken = std::move(clients_);
    clients_.clear();
    connected_.clear();
    return taken;
}

void RealtimeConnections::closeGracefully(std::map<CaptureChannel, std::unique_ptr<Client>> clients) {
    for (auto& [channel, client] : clients) {
        if (!client) continue;
        if (client->hasSocket() && !client->isClosing()) {
            client->markClosing();
            (void)client->sendJSON(nlohmann::ordered_json{{"type", "session.close"}});
        }
        Client* raw = client.get();
        closing_.push_back(std::move(client));
        const auto alive = lifetime_.guard();
        raw->close([this, alive, raw] {
            // Released on a later turn: this may run inside the client's own call.
            scheduler_.post([this, alive, raw] {
                if (alive.expired()) return;
                closing_.erase(std::remove_if(closing_.begin(), closing_.end(),
                                              [raw](const auto& c) { return c.get() == raw; }),
                               closing_.end());
            });
        });
    }
}

int RealtimeConnections::reconnectAttempts(CaptureChannel channel) const {
    auto it = reconnectAttempts_.find(channel);
    return it == reconnectAttempts_.end() ? 0 : it->second;
}

bool RealtimeConnections::isReconnecting(CaptureChannel channel) const {
    auto it = reconnectTasks_.find(channel);
    return it != reconnectTasks_.end() && it->second.isPending();
}

void RealtimeConnections::cancelReconnects() {
    reconnectTasks_.clear();
    reconnectAttempts_.clear();
}

std::optional<Date> RealtimeConnections::connectedAt(CaptureChannel channel) const {
    auto it = connectedAt_.find(channel);
    return it == connectedAt_.end() ? std::nullopt : std::optional<Date>(it->second);
}

int RealtimeConnections::eventCount(CaptureChannel channel) const {
    auto it = eventCounts_.find(channel);
    return it == eventCounts_.end() ? 0 : it->second;
}

void RealtimeConnections::scheduleRealtimeReconnect(CaptureChannel channel, const Uuid& recordingID,
                                                    const std::string& because) {
    if (!host_.mayReconnect(recordingID, channel)) return;
    if (isReconnecting(channel)) return;
    const int attempt = ++reconnectAttempts_[channel];
    const double delay = std::min(kMaximumBackoffSeconds, std::pow(2.0, double(std::min(attempt - 1, 10))));
    hadCaptionOutage = true;
    host_.setLiveNotice(attempt < 4 ? "连接中断，正在重连（第 " + std::to_string(attempt) + " 次）…"
                                    : "字幕已中断，仍在重连（第 " + std::to_string(attempt) +
                                          " 次）。录音在继续，结束后可以对这段录音重新转写。");
    char delayText[32];
    std::snprintf(delayText, sizeof delayText, "%g", delay);
    debug(Level::warning, "同传连接中断，准备重连",
          "channel: " + std::string(rawValue(channel)) + "\nattempt: " + std::to_string(attempt) +
              "\ndelayS: " + delayText + "\nreason: " + because,
          "realtime_reconnect_scheduled");
    reconnectTasks_[channel] = scheduler_.after(delay, [this, channel, recordingID] {
        if (!host_.mayReconnect(recordingID, channel)) return;
        // The old client goes out of service first; audio keeps being held meanwhile.
        rotationChecks_.erase(channel);
        connected_[channel] = false;
        host_.connectionLost(channel);
        if (auto it = clients_.find(channel); it != clients_.end()) {
            std::map<CaptureChannel, std::unique_ptr<Client>> old;
            old.emplace(channel, std::move(it->second));
            clients_.erase(it);
            closeGracefully(std::move(old));
        }
        connect(channel, recordingID, [this, channel, recordingID](Expected<void> result) {
            reconnectTasks_.erase(channel);
            if (!result) {
                if (result.error().code != "realtime_superseded")
                    scheduleRealtimeReconnect(channel, recordingID, result.error().message);
                return;
            }
            if (std::none_of(reconnectTasks_.begin(), reconnectTasks_.end(),
                             [](const auto& t) { return t.second.isPending(); })) {
                host_.setLiveNotice("");
                debug(Level::success, "同传连接已恢复", "channel: " + std::string(rawValue(channel)),
                      "realtime_reconnected");
            }
        });
    });
}

}  // namespace osv
