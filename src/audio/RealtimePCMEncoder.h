#pragma once

// Conversion of a capture buffer to the working format: down-mixed and resampled.

#include <cstddef>

#include "audio/PCMBuffer.h"

namespace osv::RealtimePCMEncoder {

// Down-mixed (mean over channels) and resampled to the working format; empty when the
// buffer can't be converted (no frames, no data).
PCMBytes pcm16Mono24k(const PCMBufferView& buffer);
// Linear interpolation to 24 kHz, no filter: latency matters more here than aliasing.
PCMBytes encodePCM16(const float* samples, std::size_t count, double sourceSampleRate);

}  // namespace osv::RealtimePCMEncoder
