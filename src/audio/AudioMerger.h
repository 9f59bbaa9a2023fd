#pragma once

// The port that turns a session's chunk files into its one recording. Implemented over
// FFmpeg by the platform; synchronous and thread-safe, so callers run it in the background.

#include <cstdint>
#include <filesystem>
#include <vector>

#include "core/Expected.h"

namespace osv {

struct MergedAudio {
    double duration = 0;  // seconds
    std::int64_t byteSize = 0;
};

class AudioMerger {
public:
    virtual ~AudioMerger() = default;
    // Every chunk in order into `output`, written atomically. A chunk that cannot be read is
    // left out. Error code "recording_failed" with "没有可合并的音频分段。" for no chunks,
    // "音频分段没有有效音轨。" when none can be read, or the encoder's reason.
    virtual Expected<MergedAudio> merge(const std::vector<std::filesystem::path>& chunks,
                                        const std::filesystem::path& output) = 0;
};

}  // namespace osv
