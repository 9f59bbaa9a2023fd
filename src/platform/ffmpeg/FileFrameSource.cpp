#include "platform/ffmpeg/FileFrameSource.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/ffmpeg/AudioFileDecoder.h"

namespace osv {
namespace {

constexpr int kRate = 24'000;

class FileFrameSource final : public FrameSource {
public:
    explicit FileFrameSource(std::optional<std::filesystem::path> file) : file_(std::move(file)) {}
    ~FileFrameSource() override { stop(); }

    Expected<void> start(OnFrames onFrames, OnEvent onEvent) override {
        if (!file_) return Error{"capture_failed", "这一路没有指定音频文件。"};
        auto pcm = decodePCM16Mono24k(*file_);
        if (!pcm) return Error{pcm.error().code, "无法读取音频文件 " + file_->string() + "：" + pcm.error().message};
        // Kept as 16-bit samples (half the memory of floats: a long file is many megabytes),
        // converted a piece at a time.
        samples_.resize(pcm->size() / 2);
        for (std::size_t i = 0; i < samples_.size(); ++i)
            samples_[i] = std::int16_t(std::uint16_t((*pcm)[2 * i]) | (std::uint16_t((*pcm)[2 * i + 1]) << 8));
        stopping_ = false;
        worker_ = std::thread([this, onFrames = std::move(onFrames), onEvent = std::move(onEvent)] {
            play(onFrames, onEvent);
        });
        return {};
    }

    void stop() override {
        {
            std::lock_guard guard(lock_);
            stopping_ = true;
        }
        wake_.notify_all();
        if (worker_.joinable()) worker_.join();
    }

private:
    // Paced by the steady clock from the start, so that pieces never drift from real time.
    void play(const OnFrames& onFrames, const OnEvent& onEvent) {
        using Clock = std::chrono::steady_clock;
        const auto start = Clock::now();
        const auto piece = std::size_t(FileFrameSourceFactory::kPieceSeconds * kRate);
        std::size_t position = 0;
        std::size_t index = 0;
        std::vector<float> frames(piece);
        std::unique_lock guard(lock_);
        while (!stopping_ && position < samples_.size()) {
            const auto due = start + std::chrono::duration_cast<Clock::duration>(
                                         std::chrono::duration<double>(double(index + 1) * FileFrameSourceFactory::kPieceSeconds));
            if (wake_.wait_until(guard, due, [this] { return stopping_; })) return;
            guard.unlock();
            const std::size_t n = std::min(piece, samples_.size() - position);
            for (std::size_t i = 0; i < n; ++i) frames[i] = float(samples_[position + i]) / 32767.0f;
            try {
                onFrames(frames.data(), n, FrameFormat{kRate, 1});
            } catch (...) {
                // A callback's failure loses this piece, not the capture.
            }
            position += n;
            ++index;
            guard.lock();
        }
        if (stopping_) return;
        guard.unlock();
        try {
            if (onEvent) onEvent("音频文件播放完毕", file_->filename().string(), "capture_file_ended");
        } catch (...) {
        }
    }

    std::optional<std::filesystem::path> file_;
    std::vector<std::int16_t> samples_;
    std::mutex lock_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread worker_;
};

}  // namespace

FileFrameSourceFactory::FileFrameSourceFactory(std::optional<std::filesystem::path> system,
                                               std::optional<std::filesystem::path> microphone) {
    if (system) files_[CaptureSide::system] = *system;
    if (microphone) files_[CaptureSide::microphone] = *microphone;
}

std::unique_ptr<FrameSource> FileFrameSourceFactory::make(CaptureSide side) {
    auto it = files_.find(side);
    return std::make_unique<FileFrameSource>(it == files_.end() ? std::nullopt
                                                                : std::optional<std::filesystem::path>(it->second));
}

}  // namespace osv
