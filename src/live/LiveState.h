#pragma once

// What every screen of a live session shows, as one value the controller publishes after
// each step that changed it. The window and the command line observe the same value;
// nothing reads the controller's fields piecemeal.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/Date.h"
#include "core/Uuid.h"
#include "settings/TranslatorSettings.h"
#include "transcript/CaptionBlocks.h"
#include "transcript/CaptureChannel.h"

namespace osv {

struct LiveChannelMeter {
    double level = 0;       // 0 to 1, as the meter shows it
    bool isAwake = true;    // a two-channel session sends a channel's audio once it woke
    bool isConnected = false;
    std::int64_t bytesPerSecond = 0;  // audio sent on the wire, over the last 3 seconds
};

struct LiveState {
    bool isLiveInterpreting = false;
    bool isStartingSession = false;
    bool isLivePaused = false;
    // Stop was pressed and the session's last work is not filed yet.
    bool isFinishingLiveSession = false;
    std::optional<Uuid> activeRecordingID;
    std::optional<Date> activeRecordingStartedAt;
    std::optional<Uuid> stoppingRecordingID;
    LiveInterpretationEngine engine = LiveInterpretationEngine::realtimeTranslation;
    std::vector<CaptureChannel> activeChannels{CaptureChannel::system};

    std::string statusText;
    std::string lastError;
    std::string liveNotice;
    std::string degradedCapture;

    double inputLevel = 0;
    std::map<CaptureChannel, LiveChannelMeter> meters;
    std::string monitorHeadline;
    // Seconds on air, paused time left out.
    double elapsedSeconds = 0;

    CaptionBlockList captions;
    bool labelsChannels = false;
    bool translates = true;
    bool hasFailedTranslations = false;
    // For the recording's quality notes: captions were interrupted by a lost connection; a
    // channel's source was given up for its translation for a while.
    bool hadCaptionOutage = false;
    bool hadSourceStreamOutage = false;
    bool hasOutstandingTranslations = false;

    bool isSessionActive() const { return isLiveInterpreting || isStartingSession || activeRecordingID.has_value(); }
};

}  // namespace osv
