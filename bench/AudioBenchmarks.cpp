// The per-chunk path of live audio: a 40 ms chunk of 48,000 Hz stereo float, as a capture
// callback delivers it, to the message a wire client sends. Counters report how many
// times faster than real time it runs on one core.

#include <benchmark/benchmark.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <vector>

#include "audio/ChannelGates.h"
#include "audio/RealtimePCMEncoder.h"
#include "audio/AudioLevel.h"
#include "core/Base64.h"

namespace osv {
namespace {

constexpr double kChunkSeconds = 0.040;
constexpr std::size_t kFrames = 1920;  // 40 ms at 48 kHz

std::vector<float> speechLikeStereo() {
    std::vector<float> interleaved(kFrames * 2);
    for (std::size_t i = 0; i < kFrames; ++i) {
        const double t = double(i) / 48'000.0;
        interleaved[2 * i] = float(0.3 * std::sin(2 * M_PI * 220 * t) + 0.05 * std::sin(2 * M_PI * 3100 * t));
        interleaved[2 * i + 1] = float(0.2 * std::sin(2 * M_PI * 180 * t));
    }
    return interleaved;
}

void reportRealTime(benchmark::State& state) {
    state.counters["x_realtime"] = benchmark::Counter(kChunkSeconds * double(state.iterations()),
                                                      benchmark::Counter::kIsRate);
}

void EncoderOnly(benchmark::State& state) {
    const auto samples = speechLikeStereo();
    const PCMBufferView view{samples.data(), nullptr, kFrames, 2, 48'000, PCMBufferView::SampleFormat::float32, true, false};
    for (auto _ : state) benchmark::DoNotOptimize(RealtimePCMEncoder::pcm16Mono24k(view));
    reportRealTime(state);
}
BENCHMARK(EncoderOnly);

void ChunkToWire(benchmark::State& state) {
    const auto samples = speechLikeStereo();
    const PCMBufferView view{samples.data(), nullptr, kFrames, 2, 48'000, PCMBufferView::SampleFormat::float32, true, false};
    SpeechWitness witness;
    ChannelWakeup wakeup;
    wakeup.isAwake = true;
    Date now(1000);
    for (auto _ : state) {
        const double level = AudioLevelMeter::normalizedLevel(view);
        PCMBytes pcm = RealtimePCMEncoder::pcm16Mono24k(view);
        const float peak = pcm16Peak(pcm);
        witness.observe(peak, now);
        auto send = wakeup.consider(std::move(pcm));
        nlohmann::json message = {{"type", "input_audio_buffer.append"}, {"audio", base64Encode(*send)}};
        const std::string text = message.dump();
        benchmark::DoNotOptimize(level);
        benchmark::DoNotOptimize(text.data());
        now += kChunkSeconds;
    }
    reportRealTime(state);
}
BENCHMARK(ChunkToWire);

}  // namespace
}  // namespace osv

BENCHMARK_MAIN();
