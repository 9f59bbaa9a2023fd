#include "audio/LiveAudioMixer.h"

#include <algorithm>

namespace osv {

void LiveAudioMixer::setExpected(bool system, bool microphone) {
    std::lock_guard guard(lock_);
    expectSystem_ = system;
    expectMicrophone_ = microphone;
}

void LiveAudioMixer::reset() {
    std::lock_guard guard(lock_);
    systemSamples_.clear();
    micSamples_.clear();
    expectSystem_ = expectMicrophone_ = true;
}

void LiveAudioMixer::append(std::deque<std::int16_t>& side, const PCMBytes& bytes) {
    if (bytes.size() < 2) return;
    std::lock_guard guard(lock_);
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
        side.push_back(std::int16_t(std::uint16_t(bytes[i] | (bytes[i + 1] << 8))));
    if (side.size() > kMaximumSamples) side.erase(side.begin(), side.begin() + std::ptrdiff_t(side.size() - kMaximumSamples));
}

void LiveAudioMixer::appendSystem(const PCMBytes& bytes) { append(systemSamples_, bytes); }
void LiveAudioMixer::appendMicrophone(const PCMBytes& bytes) { append(micSamples_, bytes); }

LiveAudioMixer::Output LiveAudioMixer::output(const std::deque<std::int16_t>& system, std::size_t systemCount,
                                              const std::deque<std::int16_t>& microphone, std::size_t microphoneCount) {
    const std::size_t length = std::max(systemCount, microphoneCount);
    Output out;
    out.mono.reserve(length * 2);
    out.stereo.reserve(length * 4);
    auto put = [](PCMBytes& bytes, std::int16_t v) {
        bytes.push_back(std::uint8_t(std::uint16_t(v) & 0xFF));
        bytes.push_back(std::uint8_t(std::uint16_t(v) >> 8));
    };
    for (std::size_t i = 0; i < length; ++i) {
        const std::int16_t s = i < systemCount ? system[i] : 0;
        const std::int16_t m = i < microphoneCount ? microphone[i] : 0;
        put(out.mono, std::int16_t(std::clamp(int(s) + int(m), -32768, 32767)));
        put(out.stereo, s);
        put(out.stereo, m);
    }
    return out;
}

std::optional<LiveAudioMixer::Output> LiveAudioMixer::drain(bool flush) {
    std::lock_guard guard(lock_);
    auto takeAll = [&] {
        Output out = output(systemSamples_, systemSamples_.size(), micSamples_, micSamples_.size());
        systemSamples_.clear();
        micSamples_.clear();
        return out;
    };
    const bool onlyOne = expectSystem_ != expectMicrophone_;
    if (onlyOne || flush) {
        if (systemSamples_.empty() && micSamples_.empty()) return std::nullopt;
        return takeAll();
    }
    const std::size_t n = std::min(systemSamples_.size(), micSamples_.size());
    if (n > 0) {
        Output out = output(systemSamples_, n, micSamples_, n);
        systemSamples_.erase(systemSamples_.begin(), systemSamples_.begin() + std::ptrdiff_t(n));
        micSamples_.erase(micSamples_.begin(), micSamples_.begin() + std::ptrdiff_t(n));
        return out;
    }
    // One side has stalled: after 300 ms the other goes out with silence beside it.
    if (std::max(systemSamples_.size(), micSamples_.size()) < kStallSamples) return std::nullopt;
    return takeAll();
}

}  // namespace osv
