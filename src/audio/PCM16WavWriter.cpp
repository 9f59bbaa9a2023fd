#include "audio/PCM16WavWriter.h"

#include <array>
#include <cstdint>

namespace osv {

PCMBytes PCM16WavWriter::data(const PCMBytes& pcm, int sampleRate, int channels) {
    // The header is filled in place in a fixed array: appending its pieces one by one to
    // the vector made GCC 12 report a false -Wstringop-overflow at -O3.
    std::array<std::uint8_t, 44> header{};
    std::size_t at = 0;
    const auto text = [&](const char (&tag)[5]) {
        for (int k = 0; k < 4; ++k) header[at++] = std::uint8_t(tag[k]);
    };
    const auto le = [&](std::uint32_t v, int bytes) {
        for (int k = 0; k < bytes; ++k) header[at++] = std::uint8_t(v >> (8 * k));
    };
    text("RIFF");
    le(std::uint32_t(36 + pcm.size()), 4);
    text("WAVE");
    text("fmt ");
    le(16, 4);
    le(1, 2);  // PCM
    le(std::uint32_t(channels), 2);
    le(std::uint32_t(sampleRate), 4);
    le(std::uint32_t(sampleRate * channels * 2), 4);
    le(std::uint32_t(channels * 2), 2);
    le(16, 2);
    text("data");
    le(std::uint32_t(pcm.size()), 4);
    PCMBytes out;
    out.reserve(header.size() + pcm.size());
    out.assign(header.begin(), header.end());
    out.insert(out.end(), pcm.begin(), pcm.end());
    return out;
}

}  // namespace osv
