#pragma once

// The frame sources of live capture over PulseAudio: the default sink's monitor for the
// computer's sound (48 kHz stereo), the default (or echo-cancelling) source for the
// microphone, each following the server's default of its own kind.

#include "audio/FrameSource.h"

namespace osv {

class PulseFrameSourceFactory final : public FrameSourceFactory {
public:
    std::unique_ptr<FrameSource> make(CaptureSide side) override;
};

}  // namespace osv
