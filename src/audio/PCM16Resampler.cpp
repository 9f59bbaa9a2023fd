#include "audio/PCM16Resampler.h"

#include <algorithm>
#include <cmath>

namespace osv {

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

}  // namespace osv
