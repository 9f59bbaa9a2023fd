#include "platform/pulse/PulseFrameSource.h"

#include "platform/pulse/PulseCapture.h"

namespace osv {
namespace {

class PulseFrameSource final : public FrameSource {
public:
    explicit PulseFrameSource(CaptureSide side) : side_(side) {}
    ~PulseFrameSource() override { capture_.stop(); }

    Expected<void> start(OnFrames onFrames, OnEvent onEvent) override {
        const bool system = side_ == CaptureSide::system;
        auto started = capture_.start(
            system ? PulseCapture::Follow::defaultSinkMonitor : PulseCapture::Follow::defaultSource,
            system ? std::optional<PulseCapture::Format>(PulseCapture::Format{48'000, 2}) : std::nullopt,
            [onFrames = std::move(onFrames)](const float* data, std::size_t frames, const PulseCapture::Format& f) {
                onFrames(data, frames, FrameFormat{f.sampleRate, f.channels});
            },
            std::move(onEvent));
        if (started) return {};
        if (!system && started.error().code == "no_capture_device")
            return Error{"microphone_unavailable", "没有可用的麦克风输入设备。"};
        return started.error();
    }
    void stop() override { capture_.stop(); }

private:
    CaptureSide side_;
    PulseCapture capture_;
};

}  // namespace

std::unique_ptr<FrameSource> PulseFrameSourceFactory::make(CaptureSide side) {
    return std::make_unique<PulseFrameSource>(side);
}

}  // namespace osv
