#pragma once

#include <optional>
#include <string>

#include "core/Date.h"
#include "core/Uuid.h"
#include "transcript/CaptureChannel.h"

namespace osv {

// The older record form of one line of transcript, kept in stored recordings and used by
// the chunked engine, which has no event log.
struct TranscriptSegment {
    enum class SegmentStatus { provisional, transcribing, translating, finalizing, complete, failed };

    Uuid id;
    int sequence = 0;  // from 1
    std::optional<CaptureChannel> channel;
    Date startedAt;
    std::string sourceText;
    std::string translatedText;
    SegmentStatus status = SegmentStatus::provisional;
    std::optional<int> firstVisibleLatencyMilliseconds;
    std::optional<int> finalLatencyMilliseconds;

    bool operator==(const TranscriptSegment&) const = default;
};

}  // namespace osv
