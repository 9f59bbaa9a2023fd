#include "audio/RealtimePCMEncoder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace osv {
namespace {

std::int16_t readLE16(const std::uint8_t* p) { return std::int16_t(std::uint16_t(p[0] | (p[1] << 8))); }

void appendLE16(PCMBytes& out, std::int16_t v) {
    out.push_back(std::uint8_t(std::uint16_t(v) & 0xFF));
    out.push_back(std::uint8_t(std::uint16_t(v) >> 8));
}

// One sample of the buffer as a float in -1 ... 1.
float sampleAt(const PCMBufferView& b, std::size_t frame, int channel) {
    const std::uint8_t* base;
    std::size_t index;
    if (b.interleaved) {
        base = static_cast<const std::uint8_t*>(b.data);
        index = frame * std::size_t(b.channels) + std::size_t(channel);
    } else {
        base = static_cast<const std::uint8_t*>(b.planes[channel]);
        index = frame;
    }
    auto bytesOf = [&](std::size_t width) {
        std::uint8_t v[4];
        std::memcpy(v, base + index * width, width);
        if (b.bigEndian) std::reverse(v, v + width);
        return std::array<std::uint8_t, 4>{v[0], v[1], width > 2 ? v[2] : std::uint8_t(0), width > 3 ? v[3] : std::uint8_t(0)};
    };
    switch (b.format) {
        case PCMBufferView::SampleFormat::float32: {
            const auto v = bytesOf(4);
            float f;
            std::memcpy(&f, v.data(), 4);
            return f;
        }
        case PCMBufferView::SampleFormat::int16: {
            const auto v = bytesOf(2);
            return float(double(std::int16_t(std::uint16_t(v[0] | (v[1] << 8)))) / 32767.0);
        }
        case PCMBufferView::SampleFormat::int32: {
            const auto v = bytesOf(4);
            const std::uint32_t u = std::uint32_t(v[0]) | std::uint32_t(v[1]) << 8 | std::uint32_t(v[2]) << 16 |
                                    std::uint32_t(v[3]) << 24;
            return float(double(std::int32_t(u)) / 2147483647.0);
        }
    }
    return 0;
}

bool readable(const PCMBufferView& b) {
    if (b.frames == 0 || b.channels < 1) return false;
    if (b.interleaved) return b.data != nullptr;
    if (!b.planes) return false;
    for (int c = 0; c < b.channels; ++c)
        if (!b.planes[c]) return false;
    return true;
}

}  // namespace

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
    if (!readable(b)) return {};
    std::vector<float> mono(b.frames);
    for (std::size_t f = 0; f < b.frames; ++f) {
        double sum = 0;
        for (int c = 0; c < b.channels; ++c) sum += sampleAt(b, f, c);
        mono[f] = float(sum / b.channels);
    }
    return encodePCM16(mono.data(), mono.size(), b.sampleRate);
}

PCMBytes PCM16Resampler::to16kFrom24k(const PCMBytes& bytes) {
    if (bytes.size() < 4) return {};
    const std::size_t usable = bytes.size() & ~std::size_t(1);
    const std::size_t samples = usable / 2;
    const std::size_t outputCount = usable / 3;
    const std::size_t last = samples - 1;
    PCMBytes out;
    out.reserve(outputCount * 2);
    for (std::size_t i = 0; i < outputCount; ++i) {
        const double position = 1.5 * double(i);
        const std::size_t a = std::min(last, std::size_t(position));
        const std::size_t b = std::min(last, a + 1);
        const double sa = readLE16(&bytes[a * 2]);
        const double sb = readLE16(&bytes[b * 2]);
        const double value = std::round(sa + (position - double(a)) * (sb - sa));  // halves away from zero
        appendLE16(out, std::int16_t(std::clamp(value, -32768.0, 32767.0)));
    }
    return out;
}

PCMBytes PCM16WavWriter::data(const PCMBytes& pcm, int sampleRate, int channels) {
    PCMBytes out;
    out.reserve(44 + pcm.size());
    auto text = [&](const char* s) { out.insert(out.end(), s, s + 4); };
    auto u32 = [&](std::uint32_t v) {
        for (int k = 0; k < 4; ++k) out.push_back(std::uint8_t(v >> (8 * k)));
    };
    auto u16 = [&](std::uint16_t v) {
        out.push_back(std::uint8_t(v & 0xFF));
        out.push_back(std::uint8_t(v >> 8));
    };
    text("RIFF");
    u32(std::uint32_t(36 + pcm.size()));
    text("WAVE");
    text("fmt ");
    u32(16);
    u16(1);
    u16(std::uint16_t(channels));
    u32(std::uint32_t(sampleRate));
    u32(std::uint32_t(sampleRate * channels * 2));
    u16(std::uint16_t(channels * 2));
    u16(16);
    text("data");
    u32(std::uint32_t(pcm.size()));
    out.insert(out.end(), pcm.begin(), pcm.end());
    return out;
}

double AudioLevelMeter::normalizedLevel(const PCMBufferView& b) {
    if (!readable(b)) return 0;
    double sumSquares = 0;
    for (std::size_t f = 0; f < b.frames; ++f)
        for (int c = 0; c < b.channels; ++c) {
            const double s = sampleAt(b, f, c);
            sumSquares += s * s;
        }
    const double rms = std::sqrt(sumSquares / double(b.frames * std::size_t(b.channels)));
    return std::min(1.0, rms * 8.0);
}

float pcm16Peak(const PCMBytes& bytes) {
    if (bytes.size() < 2) return 0;
    int peak = 0;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const int s = readLE16(&bytes[i]);
        peak = std::max(peak, s == -32768 ? 32767 : std::abs(s));
    }
    return float(double(peak) / 32767.0);
}

double pcm16Level(const PCMBytes& bytes) {
    const PCMBufferView view{bytes.data(), nullptr, bytes.size() / 2, 1, double(kWorkingSampleRate),
                             PCMBufferView::SampleFormat::int16, true, false};
    return AudioLevelMeter::normalizedLevel(view);
}

}  // namespace osv
