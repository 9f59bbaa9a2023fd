#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "audio/PCM16WavWriter.h"
#include "audio/AudioLevel.h"
#include "audio/RealtimePCMEncoder.h"
#include "core/AtomicFile.h"
#include "core/Uuid.h"
#include "platform/ffmpeg/AacFileWriter.h"
#include "platform/ffmpeg/AudioFileDecoder.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

class FfmpegFiles : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(dir); }
    void TearDown() override { fs::remove_all(dir); }
    fs::path dir = fs::temp_directory_path() / ("osv-ffmpeg-" + Uuid::random().text());
};

TEST_F(FfmpegFiles, AacChunksDecodeToTheDurationWritten) {
    auto writer = AacFileWriter::open(dir / "osv-system-test.m4a", 48'000, 2, 128'000);
    ASSERT_TRUE(writer) << writer.error().message;
    std::vector<float> block(480 * 2);  // 10 ms pieces, as capture delivers them
    for (int piece = 0; piece < 150; ++piece) {
        for (std::size_t i = 0; i < 480; ++i) block[2 * i] = block[2 * i + 1] = float(0.3 * std::sin(0.05 * double(piece * 480 + int(i))));
        ASSERT_TRUE((*writer)->write(block.data(), 480));
    }
    ASSERT_TRUE((*writer)->finish());
    const auto seconds = mediaDurationSeconds(dir / "osv-system-test.m4a");
    ASSERT_TRUE(seconds) << seconds.error().message;
    EXPECT_NEAR(*seconds, 1.5, 0.075);
}

TEST_F(FfmpegFiles, WavChunksReadBackWithTheirHeader) {
    for (int channels : {1, 2}) {
        const PCMBytes pcm(std::size_t(24'000 * 2 * channels * 2), 0);  // two seconds
        const fs::path file = dir / ("chunk-" + std::to_string(channels) + ".wav");
        ASSERT_TRUE(writeFileAtomically(file, std::string_view(reinterpret_cast<const char*>(PCM16WavWriter::data(pcm, 24'000, channels).data()),
                                                               44 + pcm.size())));
        EXPECT_NEAR(mediaDurationSeconds(file).value(), 2.0, 1e-3) << channels;
    }
    EXPECT_FALSE(mediaDurationSeconds(dir / "missing.m4a"));
}

// A WAV of `seconds` of a 440 Hz tone at `rate`; the right channel, if any, is the left one
// times `rightFactor`.
fs::path toneWav(const fs::path& dir, int rate, int channels, double rightFactor, double seconds = 1.0) {
    PCMBytes pcm;
    const int frames = int(rate * seconds);
    for (int i = 0; i < frames; ++i) {
        const double v = 0.5 * std::sin(2 * M_PI * 440.0 * i / rate);
        for (int c = 0; c < channels; ++c) {
            const auto s = std::int16_t(std::lround((c == 0 ? v : v * rightFactor) * 32767));
            pcm.push_back(std::uint8_t(s & 0xff));
            pcm.push_back(std::uint8_t((s >> 8) & 0xff));
        }
    }
    const PCMBytes wav = PCM16WavWriter::data(pcm, rate, channels);
    const fs::path file = dir / ("tone-" + std::to_string(rate) + "-" + std::to_string(channels) + ".wav");
    EXPECT_TRUE(writeFileAtomically(file, std::string_view(reinterpret_cast<const char*>(wav.data()), wav.size())));
    return file;
}

TEST_F(FfmpegFiles, AnyAudioDecodesToMono24kPCM16WithChannelsAveraged) {
    for (const auto& [rate, channels] : {std::pair{16'000, 1}, std::pair{48'000, 2}, std::pair{44'100, 2}}) {
        const auto pcm = decodePCM16Mono24k(toneWav(dir, rate, channels, 1.0));
        ASSERT_TRUE(pcm) << pcm.error().message;
        EXPECT_NEAR(double(pcm->size()), 48'000.0, 2 * 64.0) << rate;  // one second, within the filter's delay
        EXPECT_NEAR(pcm16Peak(*pcm), 0.5, 0.02) << rate;
    }
    // Opposite channels cancel: the mean is taken, not one side.
    const auto cancelled = decodePCM16Mono24k(toneWav(dir, 48'000, 2, -1.0));
    ASSERT_TRUE(cancelled);
    EXPECT_LT(pcm16Peak(*cancelled), 0.001);

    // A compressed file goes the same way.
    auto writer = AacFileWriter::open(dir / "speech.m4a", 48'000, 1, 96'000);
    ASSERT_TRUE(writer);
    std::vector<float> tone(48'000);
    for (std::size_t i = 0; i < tone.size(); ++i) tone[i] = float(0.4 * std::sin(0.05 * double(i)));
    ASSERT_TRUE((*writer)->write(tone.data(), tone.size()));
    ASSERT_TRUE((*writer)->finish());
    const auto aac = decodePCM16Mono24k(dir / "speech.m4a");
    ASSERT_TRUE(aac) << aac.error().message;
    EXPECT_NEAR(double(aac->size()) / 48'000.0, 1.0, 0.1);

    const auto missing = decodePCM16Mono24k(dir / "missing.wav");
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().code, "media_unreadable");
}

}  // namespace
}  // namespace osv
