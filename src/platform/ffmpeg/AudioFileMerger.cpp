#include "platform/ffmpeg/AudioFileMerger.h"

#include <cstring>
#include <fstream>
#include <optional>
#include <vector>

#include "core/Uuid.h"
#include "platform/ffmpeg/AacFileWriter.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

struct Wav {
    int sampleRate = 0;
    int channels = 0;
    std::vector<float> samples;  // interleaved
};

std::uint32_t u32(const char* p) {
    return std::uint32_t(std::uint8_t(p[0])) | std::uint32_t(std::uint8_t(p[1])) << 8 |
           std::uint32_t(std::uint8_t(p[2])) << 16 | std::uint32_t(std::uint8_t(p[3])) << 24;
}
std::uint16_t u16(const char* p) { return std::uint16_t(std::uint8_t(p[0]) | std::uint8_t(p[1]) << 8); }

// A 16-bit PCM WAV file; none when it is anything else or cut short before its data.
std::optional<Wav> readWav(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes.size() < 12 || bytes.compare(0, 4, "RIFF") != 0 || bytes.compare(8, 4, "WAVE") != 0) return std::nullopt;
    Wav wav;
    std::size_t at = 12;
    int bits = 0;
    while (at + 8 <= bytes.size()) {
        const std::string id = bytes.substr(at, 4);
        const std::size_t size = u32(bytes.data() + at + 4);
        const std::size_t body = at + 8;
        if (id == "fmt " && body + 16 <= bytes.size()) {
            if (u16(bytes.data() + body) != 1) return std::nullopt;
            wav.channels = u16(bytes.data() + body + 2);
            wav.sampleRate = int(u32(bytes.data() + body + 4));
            bits = u16(bytes.data() + body + 14);
        } else if (id == "data") {
            if (bits != 16 || wav.channels < 1 || wav.sampleRate < 1) return std::nullopt;
            const std::size_t available = std::min(size, bytes.size() - body) / 2;
            wav.samples.resize(available - available % std::size_t(wav.channels));
            for (std::size_t i = 0; i < wav.samples.size(); ++i)
                wav.samples[i] = float(std::int16_t(u16(bytes.data() + body + 2 * i))) / 32767.0f;
            return wav;
        }
        at = body + size + (size & 1);
    }
    return std::nullopt;
}

}  // namespace

Expected<MergedAudio> AudioFileMerger::merge(const std::vector<fs::path>& chunks, const fs::path& output) {
    if (chunks.empty()) return Error{"recording_failed", "没有可合并的音频分段。"};
    // Appended piece by piece: `"." + std::string` makes GCC 12 report a false -Wrestrict
    // at -O2 and above (GCC bug 105329).
    std::string hidden = ".";
    hidden.append(output.stem().string()).append("-").append(Uuid::random().text()).append(output.extension().string());
    const fs::path temporary = output.parent_path() / hidden;
    std::unique_ptr<AacFileWriter> writer;
    int channels = 0;
    int sampleRate = 0;
    std::size_t frames = 0;
    for (const auto& chunk : chunks) {
        auto wav = readWav(chunk);
        if (!wav || wav->samples.empty()) continue;  // a chunk without usable audio is left out
        if (!writer) {
            channels = wav->channels;
            sampleRate = wav->sampleRate;
            auto opened = AacFileWriter::open(temporary, sampleRate, channels, channels == 2 ? 96'000 : 64'000);
            if (!opened) return Error{"recording_failed", "无法创建音频导出器。" + opened.error().message};
            writer = std::move(*opened);
        }
        if (wav->sampleRate != sampleRate || wav->channels != channels) continue;  // one session, one format
        auto written = writer->write(wav->samples.data(), wav->samples.size() / std::size_t(channels));
        if (!written) {
            std::error_code ec;
            fs::remove(temporary, ec);
            return Error{"recording_failed", written.error().message};
        }
        frames += wav->samples.size() / std::size_t(channels);
    }
    if (!writer) return Error{"recording_failed", "音频分段没有有效音轨。"};
    auto finished = writer->finish();
    std::error_code ec;
    if (!finished) {
        fs::remove(temporary, ec);
        return Error{"recording_failed", finished.error().message};
    }
    fs::rename(temporary, output, ec);
    if (ec) {
        fs::remove(temporary, ec);
        return Error{"recording_failed", "无法保存合并后的录音：" + ec.message()};
    }
    MergedAudio merged;
    merged.duration = double(frames) / double(sampleRate);
    merged.byteSize = std::int64_t(fs::file_size(output, ec));
    if (ec) merged.byteSize = 0;
    return merged;
}

}  // namespace osv
