#pragma once

// Sample content for demonstrations: a fixed conversation between a Japanese speaker on
// the computer's sound and the Chinese-reading user on the microphone, played through the
// real segmenter and session at invented times, which doubles as a proof of the pipeline.

#include <optional>
#include <string>
#include <vector>

#include "recordings/RecordingEntry.h"
#include "transcript/LiveTranscriptSession.h"

namespace osv::PreviewTranscript {

struct Line {
    CaptureChannel channel;
    std::vector<std::string> deltas;    // recognised source, in the pieces a service sends
    std::vector<std::string> streamed;  // the streamed translation beside it
    std::optional<std::string> answer;  // filed as the sentence's translation
    TranslationOrigin origin = TranslationOrigin::refined;
    std::optional<std::string> failure;  // filed as a failed translation
};

// True only when OSV_PREVIEW_TRANSCRIPT is exactly "1".
bool isEnabled();

const std::vector<Line>& script();

// Plays the script into `session` (reset first) from `start`; returns when it ended.
Date play(LiveTranscriptSession& session, Date start);

// A finished live recording of the script, its log folded into segments, as the history
// shows it. The conversation ends at `now`.
RecordingEntry makeRecording(Date now);

}  // namespace osv::PreviewTranscript
