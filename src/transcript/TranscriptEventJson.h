#pragma once

// The JSON of events and logs. Key order is fixed: "id", "at", "receivedAt" (left out when
// absent), "channel", "payload"; the payload is an object with exactly one key, the case
// name; an unlabelled sentence id stands under "_0" as {"raw": "{UUID}"}. Dates are plain
// numbers of seconds since 2001-01-01 UTC.

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/Expected.h"
#include "transcript/TranscriptEvent.h"
#include "transcript/TranscriptSegment.h"

namespace osv {

nlohmann::ordered_json toJson(const TranscriptEvent& event);
nlohmann::ordered_json toJson(const GlossaryTerm& term);
// Error code "event_undecodable", with the reason in the message.
Expected<TranscriptEvent> transcriptEventFromJson(const nlohmann::ordered_json& json);
Expected<GlossaryTerm> glossaryTermFromJson(const nlohmann::ordered_json& json);

// A log inside a larger document: {"events": [...]}, written as the log stands.
nlohmann::ordered_json toJson(const TranscriptEventLog& log);
Expected<TranscriptEventLog> transcriptEventLogFromJson(const nlohmann::ordered_json& json);

// A segment: "id", "sequence", "channel", "startedAt", "sourceText", "translatedText",
// "status", and the two latencies; absent optionals are left out. Decoding is forgiving
// per field (a bad field takes its default); only an id that is no UUID fails.
nlohmann::ordered_json toJson(const TranscriptSegment& segment);
Expected<TranscriptSegment> transcriptSegmentFromJson(const nlohmann::ordered_json& json);
std::string_view rawValue(TranscriptSegment::SegmentStatus status);
std::optional<TranscriptSegment::SegmentStatus> segmentStatusFromRaw(std::string_view raw);

// One event as one compact line, without the line feed.
std::string encodeEventLine(const TranscriptEvent& event);
Expected<TranscriptEvent> decodeEventLine(std::string_view line);

// JSON Lines: one event per line, each ended by a line feed. Encodes events[from...].
std::string encodeJsonLines(const TranscriptEventLog& log, std::size_t from = 0);

struct JsonLinesReading {
    TranscriptEventLog log;
    std::size_t lineCount = 0;  // non-empty lines
    std::vector<std::pair<std::size_t, Error>> skipped;  // 1-based line number, why
};
// Splits on line feeds, drops empty lines and decodes each line by itself: a line that
// doesn't decode (the cut-off tail of a killed process) never costs the others.
JsonLinesReading decodeJsonLines(std::string_view bytes);

}  // namespace osv
