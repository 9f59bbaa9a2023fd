#include "live/CaptureHandoff.h"
#include "audio/AudioLevel.h"

#include <algorithm>
#include <utility>

namespace osv {

void CaptureHandoff::reset(const std::vector<CaptureChannel>& channels) {
    witnesses_.clear();
    wakeups_.clear();
    peaks_.clear();
    meters_.clear();
    wokenAt_.clear();
    lastChunkAt_.clear();
    keepForResume(channels);
}

void CaptureHandoff::keepForResume(const std::vector<CaptureChannel>& channels) {
    pendingPCM_.clear();
    pendingBytes_.clear();
    droppedBytes_.clear();
    heldSpeech_.clear();
    outages_.clear();
    if (channels.size() > 1) {
        for (CaptureChannel c : channels) wakeups_.try_emplace(c);
    } else {
        wakeups_.clear();  // a single channel passes straight through
    }
}

CaptureHandoff::Outcome CaptureHandoff::consume(CaptureChannel channel, PCMBytes bytes, Date now, bool connected) {
    Outcome outcome;
    const float peak = pcm16Peak(bytes);
    witnesses_[channel].observe(peak, now);
    peaks_[channel] = peak;
    auto& meter = meters_[channel];
    meter.add(now, std::int64_t(bytes.size()));
    meter.prune(now);
    lastChunkAt_[channel] = now;

    std::optional<PCMBytes> passed;
    if (auto wake = wakeups_.find(channel); wake != wakeups_.end()) {
        const bool wasAwake = wake->second.isAwake;
        passed = wake->second.consider(std::move(bytes));
        if (!wasAwake && wake->second.isAwake && !wokenAt_.count(channel)) {
            wokenAt_[channel] = now;
            outcome.woke = true;
        }
    } else {
        passed = std::move(bytes);
    }
    if (!passed) return outcome;
    if (!connected || pendingBytes(channel) > 0) {
        // Held until the connection is up, and behind anything held before it.
        hold(channel, std::move(*passed));
        return outcome;
    }
    outcome.send = std::move(passed);
    return outcome;
}

void CaptureHandoff::beginOutage(CaptureChannel channel) { outages_.insert(channel); }

void CaptureHandoff::hold(CaptureChannel channel, PCMBytes bytes) {
    auto& blocks = pendingPCM_[channel];
    auto& total = pendingBytes_[channel];
    if (pcm16Peak(bytes) >= kLoudPeak) heldSpeech_[channel] = true;
    total += bytes.size();
    blocks.push_back(std::move(bytes));
    // The newest audio is kept: older audio of a long outage is lost, not memory.
    const std::size_t limit = outages_.count(channel) ? kMaximumOutageBytes : kMaximumPendingBytes;
    while (total > limit && !blocks.empty()) {
        const std::size_t excess = total - limit;
        auto& oldest = blocks.front();
        if (oldest.size() <= excess) {
            total -= oldest.size();
            droppedBytes_[channel] += oldest.size();
            blocks.erase(blocks.begin());
        } else {
            const std::size_t cut = std::min(excess + (excess & 1), oldest.size());  // whole samples
            oldest.erase(oldest.begin(), oldest.begin() + std::ptrdiff_t(cut));
            total -= std::min(cut, total);
            droppedBytes_[channel] += cut;
        }
    }
}

CaptureHandoff::Held CaptureHandoff::takePending(CaptureChannel channel, Date now) {
    Held held;
    held.afterOutage = outages_.erase(channel) > 0;
    held.droppedBytes = std::exchange(droppedBytes_[channel], 0);
    auto it = pendingPCM_.find(channel);
    if (it == pendingPCM_.end()) return held;
    held.bytes.reserve(pendingBytes_[channel]);
    for (auto& block : it->second) held.bytes.insert(held.bytes.end(), block.begin(), block.end());
    pendingPCM_.erase(it);
    pendingBytes_.erase(channel);
    if (std::exchange(heldSpeech_[channel], false)) witnesses_[channel].observe(1.0f, now);
    return held;
}

std::size_t CaptureHandoff::pendingBytes(CaptureChannel channel) const {
    auto it = pendingBytes_.find(channel);
    return it == pendingBytes_.end() ? 0 : it->second;
}

const SpeechWitness* CaptureHandoff::witness(CaptureChannel channel) const {
    auto it = witnesses_.find(channel);
    return it == witnesses_.end() ? nullptr : &it->second;
}

bool CaptureHandoff::isAwake(CaptureChannel channel) const {
    auto it = wakeups_.find(channel);
    return it == wakeups_.end() || it->second.isAwake;
}

float CaptureHandoff::peak(CaptureChannel channel) const {
    auto it = peaks_.find(channel);
    return it == peaks_.end() ? 0.f : it->second;
}

const ThroughputMeter* CaptureHandoff::meter(CaptureChannel channel) const {
    auto it = meters_.find(channel);
    return it == meters_.end() ? nullptr : &it->second;
}

std::optional<double> CaptureHandoff::secondsSinceAnySpeech(Date now) const {
    std::optional<double> best;
    for (const auto& [channel, w] : witnesses_)
        if (w.lastSpeechAt) {
            const double age = now - *w.lastSpeechAt;
            if (!best || age < *best) best = age;
        }
    return best;
}

std::optional<Date> CaptureHandoff::lastChunkAt(CaptureChannel channel) const {
    auto it = lastChunkAt_.find(channel);
    return it == lastChunkAt_.end() ? std::nullopt : std::optional<Date>(it->second);
}

}  // namespace osv
