#include "live/RealtimeConnections.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "settings/TranslatorSettings.h"

namespace osv {

using Level = DebugEvent::Level;

RealtimeConnections::RealtimeConnections(Scheduler& scheduler, ClientFactory factory, Host& host)
    : scheduler_(scheduler), factory_(std::move(factory)), host_(host) {}

RealtimeConnections::~RealtimeConnections() = default;

void RealtimeConnections::debug(Level level, std::string title, std::string details, std::optional<std::string> code) {
    host_.clientDebug(OpenAIDebugLog{level, DebugEvent::Category::openAI, std::move(title), std::move(details),
                                     std::move(code)});
}

void RealtimeConnections::connect(CaptureChannel channel, const Uuid& recordingID,
                                  std::function<void(Expected<void>)> done) {
    auto client = factory_();
    Client* raw = client.get();
    clients_[channel] = std::move(client);
    connected_[channel] = false;
    eventCounts_[channel] = 0;
    const auto alive = lifetime_.guard();
    raw->start(
        host_.connectionSettings(channel), kTargetLanguageCode, true,
        [this, alive, raw, channel, recordingID](const RealtimeTranslationEvent& event) {
            if (alive.expired()) return;
            // A client already taken out of service reports nothing more.
            auto it = clients_.find(channel);
            if (it == clients_.end() || it->second.get() != raw) return;
            ++eventCounts_[channel];
            if (event.kind == RealtimeTranslationEvent::Kind::failed ||
                event.kind == RealtimeTranslationEvent::Kind::closed) {
                connected_[channel] = false;  // audio is held from now until a new connection is up
                host_.connectionLost(channel);
            }
            host_.realtimeEvent(event, channel, recordingID);
        },
        [this, alive](const OpenAIDebugLog& log) {
            if (!alive.expired()) host_.clientDebug(log);
        },
        [this, alive, raw, channel, done = std::move(done)](Expected<void> result) {
            if (alive.expired()) return;
            auto it = clients_.find(channel);
            const bool current = it != clients_.end() && it->second.get() == raw;
            if (current && result) {
                connected_[channel] = true;
                connectedAt_[channel] = scheduler_.now();
                flushPending(channel);
            }
            if (!current && result) result = Error{"realtime_superseded", "连接已被替换。"};
            if (done) done(std::move(result));
        });
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
