#include "live/StreamSupervisor.h"

#include <cmath>
#include <cstdio>

namespace osv {

using Level = DebugEvent::Level;
using Category = DebugEvent::Category;

namespace {

std::string seconds(double value) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.0f", value);
    return buffer;
}

}  // namespace

StreamSupervisor::StreamSupervisor(Scheduler& scheduler, Host& host) : scheduler_(scheduler), host_(host) {}

void StreamSupervisor::reset() {
    streamHealth_.clear();
    degradedTranscribeModels_.clear();
    hadSourceStreamOutage = false;
    livenessTask_.cancel();
}

const RealtimeStreamHealth* StreamSupervisor::health(CaptureChannel channel) const {
    auto it = streamHealth_.find(channel);
    return it == streamHealth_.end() ? nullptr : &it->second;
}

void StreamSupervisor::connected(CaptureChannel channel, double baseDelay) {
    streamHealth_[channel] = RealtimeStreamHealth::connected(scheduler_.now(), baseDelay);
    restoreSourceStream(channel, "连接已重建，先按原文断句");
}

void StreamSupervisor::noteSource(CaptureChannel channel) {
    auto it = streamHealth_.find(channel);
    if (it == streamHealth_.end()) return;
    if (it->second.noteSource(scheduler_.now()) == RealtimeStreamHealth::Action::restore)
        restoreSourceStream(channel, "原文重新开始返回");
}

void StreamSupervisor::noteSourceFailure(CaptureChannel channel) {
    if (auto it = streamHealth_.find(channel); it != streamHealth_.end()) it->second.noteSourceFailure(scheduler_.now());
}

void StreamSupervisor::noteTranslation(CaptureChannel channel) {
    if (auto it = streamHealth_.find(channel); it != streamHealth_.end()) it->second.noteTranslation(scheduler_.now());
}

void StreamSupervisor::applySourceStreamHealth(CaptureChannel channel) {
    if (host_.isReconnecting(channel)) return;
    auto it = streamHealth_.find(channel);
    if (it == streamHealth_.end()) return;
    RealtimeStreamHealth& h = it->second;
    const Date now = scheduler_.now();
    switch (h.evaluate(now)) {
        case RealtimeStreamHealth::Action::none: break;
        case RealtimeStreamHealth::Action::rearm: {
            host_.debug(Level::warning, Category::transcription, "原文流静默，先重下转写配置",
                        "channel: " + std::string(rawValue(channel)) +
                            "\n译文仍在返回，说明音频送达正常，只有转写这一路停了。\n再等 " +
                            seconds(h.degradeDelay - h.rearmDelay) + " 秒仍无原文，就改为只显示译文。",
                        "source_stream_rearm");
            // A model that failed for this speaker's voice would fail after a reconnect too.
            if (auto model = host_.rearmTranscription(channel)) rememberDegradedTranscription(*model, channel);
            break;
        }
        case RealtimeStreamHealth::Action::degrade: {
            const Date quietFrom = std::max(h.lastSourceAt.value_or(Date(-1e12)),
                                            h.translationBurstStartedAt.value_or(h.startedAt));
            degradeToTranslationOnly(channel, now - quietFrom);
            break;
        }
        case RealtimeStreamHealth::Action::restore: restoreSourceStream(channel, "原文重新开始返回"); break;
    }
}

void StreamSupervisor::degradeToTranslationOnly(CaptureChannel channel, double silence) {
    if (host_.buildsFromTranslation(channel)) return;
    hadSourceStreamOutage = true;
    host_.buildFromTranslation(channel, true);
    host_.setLiveNotice("原文识别中断了，先只显示中文。录音正常，结束后可以重新转写补回日文。");
    host_.debug(Level::warning, Category::transcription, "原文流判定中断，改为只显示译文",
                "channel: " + std::string(rawValue(channel)) + "\n原文已静默 " + seconds(silence) +
                    " 秒，其间译文一直在返回。\n译文继续按句显示；原文一旦恢复会自动切回。",
                "source_stream_degraded");
}

void StreamSupervisor::restoreSourceStream(CaptureChannel channel, const std::string& because) {
    if (!host_.buildsFromTranslation(channel)) return;
    host_.buildFromTranslation(channel, false);
    if (host_.liveNotice().rfind("原文识别中断了", 0) == 0) host_.setLiveNotice("");
    host_.debug(Level::success, Category::transcription, "原文流已恢复",
                "channel: " + std::string(rawValue(channel)) + "\n" + because, "source_stream_recovered");
}

void StreamSupervisor::startLivenessWatchdog() {
    livenessTask_ = scheduler_.after(kWatchdogSeconds, [this] {
        if (!host_.isListening()) return;
        checkRecognitionLiveness();
        startLivenessWatchdog();
    });
}

void StreamSupervisor::checkRecognitionLiveness() {
    if (!host_.isListening()) return;
    const Date now = scheduler_.now();
    const auto audible = host_.lastAudibleAt();
    if (!audible || now - *audible >= kSilentSoundSeconds) return;
    const double sinceDelta = now - host_.lastDeltaAt().value_or(*audible);
    const auto speechAge = host_.secondsSinceAnySpeech();
    const bool quick = speechAge && sinceDelta >= kQuickStallSeconds && sinceDelta >= *speechAge &&
                       *speechAge >= kCertainSpeechSeconds;
    if (!quick && sinceDelta < kSilentSoundSeconds) {
        if (host_.liveNotice().rfind("识别没有响应", 0) == 0) host_.setLiveNotice("");
        return;
    }
    const auto channels = host_.activeChannels();
    for (CaptureChannel c : channels)
        if (host_.isReconnecting(c)) return;
    host_.setLiveNotice("识别没有响应：已听到声音但 " + seconds(sinceDelta) + " 秒没有字幕，正在重连");
    std::string details = "secondsSinceDelta: " + seconds(sinceDelta);
    if (speechAge) details += "\n距最近一次说话: " + seconds(*speechAge);
    if (quick) details += "\n快判（确知有人说过话）";
    host_.debug(Level::warning, Category::transcription, "识别静默，触发重连", details, "recognition_stalled");
    for (CaptureChannel c : channels) host_.scheduleReconnect(c, "识别静默");
}

void StreamSupervisor::rememberDegradedTranscription(const std::string& model, CaptureChannel channel) {
    auto it = degradedTranscribeModels_.find(channel);
    if (it != degradedTranscribeModels_.end() && it->second == model) return;
    degradedTranscribeModels_[channel] = model;
    host_.debug(Level::info, Category::transcription, "本场后续连接都用这个转写模型",
                "channel: " + std::string(rawValue(channel)) + " → " + model +
                    "\n重连会新建 socket，而失败的是这个说话人的声音，不是那条连接。",
                "transcription_downgrade_remembered");
}

std::optional<std::string> StreamSupervisor::degradedTranscribeModel(CaptureChannel channel) const {
    auto it = degradedTranscribeModels_.find(channel);
    return it == degradedTranscribeModels_.end() ? std::nullopt : std::optional<std::string>(it->second);
}

}  // namespace osv
