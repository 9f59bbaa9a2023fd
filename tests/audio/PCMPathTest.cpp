#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "audio/ChannelGates.h"
#include "audio/LiveAudioMixer.h"
#include "audio/RealtimePCMEncoder.h"
#include "audio/PCM16WavWriter.h"
#include "audio/PCM16Resampler.h"
#include "audio/AudioLevel.h"

namespace osv {
namespace {

PCMBytes pcm(std::initializer_list<int> samples) {
    PCMBytes out;
    for (int s : samples) {
        out.push_back(std::uint8_t(std::uint16_t(s) & 0xFF));
        out.push_back(std::uint8_t(std::uint16_t(s) >> 8));
    }
    return out;
}

std::vector<int> samplesOf(const PCMBytes& bytes) {
    std::vector<int> out;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) out.push_back(std::int16_t(std::uint16_t(bytes[i] | bytes[i + 1] << 8)));
    return out;
}

PCMBytes chunk(std::size_t samples, int value) {
    PCMBytes out;
    for (std::size_t i = 0; i < samples; ++i) {
        out.push_back(std::uint8_t(std::uint16_t(value) & 0xFF));
        out.push_back(std::uint8_t(std::uint16_t(value) >> 8));
    }
    return out;
}

TEST(RealtimePCMEncoder, InterpolatesLinearlyAndTruncatesTowardZero) {
    const float one[] = {0.25f};
    EXPECT_EQ(samplesOf(RealtimePCMEncoder::encodePCM16(one, 1, 48'000)), (std::vector<int>{8191}));
    const float halving[] = {0.0f, 0.5f, -0.5f, 1.5f};
    EXPECT_EQ(samplesOf(RealtimePCMEncoder::encodePCM16(halving, 4, 48'000)), (std::vector<int>{0, -16383}));
    // 16 kHz up to 24 kHz: positions 0, 2/3, 4/3 between the samples.
    const float up[] = {0.0f, 0.3f};
    EXPECT_EQ(samplesOf(RealtimePCMEncoder::encodePCM16(up, 2, 16'000)), (std::vector<int>{0, 6553, 9830}));
    EXPECT_TRUE(RealtimePCMEncoder::encodePCM16(up, 2, 0).empty());
    EXPECT_TRUE(RealtimePCMEncoder::encodePCM16(up, 0, 24'000).empty());
}

TEST(RealtimePCMEncoder, DownMixesEveryCaptureFormat) {
    // Stereo float, not interleaved: the mean of the two channels.
    const float left[] = {0.5f, 1.0f}, right[] = {-0.5f, 0.0f};
    const void* planes[] = {left, right};
    PCMBufferView planar{nullptr, planes, 2, 2, 24'000, PCMBufferView::SampleFormat::float32, false, false};
    EXPECT_EQ(samplesOf(RealtimePCMEncoder::pcm16Mono24k(planar)), (std::vector<int>{0, 16383}));
    // 16-bit big-endian interleaved.
    const std::uint8_t be[] = {0x40, 0x00, 0x40, 0x00};  // 16384, 16384
    PCMBufferView big{be, nullptr, 1, 2, 24'000, PCMBufferView::SampleFormat::int16, true, true};
    // 16384 / 32767 as a float, times 32767, truncated: the round trip loses one step.
    EXPECT_EQ(samplesOf(RealtimePCMEncoder::pcm16Mono24k(big)), (std::vector<int>{16383}));
    // 32-bit integer, mono.
    const std::int32_t full[] = {2147483647};
    PCMBufferView wide{full, nullptr, 1, 1, 24'000, PCMBufferView::SampleFormat::int32, true, false};
    EXPECT_EQ(samplesOf(RealtimePCMEncoder::pcm16Mono24k(wide)), (std::vector<int>{32767}));
    PCMBufferView empty{full, nullptr, 0, 1, 24'000, PCMBufferView::SampleFormat::int32, true, false};
    EXPECT_TRUE(RealtimePCMEncoder::pcm16Mono24k(empty).empty());
}

TEST(PCM16Resampler, TwoOfEveryThreeRoundingHalvesAwayFromZero) {
    EXPECT_TRUE(PCM16Resampler::to16kFrom24k(PCMBytes{0, 0, 0}).empty());  // 3 bytes
    EXPECT_EQ(samplesOf(PCM16Resampler::to16kFrom24k(pcm({0, 1, 2}))), (std::vector<int>{0, 2}));  // 1.5 rounds to 2
    EXPECT_EQ(samplesOf(PCM16Resampler::to16kFrom24k(pcm({0, -1, -2}))), (std::vector<int>{0, -2}));
    EXPECT_EQ(samplesOf(PCM16Resampler::to16kFrom24k(pcm({10, 20, 30, 40, 50, 60}))), (std::vector<int>{10, 25, 40, 55}));
}

TEST(PCM16WavWriter, WritesAPlainRiffHeader) {
    const PCMBytes wav = PCM16WavWriter::data(pcm({1, 2, 3, 4}), 24'000, 2);
    ASSERT_EQ(wav.size(), 44u + 8u);
    EXPECT_EQ(std::memcmp(wav.data(), "RIFF", 4), 0);
    EXPECT_EQ(wav[4], 44);  // 36 + 8
    EXPECT_EQ(std::memcmp(wav.data() + 8, "WAVEfmt ", 8), 0);
    EXPECT_EQ(wav[22], 2);  // channels
    EXPECT_EQ(wav[24] | wav[25] << 8 | wav[26] << 16, 24'000);
    EXPECT_EQ(wav[28] | wav[29] << 8 | wav[30] << 16, 96'000);  // byte rate
    EXPECT_EQ(wav[32], 4);  // block align
    EXPECT_EQ(std::memcmp(wav.data() + 36, "data", 4), 0);
    EXPECT_EQ(wav[40], 8);
}

TEST(Levels, PeakAndLevelFollowTheDesign) {
    EXPECT_EQ(pcm16Peak(pcm({-32768})), 1.0f);
    EXPECT_EQ(pcm16Peak(PCMBytes{1}), 0.0f);
    EXPECT_FLOAT_EQ(pcm16Peak(pcm({100, -328})), 328.0f / 32767.0f);
    EXPECT_GE(pcm16Peak(pcm({328})), kLoudPeak);
    EXPECT_LT(pcm16Peak(pcm({327})), kLoudPeak);
    EXPECT_EQ(pcm16Level(chunk(100, 4096)), 1.0);  // RMS 0.125 fills the meter
    EXPECT_NEAR(pcm16Level(chunk(100, 2048)), 0.5, 1e-3);
    EXPECT_EQ(pcm16Level({}), 0.0);
}

TEST(ChannelWakeup, WakesOnTheSecondConsecutiveLoudChunkWithTheLastTwoSeconds) {
    ChannelWakeup w;
    const PCMBytes quiet = chunk(2400, 10), loud = chunk(2400, 5000);  // 100 ms each
    EXPECT_FALSE(w.consider(quiet));
    EXPECT_FALSE(w.consider(loud));
    EXPECT_FALSE(w.consider(quiet));  // the run is broken
    EXPECT_FALSE(w.consider(loud));
    for (int i = 0; i < 25; ++i) EXPECT_FALSE(w.consider(quiet));  // older than two seconds drops out
    EXPECT_LE(w.bufferedBytes, 96'000u);
    EXPECT_FALSE(w.consider(loud));
    const auto sent = w.consider(loud);
    ASSERT_TRUE(sent);
    EXPECT_EQ(sent->size(), 96'000u);  // twenty 100 ms chunks, the two loud ones last
    EXPECT_EQ(samplesOf(PCMBytes(sent->end() - 2, sent->end())), (std::vector<int>{5000}));
    EXPECT_TRUE(w.isAwake);
    EXPECT_EQ(w.consider(quiet)->size(), quiet.size());  // awake: passes straight through

    ChannelWakeup big;
    EXPECT_FALSE(big.consider(chunk(60'000, 10)));  // 120,000 bytes stay whole
    EXPECT_EQ(big.bufferedBytes, 120'000u);
}

TEST(SpeechWitness, DropsOnlyAfterFourteenSecondsOfObservedSilence) {
    SpeechWitness w;
    EXPECT_FALSE(w.shouldDrop(Date(100)));  // nothing observed yet
    w.observe(0.001f, Date(100));
    EXPECT_TRUE(w.shouldDrop(Date(100)));  // observing, never heard speech
    w.observe(0.5f, Date(200));
    EXPECT_FALSE(w.shouldDrop(Date(214.0)));
    EXPECT_TRUE(w.shouldDrop(Date(214.01)));
}

TEST(ThroughputMeter, AveragesTheLastThreeSeconds) {
    ThroughputMeter m;
    m.add(Date(0), 48'000);
    m.add(Date(1), 48'000);
    m.add(Date(2.5), 48'001);
    EXPECT_EQ(m.bytesPerSecond(Date(3)), 48'000);  // 144,001 / 3, truncated
    m.prune(Date(3.5));
    EXPECT_EQ(m.samples.size(), 2u);
    EXPECT_EQ(m.totalBytes, 144'001);
    EXPECT_EQ(ThroughputMeter::rateText(48'000), "48 KB/s");
    EXPECT_EQ(ThroughputMeter::sizeText(2'500'000), "2.5 MB");
}

TEST(LiveAudioMixer, PairsByArrivalAndLetsAStalledSideCostAtMost300ms) {
    LiveAudioMixer m;
    m.appendSystem(pcm({1000, 2000, 3000}));
    m.appendMicrophone(pcm({30000, -5}));
    auto out = m.drain(false);
    ASSERT_TRUE(out);
    EXPECT_EQ(samplesOf(out->mono), (std::vector<int>{31000, 1995}));
    EXPECT_EQ(samplesOf(out->stereo), (std::vector<int>{1000, 30000, 2000, -5}));
    // The microphone stalls: the system side waits until it holds 300 ms.
    EXPECT_FALSE(m.drain(false));
    m.appendSystem(chunk(7'198, 7));
    EXPECT_FALSE(m.drain(false));  // 7,199 samples
    m.appendSystem(chunk(1, 7));
    out = m.drain(false);
    ASSERT_TRUE(out);
    EXPECT_EQ(out->mono.size(), 7'200u * 2);
    EXPECT_EQ(samplesOf(out->stereo)[1], 0);  // silence beside it

    m.appendSystem(pcm({32000}));
    m.appendMicrophone(pcm({32000, 1}));
    out = m.drain(true);  // flush: everything, the mix clamped
    EXPECT_EQ(samplesOf(out->mono), (std::vector<int>{32767, 1}));

    m.setExpected(false, true);  // microphone only: no waiting
    m.appendMicrophone(pcm({5}));
    EXPECT_EQ(samplesOf(m.drain(false)->mono), (std::vector<int>{5}));

    m.setExpected(true, true);
    m.appendSystem(chunk(250'000, 1));
    m.appendSystem(pcm({9}));
    out = m.drain(true);
    EXPECT_EQ(out->mono.size(), LiveAudioMixer::kMaximumSamples * 2);  // the oldest surplus dropped
    EXPECT_EQ(samplesOf(out->mono).back(), 9);
}

TEST(LiveAudioMixer, TwoCaptureThreadsAndADrainLoseNoSample) {
    LiveAudioMixer m;
    std::size_t systemSamples = 0, microphoneSamples = 0;
    auto count = [&](const LiveAudioMixer::Output& out) {
        const auto stereo = samplesOf(out.stereo);
        for (std::size_t i = 0; i + 1 < stereo.size(); i += 2) {
            systemSamples += stereo[i] == 1;
            microphoneSamples += stereo[i + 1] == 2;
        }
    };
    std::thread system([&] {
        for (int i = 0; i < 500; ++i) m.appendSystem(chunk(96, 1));
    });
    std::thread microphone([&] {
        for (int i = 0; i < 500; ++i) m.appendMicrophone(chunk(96, 2));
    });
    for (int i = 0; i < 2000; ++i)
        if (auto out = m.drain(false)) count(*out);
    system.join();
    microphone.join();
    if (auto out = m.drain(true)) count(*out);
    EXPECT_EQ(systemSamples, 500u * 96u);
    EXPECT_EQ(microphoneSamples, 500u * 96u);
}

}  // namespace
}  // namespace osv

