#pragma once

// How loud audio is: the meter's level and the peak every speech decision compares.

#include "audio/PCMBuffer.h"

namespace osv {

namespace AudioLevelMeter {
// RMS × 8, capped at 1: ordinary speech fills the meter. 0 for an empty buffer.
double normalizedLevel(const PCMBufferView& buffer);
}  // namespace AudioLevelMeter

// The loudness threshold of every speech decision, compared as a 32-bit float.
inline constexpr float kLoudPeak = 0.01f;

// The largest absolute 16-bit sample, −32768 counting as 32767, over 32767; 0 below 2 bytes.
float pcm16Peak(const PCMBytes& bytes);
// The level of 16-bit little-endian bytes, as AudioLevelMeter measures.
double pcm16Level(const PCMBytes& bytes);

}  // namespace osv
