#pragma once

// The 16 kHz resampling of working-format audio, for Gemini Live.

#include "audio/PCMBuffer.h"

namespace osv::PCM16Resampler {

// Two samples for every three, each chunk on its own; empty below 4 bytes.
PCMBytes to16kFrom24k(const PCMBytes& bytes);

}  // namespace osv::PCM16Resampler
