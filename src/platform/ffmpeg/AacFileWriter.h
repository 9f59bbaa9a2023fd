#pragma once

// AAC in an MPEG-4 file (.m4a) through FFmpeg's libraries, fed with interleaved float
// frames; and the duration of a media file, read back the same way.

#include <filesystem>
#include <memory>

#include "core/Expected.h"

namespace osv {

class AacFileWriter {
public:
    // Error code "encoder_failed" with FFmpeg's reason.
    static Expected<std::unique_ptr<AacFileWriter>> open(const std::filesystem::path& path, int sampleRate, int channels,
                                                         int bitRate);
    ~AacFileWriter();
    AacFileWriter(const AacFileWriter&) = delete;
    AacFileWriter& operator=(const AacFileWriter&) = delete;

    Expected<void> write(const float* interleaved, std::size_t frames);
    // Encodes what is left and closes the file; a writer is finished once.
    Expected<void> finish();
    std::size_t framesWritten() const { return framesWritten_; }

private:
    struct State;
    explicit AacFileWriter(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
    std::size_t framesWritten_ = 0;
};

// Seconds of audio in a media file, as FFmpeg reads it; error code "media_unreadable".
Expected<double> mediaDurationSeconds(const std::filesystem::path& path);

}  // namespace osv
