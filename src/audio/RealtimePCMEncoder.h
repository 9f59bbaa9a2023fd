#pragma once

// The realtime PCM path's pure routines: conversion to the working format (little-endian
// signed 16-bit, mono, 24,000 samples a second), the 16 kHz resampling for Gemini Live,
// WAV framing and the level. No platform dependence: capture adapters describe their
// buffers with PCMBufferView.

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
};

namespace RealtimePCMEncoder {
// Down-mixed (mean over channels) and resampled to the working format; empty when the
// buffer can't be converted (no frames, no data).
PCMBytes pcm16Mono24k(const PCMBufferView& buffer);
// Linear interpolation to 24 kHz, no filter: latency matters more here than aliasing.
PCMBytes encodePCM16(const float* samples, std::size_t count, double sourceSampleRate);
}  // namespace RealtimePCMEncoder

namespace PCM16Resampler {
// Two samples for every three, each chunk on its own; empty below 4 bytes.
PCMBytes to16kFrom24k(const PCMBytes& bytes);
}  // namespace PCM16Resampler

namespace PCM16WavWriter {
// A whole WAV file: the 44-byte RIFF header, then the PCM.
PCMBytes data(const PCMBytes& pcm16LE, int sampleRate, int channels);
}  // namespace PCM16WavWriter

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
