#include "audio/AudioLevel.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace osv {

double AudioLevelMeter::normalizedLevel(const PCMBufferView& b) {
    if (!b.isReadable()) return 0;
    double sumSquares = 0;
    for (std::size_t f = 0; f < b.frames; ++f)
        for (int c = 0; c < b.channels; ++c) {
            const double s = b.sampleAt(f, c);
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
