#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "audio/RealtimePCMEncoder.h"
#include "core/AtomicFile.h"
#include "core/Uuid.h"
#include "platform/ffmpeg/AacFileWriter.h"

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

}  // namespace
}  // namespace osv
