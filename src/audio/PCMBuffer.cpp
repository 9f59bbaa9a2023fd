#include "audio/PCMBuffer.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace osv {

bool PCMBufferView::isReadable() const {
    const PCMBufferView& b = *this;
    if (b.frames == 0 || b.channels < 1) return false;
    if (b.interleaved) return b.data != nullptr;
    if (!b.planes) return false;
    for (int c = 0; c < b.channels; ++c)
        if (!b.planes[c]) return false;
    return true;
}

float PCMBufferView::sampleAt(std::size_t frame, int channel) const {
    const PCMBufferView& b = *this;
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

}  // namespace osv
