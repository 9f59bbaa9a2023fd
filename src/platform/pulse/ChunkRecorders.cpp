#include "platform/pulse/ChunkRecorders.h"

#include <algorithm>
#include <chrono>

#include "core/AtomicFile.h"
#include "core/Uuid.h"
#include "platform/ffmpeg/AacFileWriter.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

fs::path temporaryChunk(const std::string& prefix, const std::string& extension) {
    return fs::temp_directory_path() / (prefix + Uuid::random().text() + extension);
}

Expected<void> writeBytes(const fs::path& path, const PCMBytes& bytes) {
    return writeFileAtomically(path, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

PCMBufferView viewOf(const float* data, std::size_t frames, const PulseCapture::Format& f) {
    return PCMBufferView{data, nullptr, frames, f.channels, double(f.sampleRate), PCMBufferView::SampleFormat::float32,
                         true, false};
}

// What every capture buffer gives at once: the level, and the working format for the wire.
void deliverLive(const PCMBufferView& view, const RecorderCallbacks& callbacks) {
    if (callbacks.onLevel) callbacks.onLevel(AudioLevelMeter::normalizedLevel(view));
    if (!callbacks.onRealtimePCM) return;
    PCMBytes pcm = RealtimePCMEncoder::pcm16Mono24k(view);
    if (!pcm.empty()) callbacks.onRealtimePCM(pcm);
}

std::size_t framesFor(double seconds, int sampleRate) {
    return std::max<std::size_t>(1, std::size_t(seconds * double(sampleRate)));
}

}  // namespace

// ---- microphone ----

Expected<AudioChunkRecorder::Preflight> AudioChunkRecorder::preflight() {
    auto devices = listAudioDevices();
    if (!devices) return devices.error();
    const AudioDevice* chosen = nullptr;
    for (const auto& s : devices->sources) {
        if (s.isEchoCancel && !s.isMonitor) chosen = &s;
    }
    if (!chosen)
        for (const auto& s : devices->sources)
            if (s.name == devices->defaultSource && !s.isMonitor) chosen = &s;
    if (!chosen || chosen->channels < 1) return Error{"microphone_unavailable", "没有可用的麦克风输入设备。"};
    return Preflight{chosen->channels, chosen->sampleRate, chosen->name};
}

AudioChunkRecorder::~AudioChunkRecorder() { stop(false); }

Expected<void> AudioChunkRecorder::start(double chunkSeconds, RecorderCallbacks callbacks, bool produceChunkFiles) {
    if (running_) return {};
    {
        std::lock_guard guard(lock_);
        callbacks_ = std::move(callbacks);
        produceChunkFiles_ = produceChunkFiles;
        chunk_.clear();
        framesInChunk_ = 0;
        framesPerChunk_ = 0;
    }
    auto started = capture_.start(
        PulseCapture::Follow::defaultSource, std::nullopt,
        [this](const float* d, std::size_t n, const PulseCapture::Format& f) { onFrames(d, n, f); },
        [this](const std::string& t, const std::string& d, const std::string& c) {
            if (callbacks_.onEvent) callbacks_.onEvent(t, d, c);
        });
    if (!started) {
        if (started.error().code == "no_capture_device")
            return Error{"microphone_unavailable", "没有可用的麦克风输入设备。"};
        return started.error();
    }
    std::lock_guard guard(lock_);
    format_ = capture_.format();
    framesPerChunk_ = framesFor(chunkSeconds, format_.sampleRate);
    running_ = true;
    return {};
}

void AudioChunkRecorder::onFrames(const float* data, std::size_t frames, const PulseCapture::Format& format) {
    deliverLive(viewOf(data, frames, format), callbacks_);
    if (!produceChunkFiles_) return;
    std::optional<fs::path> finished;
    {
        std::lock_guard guard(lock_);
        const std::size_t samples = frames * std::size_t(format.channels);
        for (std::size_t i = 0; i < samples; ++i) {
            const auto v = std::int16_t(std::clamp(double(data[i]), -1.0, 1.0) * 32767.0);
            chunk_.push_back(std::uint8_t(std::uint16_t(v) & 0xFF));
            chunk_.push_back(std::uint8_t(std::uint16_t(v) >> 8));
        }
        framesInChunk_ += frames;
        if (framesInChunk_ >= framesPerChunk_) finished = finishChunk(true);
    }
    if (finished && callbacks_.onChunk) callbacks_.onChunk(*finished);
}

// Lock held. The file of the chunk under way, written whole; none when empty or unwritable.
std::optional<fs::path> AudioChunkRecorder::finishChunk(bool emit) {
    PCMBytes pcm = std::move(chunk_);
    chunk_.clear();
    framesInChunk_ = 0;
    if (!emit || pcm.empty()) return std::nullopt;
    const fs::path path = temporaryChunk("osv-", ".wav");
    if (!writeBytes(path, PCM16WavWriter::data(pcm, format_.sampleRate, format_.channels))) return std::nullopt;
    return path;
}

std::optional<fs::path> AudioChunkRecorder::stop(bool emitFinalChunk) {
    if (!running_) return std::nullopt;
    running_ = false;
    capture_.stop();
    std::lock_guard guard(lock_);
    return produceChunkFiles_ ? finishChunk(emitFinalChunk) : std::nullopt;
}

// ---- system audio ----

SystemAudioChunkRecorder::SystemAudioChunkRecorder() = default;
SystemAudioChunkRecorder::~SystemAudioChunkRecorder() { stop(false); }

Expected<void> SystemAudioChunkRecorder::start(double chunkSeconds, std::size_t minimumChunkBytes,
                                               RecorderCallbacks callbacks, bool produceChunkFiles) {
    if (running_) return {};
    {
        std::lock_guard guard(lock_);
        callbacks_ = std::move(callbacks);
        produceChunkFiles_ = produceChunkFiles;
        minimumChunkBytes_ = minimumChunkBytes;
        framesPerChunk_ = framesFor(chunkSeconds, 48'000);
        framesInChunk_ = 0;
    }
    auto started = capture_.start(
        PulseCapture::Follow::defaultSinkMonitor, PulseCapture::Format{48'000, 2},
        [this](const float* d, std::size_t n, const PulseCapture::Format& f) { onFrames(d, n, f); },
        [this](const std::string& t, const std::string& d, const std::string& c) {
            if (callbacks_.onEvent) callbacks_.onEvent(t, d, c);
        });
    if (!started) return started.error();
    running_ = true;
    return {};
}

void SystemAudioChunkRecorder::onFrames(const float* data, std::size_t frames, const PulseCapture::Format& format) {
    std::optional<fs::path> finished;
    if (produceChunkFiles_) {
        std::lock_guard guard(lock_);
        if (!writer_) {
            // The chunk's file begins with its first audio.
            currentPath_ = temporaryChunk("osv-system-", ".m4a");
            auto opened = AacFileWriter::open(currentPath_, 48'000, 2, 128'000);
            if (opened) writer_ = std::move(*opened);
        }
        if (writer_) (void)writer_->write(data, frames);  // a lost buffer never stops the recording
        framesInChunk_ += frames;
        if (framesInChunk_ >= framesPerChunk_) finished = finishChunk(true);
    }
    deliverLive(viewOf(data, frames, format), callbacks_);
    if (finished && callbacks_.onChunk) callbacks_.onChunk(*finished);
}

// Lock held. The recorder lets go of the writer first, so that the next chunk can begin.
std::optional<fs::path> SystemAudioChunkRecorder::finishChunk(bool emit) {
    std::unique_ptr<AacFileWriter> writer = std::move(writer_);
    const fs::path path = currentPath_;
    currentPath_.clear();
    framesInChunk_ = 0;
    if (!writer) return std::nullopt;  // no audio in the period
    const bool completed = writer->finish().ok() && writer->framesWritten() > 0;
    std::error_code ec;
    const auto size = fs::file_size(path, ec);
    // A chunk nobody will receive is not left behind in the temporary folder.
    if (!completed || ec || size <= minimumChunkBytes_ || !emit) {
        fs::remove(path, ec);
        return std::nullopt;
    }
    return path;
}

std::optional<fs::path> SystemAudioChunkRecorder::stop(bool emitFinalChunk) {
    if (!running_) return std::nullopt;
    running_ = false;
    capture_.stop();
    std::lock_guard guard(lock_);
    return finishChunk(emitFinalChunk);
}

// ---- both ----

MixedAudioChunkRecorder::~MixedAudioChunkRecorder() { stop(false); }

std::optional<std::string> MixedAudioChunkRecorder::degradedCapture(const StartReport& report) {
    if (report.systemStarted && !report.microphoneStarted) return "仅系统声音（麦克风不可用）";
    if (!report.systemStarted && report.microphoneStarted) return "仅麦克风（系统声音没权限）";
    return std::nullopt;
}

Expected<MixedAudioChunkRecorder::StartReport> MixedAudioChunkRecorder::start(double chunkSeconds,
                                                                              std::size_t minimumChunkBytes,
                                                                              Callbacks callbacks,
                                                                              bool preserveRecordingChannels) {
    if (running_) return StartReport{true, true, std::nullopt, std::nullopt};
    mixer_.reset();
    {
        std::lock_guard guard(lock_);
        chunkAccumulator_.clear();
        callbacks_ = std::move(callbacks);
        minimumChunkBytes_ = minimumChunkBytes;
        preserveRecordingChannels_ = preserveRecordingChannels;
    }
    StartReport report;
    RecorderCallbacks systemSide;
    systemSide.onRealtimePCM = [this](const PCMBytes& pcm) {
        mixer_.appendSystem(pcm);
        if (callbacks_.onSystemPCM) callbacks_.onSystemPCM(pcm);
    };
    systemSide.onEvent = callbacks_.onEvent;
    if (auto started = system_.start(chunkSeconds, 0, systemSide, false)) report.systemStarted = true;
    else report.systemFailure = started.error().message;

    RecorderCallbacks microphoneSide;
    microphoneSide.onRealtimePCM = [this](const PCMBytes& pcm) {
        mixer_.appendMicrophone(pcm);
        if (callbacks_.onMicrophonePCM) callbacks_.onMicrophonePCM(pcm);
    };
    microphoneSide.onEvent = callbacks_.onEvent;
    if (auto started = microphone_.start(chunkSeconds, microphoneSide, false)) report.microphoneStarted = true;
    else report.microphoneFailure = started.error().message;

    if (!report.systemStarted && !report.microphoneStarted)
        return Error{"recording_failed", "录音失败：系统声音和麦克风都不可用。系统：" + report.systemFailure.value_or("未知") +
                                             "；麦克风：" + report.microphoneFailure.value_or("未知")};
    mixer_.setExpected(report.systemStarted, report.microphoneStarted);
    stopping_ = false;
    running_ = true;
    worker_ = std::thread([this, chunkSeconds] { run(chunkSeconds); });
    return report;
}

void MixedAudioChunkRecorder::run(double chunkSeconds) {
    using Clock = std::chrono::steady_clock;
    const auto drainPeriod = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(kDrainSeconds));
    const auto chunkPeriod = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(chunkSeconds));
    auto nextDrain = Clock::now() + drainPeriod;
    auto nextChunk = Clock::now() + chunkPeriod;
    std::unique_lock wait(wakeLock_);
    while (!stopping_) {
        wake_.wait_until(wait, std::min(nextDrain, nextChunk), [this] { return stopping_; });
        if (stopping_) break;
        const auto now = Clock::now();
        if (now >= nextDrain) {
            wait.unlock();
            drainOnce(false);
            wait.lock();
            nextDrain += drainPeriod;
        }
        if (now >= nextChunk) {
            wait.unlock();
            std::optional<fs::path> chunk;
            {
                std::lock_guard guard(lock_);
                chunk = finishChunk(true);
            }
            if (chunk && callbacks_.onChunk) callbacks_.onChunk(*chunk);
            wait.lock();
            nextChunk += chunkPeriod;
        }
    }
}

void MixedAudioChunkRecorder::drainOnce(bool flush) {
    auto out = mixer_.drain(flush);
    if (!out) return;
    {
        std::lock_guard guard(lock_);
        const PCMBytes& kept = preserveRecordingChannels_ ? out->stereo : out->mono;
        chunkAccumulator_.insert(chunkAccumulator_.end(), kept.begin(), kept.end());
    }
    if (callbacks_.onLevel) callbacks_.onLevel(LiveAudioMixer::level(out->mono));
    if (callbacks_.onRealtimePCM) callbacks_.onRealtimePCM(out->mono);
}

// Lock held.
std::optional<fs::path> MixedAudioChunkRecorder::finishChunk(bool emit) {
    PCMBytes pcm = std::move(chunkAccumulator_);
    chunkAccumulator_.clear();
    if (pcm.size() <= minimumChunkBytes_) {
        if (emit && callbacks_.onLevel) callbacks_.onLevel(0);
        return std::nullopt;
    }
    if (!emit) return std::nullopt;  // nobody receives it: no file
    const fs::path path = temporaryChunk("osv-mixed-", ".wav");
    if (!writeBytes(path, PCM16WavWriter::data(pcm, kWorkingSampleRate, preserveRecordingChannels_ ? 2 : 1)))
        return std::nullopt;
    return path;
}

std::optional<fs::path> MixedAudioChunkRecorder::stop(bool emitFinalChunk) {
    if (!running_) return std::nullopt;
    running_ = false;
    {
        std::lock_guard guard(wakeLock_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (worker_.joinable()) worker_.join();
    system_.stop(false);
    microphone_.stop(false);
    drainOnce(true);
    std::lock_guard guard(lock_);
    auto last = finishChunk(emitFinalChunk);
    return last;
}

}  // namespace osv
