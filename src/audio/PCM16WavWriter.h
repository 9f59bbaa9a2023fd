#pragma once

// WAV framing of 16-bit little-endian PCM.

#include "audio/PCMBuffer.h"

namespace osv::PCM16WavWriter {

// A whole WAV file: the 44-byte RIFF header, then the PCM.
PCMBytes data(const PCMBytes& pcm16LE, int sampleRate, int channels);

}  // namespace osv::PCM16WavWriter
