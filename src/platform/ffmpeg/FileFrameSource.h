#pragma once

// Audio files played as capture: each side may be fed by a file (any format FFmpeg reads),
// decoded once and delivered at real time in 20 ms pieces on a thread of its own, so that
// it passes through exactly the recorders, chunk files and levels of live capture. After
// the end of its file a side delivers nothing, as an idle sink's monitor does, and reports
// the event "capture_file_ended" once.

#include <filesystem>
#include <map>
#include <optional>

#include "audio/FrameSource.h"

namespace osv {

class FileFrameSourceFactory final : public FrameSourceFactory {
public:
    // A side without a file starts with "capture_failed", as a missing device would.
    FileFrameSourceFactory(std::optional<std::filesystem::path> system, std::optional<std::filesystem::path> microphone);
    std::unique_ptr<FrameSource> make(CaptureSide side) override;

    static constexpr double kPieceSeconds = 0.020;

private:
    std::map<CaptureSide, std::filesystem::path> files_;
};

}  // namespace osv
