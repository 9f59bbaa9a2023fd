#pragma once

// Merges the recorders' WAV chunks (16-bit PCM, mono or stereo, any one rate) into AAC in
// an MPEG-4 file, through FFmpeg.

#include "audio/AudioMerger.h"

namespace osv {

class AudioFileMerger final : public AudioMerger {
public:
    Expected<MergedAudio> merge(const std::vector<std::filesystem::path>& chunks,
                                const std::filesystem::path& output) override;
};

}  // namespace osv
