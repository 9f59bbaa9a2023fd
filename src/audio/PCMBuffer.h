#pragma once

// The working audio format of every realtime hop (little-endian signed 16-bit, mono,
// 24,000 samples a second) and the view through which capture adapters describe their
// buffers. No platform dependence.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace osv {

using PCMBytes = std::vector<std::uint8_t>;

inline constexpr int kWorkingSampleRate = 24'000;
inline constexpr int kWorkingBytesPerSecond = 48'000;

// A capture buffer as the platform delivers it.
struct PCMBufferView {
    enum class SampleFormat { float32, int16, int32 };
    const void* data = nullptr;  // interleaved: one block; otherwise `planes`
    const void* const* planes = nullptr;  // one pointer per channel when not interleaved
    std::size_t frames = 0;
    int channels = 1;
    double sampleRate = 0;
    SampleFormat format = SampleFormat::float32;
    bool interleaved = true;
    bool bigEndian = false;

    // Frames, channels and the memory they need are all there.
    bool isReadable() const;
    // One sample as a float in -1 ... 1.
    float sampleAt(std::size_t frame, int channel) const;
};

inline std::int16_t readLE16(const std::uint8_t* p) { return std::int16_t(std::uint16_t(p[0] | (p[1] << 8))); }

inline void appendLE16(PCMBytes& out, std::int16_t v) {
    out.push_back(std::uint8_t(std::uint16_t(v) & 0xFF));
    out.push_back(std::uint8_t(std::uint16_t(v) >> 8));
}

}  // namespace osv
