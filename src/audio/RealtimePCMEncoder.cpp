#include "audio/RealtimePCMEncoder.h"

#include <algorithm>
#include <vector>

namespace osv {

PCMBytes RealtimePCMEncoder::encodePCM16(const float* samples, std::size_t count, double sourceSampleRate) {
    PCMBytes out;
    if (count == 0 || !(sourceSampleRate > 0)) return out;
    const double ratio = sourceSampleRate / double(kWorkingSampleRate);
    const std::size_t outputCount = std::max<std::size_t>(1, std::size_t(double(count) / ratio));
    const std::size_t last = count - 1;
    out.reserve(outputCount * 2);
    for (std::size_t i = 0; i < outputCount; ++i) {
        const double position = ratio * double(i);
        const std::size_t a = std::min(last, std::size_t(position));
        const std::size_t b = std::min(last, a + 1);
        const double value = samples[a] + (samples[b] - samples[a]) * (position - double(a));
        appendLE16(out, std::int16_t(std::clamp(value, -1.0, 1.0) * 32767.0));  // truncates toward zero
    }
    return out;
}

PCMBytes RealtimePCMEncoder::pcm16Mono24k(const PCMBufferView& b) {
    if (!b.isReadable()) return {};
    std::vector<float> mono(b.frames);
    for (std::size_t f = 0; f < b.frames; ++f) {
        double sum = 0;
        for (int c = 0; c < b.channels; ++c) sum += b.sampleAt(f, c);
        mono[f] = float(sum / b.channels);
    }
    return encodePCM16(mono.data(), mono.size(), b.sampleRate);
}

}  // namespace osv
