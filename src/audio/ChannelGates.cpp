#include "audio/ChannelGates.h"

#include "core/Format.h"

namespace osv {

std::optional<PCMBytes> ChannelWakeup::consider(PCMBytes bytes) {
    if (isAwake) return bytes;
    // A single quiet chunk breaks the run.
    if (peak(bytes) >= kLoudPeak) ++loudFrames;
    else loudFrames = 0;
    bufferedBytes += bytes.size();
    buffer.push_back(std::move(bytes));
    while (bufferedBytes > 2 * bytesPerSecond && buffer.size() >= 2) {
        bufferedBytes -= buffer.front().size();
        buffer.pop_front();
    }
    if (loudFrames < 2) return std::nullopt;
    isAwake = true;
    PCMBytes all;
    all.reserve(bufferedBytes);
    for (const PCMBytes& b : buffer) all.insert(all.end(), b.begin(), b.end());
    buffer.clear();
    bufferedBytes = 0;
    return all;
}

void SpeechWitness::observe(float peak, Date now) {
    isObserving = true;
    if (peak >= kLoudPeak) lastSpeechAt = now;
}

bool SpeechWitness::shouldDrop(Date now) const {
    if (!isObserving) return false;
    return !lastSpeechAt || now - *lastSpeechAt > kMaximumSilenceSeconds;
}

void ThroughputMeter::add(Date at, std::int64_t bytes) {
    samples.push_back({at, bytes});
    totalBytes += bytes;
}

void ThroughputMeter::prune(Date before) {
    while (!samples.empty() && before - samples.front().at > kWindowSeconds) samples.pop_front();
}

std::int64_t ThroughputMeter::bytesPerSecond(Date now) const {
    std::int64_t sum = 0;
    for (const Sample& s : samples)
        if (now - s.at <= kWindowSeconds) sum += s.bytes;
    return std::int64_t(double(sum) / kWindowSeconds);
}

std::string ThroughputMeter::rateText(std::int64_t bytes) { return osv::rateText(bytes); }
std::string ThroughputMeter::sizeText(std::int64_t bytes) { return osv::sizeText(bytes); }

}  // namespace osv
