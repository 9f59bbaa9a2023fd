#include "audio/CaptureRecorder.h"

#include <algorithm>
#include <deque>
#include <mutex>
#include <utility>

#include "core/Uuid.h"
#include "audio/PCM16WavWriter.h"
#include "audio/AudioLevel.h"

namespace osv {

namespace fs = std::filesystem;

// What capture threads hand over: converted buffers in arrival order. Shared with the
// capture callbacks, so a source still winding down never touches a freed recorder.
struct CaptureRecorder::Inbox {
    struct Item {
        CaptureSide side;
        PCMBytes pcm;
        double level;
    };
    std::mutex lock;
    std::deque<Item> items;
    bool postPending = false;  // one main-thread task takes everything queued before it
};

CaptureRecorder::CaptureRecorder(Scheduler& scheduler, FrameSourceFactory& sources, ChunkFileWriter& writer)
    : scheduler_(scheduler), sources_(sources), writer_(writer), inbox_(std::make_shared<Inbox>()) {}

CaptureRecorder::~CaptureRecorder() {
    if (system_) system_->stop();
    if (microphone_) microphone_->stop();
}

std::optional<std::string> CaptureRecorder::degradedCapture(const StartReport& report) {
    if (report.systemStarted && !report.microphoneStarted) return "仅系统声音（麦克风不可用）";
    if (!report.systemStarted && report.microphoneStarted) return "仅麦克风（系统声音没权限）";
    return std::nullopt;
}

int CaptureRecorder::recordingChannels() const {
    return options_.mode == Mode::mixed && options_.preserveRecordingChannels ? 2 : 1;
}

Expected<CaptureRecorder::StartReport> CaptureRecorder::start(Options options, Callbacks callbacks) {
    if (running_) return report_;
    options_ = std::move(options);
    callbacks_ = std::move(callbacks);
    mixer_.reset();
    accumulator_.clear();
    recordedFrames_ = 0;
    report_ = {};
    inbox_ = std::make_shared<Inbox>();  // nothing of an earlier run is taken into this one

    const std::weak_ptr<void> alive = lifetime_.guard();
    auto startSide = [&](CaptureSide side) -> Expected<std::unique_ptr<FrameSource>> {
        auto source = sources_.make(side);
        if (!source) return Error{"capture_failed", "无法创建音频输入。"};
        std::weak_ptr<Inbox> weakInbox = inbox_;
        Scheduler* scheduler = &scheduler_;
        auto onFrames = [this, weakInbox, scheduler, side, alive](const float* data, std::size_t frames,
                                                                  const FrameFormat& format) {
            // Capture thread: convert, queue, and wake the main thread once per batch.
            try {
                auto inbox = weakInbox.lock();
                if (!inbox) return;
                const PCMBufferView view{data, nullptr, frames, format.channels, double(format.sampleRate),
                                         PCMBufferView::SampleFormat::float32, true, false};
                PCMBytes pcm = RealtimePCMEncoder::pcm16Mono24k(view);
                if (pcm.empty()) return;
                const double level = AudioLevelMeter::normalizedLevel(view);
                bool post = false;
                {
                    std::lock_guard guard(inbox->lock);
                    inbox->items.push_back({side, std::move(pcm), level});
                    post = !std::exchange(inbox->postPending, true);
                }
                if (post)
                    scheduler->post([this, alive, weakInbox] {
                        // Checked on the main thread, where the recorder is destroyed.
                        if (alive.expired() || weakInbox.lock() != inbox_) return;
                        takeInbox();
                    });
            } catch (...) {
                // A buffer lost to a failed allocation never ends the capture.
            }
        };
        auto onEvent = [this, scheduler, alive](const std::string& title, const std::string& details,
                                                const std::string& code) {
            try {
                scheduler->post([this, alive, title, details, code] {
                    if (alive.expired()) return;
                    if (callbacks_.onEvent) callbacks_.onEvent(title, details, code);
                });
            } catch (...) {
            }
        };
        auto started = source->start(std::move(onFrames), std::move(onEvent));
        if (!started) return started.error();
        return source;
    };

    const bool wantsSystem = options_.mode != Mode::microphone;
    const bool wantsMicrophone = options_.mode != Mode::systemAudio;
    std::optional<Error> systemError;
    std::optional<Error> microphoneError;
    if (wantsSystem) {
        auto s = startSide(CaptureSide::system);
        if (s) system_ = std::move(*s), report_.systemStarted = true;
        else systemError = s.error(), report_.systemFailure = s.error().message;
    }
    if (wantsMicrophone) {
        auto m = startSide(CaptureSide::microphone);
        if (m) microphone_ = std::move(*m), report_.microphoneStarted = true;
        else microphoneError = m.error(), report_.microphoneFailure = m.error().message;
    }

    if (!report_.systemStarted && !report_.microphoneStarted) {
        if (options_.mode == Mode::systemAudio) return *systemError;
        if (options_.mode == Mode::microphone) return *microphoneError;
        return Error{"recording_failed", "录音失败：系统声音和麦克风都不可用。系统：" + report_.systemFailure.value_or("未知") +
                                             "；麦克风：" + report_.microphoneFailure.value_or("未知")};
    }
    mixer_.setExpected(report_.systemStarted, report_.microphoneStarted);
    running_ = true;
    startedAt_ = scheduler_.now() - std::max(0.0, options_.leadingSilenceSeconds);
    padToWallClock(0);
    drainTimer_ = scheduler_.after(kDrainSeconds, [this] { tick(); });
    if (!options_.chunkDirectory.empty())
        chunkTimer_ = scheduler_.after(std::max(0.5, options_.chunkSeconds), [this] { cutChunk(false, {}); });
    return report_;
}

void CaptureRecorder::takeInbox() {
    std::deque<Inbox::Item> items;
    {
        std::lock_guard guard(inbox_->lock);
        items.swap(inbox_->items);
        inbox_->postPending = false;
    }
    for (auto& item : items) deliver(item.side, std::move(item.pcm), item.level);
}

void CaptureRecorder::deliver(CaptureSide side, PCMBytes pcm, double level) {
    if (!running_) return;
    if (options_.mode == Mode::mixed) {
        if (side == CaptureSide::system) {
            mixer_.appendSystem(pcm);
            if (callbacks_.onSystemPCM) callbacks_.onSystemPCM(pcm);
        } else {
            mixer_.appendMicrophone(pcm);
            if (callbacks_.onMicrophonePCM) callbacks_.onMicrophonePCM(pcm);
        }
        return;
    }
    record(pcm);
    if (callbacks_.onLevel) callbacks_.onLevel(level);
    if (callbacks_.onRealtimePCM) callbacks_.onRealtimePCM(pcm);
}

void CaptureRecorder::tick() {
    if (!running_) return;
    drainTimer_ = scheduler_.after(kDrainSeconds, [this] { tick(); });
    if (options_.mode == Mode::mixed) {
        if (auto out = mixer_.drain(false)) {
            record(options_.preserveRecordingChannels ? out->stereo : out->mono);
            if (callbacks_.onLevel) callbacks_.onLevel(LiveAudioMixer::level(out->mono));
            if (callbacks_.onRealtimePCM) callbacks_.onRealtimePCM(out->mono);
        }
    }
    padToWallClock(kPadToLagSeconds);
}

void CaptureRecorder::record(const PCMBytes& pcm) {
    if (options_.chunkDirectory.empty()) return;
    accumulator_.insert(accumulator_.end(), pcm.begin(), pcm.end());
    recordedFrames_ += pcm.size() / (2 * std::size_t(recordingChannels()));
}

// An offset into the recording is the same offset into the session: a side that delivers
// nothing (an idle sink's monitor, a stalled device) is recorded as silence.
void CaptureRecorder::padToWallClock(double lagSeconds) {
    if (options_.chunkDirectory.empty()) return;
    const double elapsed = scheduler_.now() - startedAt_;
    const double recorded = double(recordedFrames_) / kWorkingSampleRate;
    const bool stopping = lagSeconds <= 0;
    if (!stopping && elapsed - recorded <= kPadAfterLagSeconds) return;
    const double target = std::max(0.0, elapsed - lagSeconds);
    if (recorded >= target) return;
    const auto frames = std::size_t((target - recorded) * kWorkingSampleRate);
    accumulator_.insert(accumulator_.end(), frames * 2 * std::size_t(recordingChannels()), 0);
    recordedFrames_ += frames;
}

void CaptureRecorder::cutChunk(bool final, std::function<void(std::optional<fs::path>)> done) {
    if (!final) {
        if (!running_) return;
        chunkTimer_ = scheduler_.after(std::max(0.5, options_.chunkSeconds), [this] { cutChunk(false, {}); });
    }
    PCMBytes pcm = std::exchange(accumulator_, {});
    if (options_.chunkDirectory.empty() || pcm.size() <= options_.minimumChunkBytes) {
        if (!final && callbacks_.onLevel && options_.mode == Mode::mixed) callbacks_.onLevel(0);
        if (done) done(std::nullopt);
        return;
    }
    const fs::path path = options_.chunkDirectory / (options_.chunkPrefix + Uuid::random().text() + ".wav");
    PCMBytes wav = PCM16WavWriter::data(pcm, kWorkingSampleRate, recordingChannels());
    std::string bytes(reinterpret_cast<const char*>(wav.data()), wav.size());
    const std::weak_ptr<void> alive = lifetime_.guard();
    writer_.write(path.string(), std::move(bytes), [this, alive, path, final, done = std::move(done)](bool ok) {
        // A chunk that could not be written is lost; the recording goes on.
        if (final) {
            if (done) done(ok ? std::optional<fs::path>(path) : std::nullopt);
            return;
        }
        if (alive.expired() || !ok) return;
        if (callbacks_.onChunk) callbacks_.onChunk(path);
    });
}

void CaptureRecorder::stop(std::function<void(std::optional<fs::path>)> done) {
    if (!running_) {
        if (done) done(std::nullopt);
        return;
    }
    // After stop() returns a source calls back no more: what it delivered is in the inbox.
    if (system_) system_->stop();
    if (microphone_) microphone_->stop();
    takeInbox();
    if (options_.mode == Mode::mixed) {
        if (auto out = mixer_.drain(true)) {
            record(options_.preserveRecordingChannels ? out->stereo : out->mono);
            if (callbacks_.onRealtimePCM) callbacks_.onRealtimePCM(out->mono);
        }
    }
    padToWallClock(0);
    running_ = false;
    drainTimer_.cancel();
    chunkTimer_.cancel();
    system_.reset();
    microphone_.reset();
    cutChunk(true, std::move(done));
}

}  // namespace osv
