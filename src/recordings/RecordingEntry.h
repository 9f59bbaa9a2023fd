#pragma once

// One session that left a trace, live or manual, as the index keeps it; its titles and
// the Markdown a user pastes into notes.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/Date.h"
#include "core/Uuid.h"
#include "metering/UsageTally.h"
#include "recordings/StoredValues.h"
#include "settings/TranslatorSettings.h"
#include "transcript/TranscriptEvent.h"
#include "transcript/TranscriptSegment.h"

namespace osv {

enum class RecordingKind { manual, live };
enum class SessionLabel { interpret, record, assist, coach };
enum class RecordingStatus { ready, recording, transcribing, translating, complete, failed };
enum class RecordingFeedback { none, good, bad };
enum class AssistCaptionDisposition { automatic, mine, theirs, blocked };

std::string_view rawValue(RecordingKind v);
std::string_view rawValue(SessionLabel v);
std::string_view rawValue(RecordingStatus v);
std::string_view rawValue(RecordingFeedback v);
std::string_view rawValue(AssistCaptionDisposition v);
std::optional<SessionLabel> sessionLabelFromRaw(std::string_view raw);
std::optional<RecordingStatus> recordingStatusFromRaw(std::string_view raw);
std::optional<RecordingFeedback> recordingFeedbackFromRaw(std::string_view raw);
std::optional<AssistCaptionDisposition> assistCaptionDispositionFromRaw(std::string_view raw);
// "同传", "录音", "助答", "陪练".
std::string_view modeWord(SessionLabel label);

// The transcript of an entry as the index stored it: sourceText, translatedText and
// segments as their exact JSON text, which is what this build writes for them. Kept
// undecoded until first use, so a history of thousands of sessions costs about its file's
// size in memory, and an entry nobody touched is written back as it was read.
struct EncodedTranscript {
    std::shared_ptr<const void> owner;  // keeps the text the views point into
    std::string_view sourceText = "\"\"";
    std::string_view translatedText = "\"\"";
    std::string_view segments = "[]";
    std::size_t segmentCount = 0;
};

struct RecordingEntry {
    Uuid id;
    int schemaVersion = 1;
    std::string title;
    Date createdAt;
    Date updatedAt;
    RecordingKind kind = RecordingKind::manual;
    SessionLabel mode = SessionLabel::record;
    AudioCaptureMode captureMode = AudioCaptureMode::systemAudio;
    RecognitionLanguage language = RecognitionLanguage::automatic;
    double duration = 0;  // seconds of audio
    std::int64_t byteSize = 0;
    std::optional<std::string> relativeAudioPath;  // "Recordings/<file>", below the support directory
    std::string sourceText;                        // derived from segments
    std::string translatedText;
    std::vector<TranscriptSegment> segments;  // by sequence, then startedAt
    std::optional<SessionSummary> summary;
    std::vector<CoachReview> coachCards;
    std::vector<ResponseSuggestion> suggestions;
    std::map<Uuid, std::string> suggestionFurigana;
    std::map<Uuid, AssistCaptionDisposition> assistCaptionDispositions;
    std::optional<TranscriptEventLog> eventLog;  // inline until filed under transcripts/
    RecordingStatus status = RecordingStatus::ready;
    bool isLikelySilent = false;
    double peakLevel = 0;
    double averageLevel = 0;
    std::int64_t levelSampleCount = 0;
    std::int64_t segmentCount = 0;  // kept when segments are trimmed
    std::optional<std::string> errorMessage;
    RecordingFeedback feedback = RecordingFeedback::none;
    UsageTally usage;
    bool titleIsAuto = false;
    std::optional<double> replayStartupDuration;
    std::optional<Date> replayStopRequestedAt;
    std::optional<std::string> importedAudioFilename;
    std::optional<RecordingProcessingTrace> processingTrace;

    // Members a newer build wrote that this one does not know, as key and JSON text. They
    // are written back after the known keys, so an older build's save never drops them.
    std::vector<std::pair<std::string, std::string>> unknownFields;

    // Set while sourceText, translatedText and segments are still encoded; they are empty
    // here until decodeTranscript() fills them. RecordingLibrary decodes an entry on first
    // use (recording(id), selection, updateRecording); the list from recordings() may hold
    // encoded entries, whose other fields are all there. Equality ignores the encoded text:
    // compare decoded entries.
    struct EncodedTranscriptRef {
        std::shared_ptr<const EncodedTranscript> text;
        explicit operator bool() const { return bool(text); }
        bool operator==(const EncodedTranscriptRef&) const { return true; }
    } encodedTranscript;
    bool isTranscriptDecoded() const { return !encodedTranscript; }
    // Fills sourceText, translatedText and segments from the encoded text; nothing when
    // they are decoded already.
    void decodeTranscript();
    // A copy with the transcript decoded, however this one holds it: what the fields meant
    // before transcripts could stay encoded.
    RecordingEntry withDecodedTranscript() const {
        RecordingEntry copy = *this;
        copy.decodeTranscript();
        return copy;
    }

    // A fresh entry: mode "record" for a manual one, `liveLabel` for a live one; titled by
    // the clock of `now`.
    static RecordingEntry make(RecordingKind kind, RecordingStatus status, SessionLabel liveLabel,
                               AudioCaptureMode captureMode, RecognitionLanguage language, Date now);

    // Replaces the segment with the same id (or, for a sequence above 0, the same
    // sequence) or appends, keeps the order, and refreshes the derived text.
    void upsertSegmentInTimelineOrder(const TranscriptSegment& segment);
    void removeSegment(const Uuid& segmentID);
    // Sorts the whole list only when the segment at `index` is out of order with a neighbour.
    void resortIfNeeded(std::size_t index);
    void refreshDerivedText();

    // Titles. The clock is "M月d日 HH:mm" in the user's time zone (or `timeZone`).
    static std::string composedTitle(SessionLabel mode, std::string_view topic);
    static std::optional<std::string> topic(std::string_view title);
    static bool isClockOnly(std::string_view text);
    static std::string stripLeadingModeWords(std::string_view text);
    static std::string clock(Date date, std::string_view timeZone = {});
    // "同传 {date}" or "录音 {date}": what an entry without a usable title is called.
    static std::string fallbackTitle(RecordingKind kind, Date createdAt, std::string_view timeZone = {});

    bool operator==(const RecordingEntry&) const = default;
};

// Sorts by sequence, then startedAt; stable.
void sortSegments(std::vector<TranscriptSegment>& segments);
// Trimmed texts, the empty ones left out, joined by blank lines.
std::string joinedNonEmptyBlocks(const std::vector<std::string_view>& texts);

// Auto titles become `composedTitle(mode, topic ?? clock(createdAt))`; typed titles stay.
void relabelPlaceholderTitles(std::vector<RecordingEntry>& entries, std::string_view timeZone = {});

// The transcript as Markdown: title, creation date, kind, language, then each sentence
// with its translation quoted under it.
std::string transcriptMarkdown(const RecordingEntry& entry, std::string_view timeZone = {});

}  // namespace osv
