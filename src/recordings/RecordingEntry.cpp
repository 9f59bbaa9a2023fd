#include "recordings/RecordingEntry.h"

#include <algorithm>
#include <array>
#include <tuple>

#include "core/DateFormat.h"
#include "core/EnumNames.h"
#include "core/Text.h"
#include "transcript/CaptionGrouping.h"

namespace osv {
namespace {

constexpr std::string_view kKinds[] = {"manual", "live"};
constexpr std::string_view kLabels[] = {"interpret", "record", "assist", "coach"};
constexpr std::string_view kStatuses[] = {"ready", "recording", "transcribing", "translating", "complete", "failed"};
constexpr std::string_view kFeedback[] = {"none", "good", "bad"};
constexpr std::string_view kDispositions[] = {"automatic", "mine", "theirs", "blocked"};
constexpr std::string_view kModeWords[] = {"同传", "录音", "助答", "陪练"};
// Longer legacy words first, so "同声传译" is not read as "同传"-less text.
constexpr std::array<std::string_view, 6> kTitleWords = {"同声传译", "新录音", "同传", "录音", "助答", "陪练"};
constexpr std::string_view kSeparator = " · ";
constexpr std::size_t kTopicLimit = 14;

bool startsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

// Consumes one or two ASCII digits.
bool digits12(std::string_view s, std::size_t& i) {
    std::size_t n = 0;
    while (n < 2 && i < s.size() && isAsciiDigit(s[i])) ++i, ++n;
    return n > 0;
}

bool consume(std::string_view s, std::size_t& i, std::string_view word) {
    if (s.substr(i, word.size()) != word) return false;
    i += word.size();
    return true;
}

// "12:30" at i, up to the end.
bool clockTail(std::string_view s, std::size_t i) {
    if (!digits12(s, i) || !consume(s, i, ":")) return false;
    std::size_t n = 0;
    while (i < s.size() && isAsciiDigit(s[i])) ++i, ++n;
    return n == 2 && i == s.size();
}

auto segmentKey(const TranscriptSegment& s) { return std::make_tuple(s.sequence, s.startedAt.seconds); }

// Trims blanks, "·" and the ideographic space.
std::string_view trimSeparators(std::string_view s) {
    auto isSeparator = [](char32_t c) { return c == U' ' || c == U'·' || c == U'\u3000'; };
    std::size_t begin = 0;
    while (begin < s.size()) {
        std::size_t next = begin;
        if (!isSeparator(text::decodeScalar(s, next))) break;
        begin = next;
    }
    std::size_t end = s.size();
    while (end > begin) {
        std::size_t start = end - 1;
        while (start > begin && (static_cast<unsigned char>(s[start]) & 0xC0) == 0x80) --start;
        std::size_t pos = start;
        if (!isSeparator(text::decodeScalar(s, pos))) break;
        end = start;
    }
    return s.substr(begin, end - begin);
}

}  // namespace

std::string_view rawValue(RecordingKind v) { return kKinds[std::size_t(v)]; }
std::string_view rawValue(SessionLabel v) { return kLabels[std::size_t(v)]; }
std::string_view rawValue(RecordingStatus v) { return kStatuses[std::size_t(v)]; }
std::string_view rawValue(RecordingFeedback v) { return kFeedback[std::size_t(v)]; }
std::string_view rawValue(AssistCaptionDisposition v) { return kDispositions[std::size_t(v)]; }
std::optional<SessionLabel> sessionLabelFromRaw(std::string_view raw) { return enumFromRaw<SessionLabel>(raw, kLabels); }
std::optional<RecordingStatus> recordingStatusFromRaw(std::string_view raw) {
    return enumFromRaw<RecordingStatus>(raw, kStatuses);
}
std::optional<RecordingFeedback> recordingFeedbackFromRaw(std::string_view raw) {
    return enumFromRaw<RecordingFeedback>(raw, kFeedback);
}
std::optional<AssistCaptionDisposition> assistCaptionDispositionFromRaw(std::string_view raw) {
    return enumFromRaw<AssistCaptionDisposition>(raw, kDispositions);
}
std::string_view modeWord(SessionLabel label) { return kModeWords[std::size_t(label)]; }

std::vector<std::string> SessionSummary::points() const {
    std::vector<std::string> all;
    for (const Topic& t : topics) all.insert(all.end(), t.points.begin(), t.points.end());
    return all;
}

RecordingEntry RecordingEntry::make(RecordingKind kind, RecordingStatus status, SessionLabel liveLabel,
                                    AudioCaptureMode captureMode, RecognitionLanguage language, Date now) {
    RecordingEntry e;
    e.id = Uuid::random();
    e.schemaVersion = 1;
    e.createdAt = now;
    e.updatedAt = now;
    e.kind = kind;
    e.mode = kind == RecordingKind::manual ? SessionLabel::record : liveLabel;
    e.captureMode = captureMode;
    e.language = language;
    e.status = status;
    e.titleIsAuto = true;
    e.title = composedTitle(e.mode, clock(now));
    return e;
}

void sortSegments(std::vector<TranscriptSegment>& segments) {
    std::stable_sort(segments.begin(), segments.end(),
                     [](const TranscriptSegment& a, const TranscriptSegment& b) { return segmentKey(a) < segmentKey(b); });
}

std::string joinedNonEmptyBlocks(const std::vector<std::string_view>& texts) {
    std::string out;
    for (std::string_view t : texts) {
        t = text::trimmed(t);
        if (t.empty()) continue;
        if (!out.empty()) out.append("\n\n");
        out.append(t);
    }
    return out;
}

void RecordingEntry::upsertSegmentInTimelineOrder(const TranscriptSegment& segment) {
    decodeTranscript();
    auto it = std::find_if(segments.begin(), segments.end(), [&](const auto& s) { return s.id == segment.id; });
    if (it == segments.end() && segment.sequence > 0)
        it = std::find_if(segments.begin(), segments.end(), [&](const auto& s) { return s.sequence == segment.sequence; });
    std::size_t index;
    if (it != segments.end()) {
        *it = segment;
        index = std::size_t(it - segments.begin());
    } else {
        segments.push_back(segment);
        index = segments.size() - 1;
    }
    resortIfNeeded(index);
    refreshDerivedText();
}

void RecordingEntry::removeSegment(const Uuid& segmentID) {
    decodeTranscript();
    std::erase_if(segments, [&](const TranscriptSegment& s) { return s.id == segmentID; });
    refreshDerivedText();
}

void RecordingEntry::resortIfNeeded(std::size_t index) {
    decodeTranscript();
    if (index >= segments.size()) return;
    const auto key = segmentKey(segments[index]);
    const bool afterPrevious = index == 0 || !(key < segmentKey(segments[index - 1]));
    const bool beforeNext = index + 1 >= segments.size() || !(segmentKey(segments[index + 1]) < key);
    if (!afterPrevious || !beforeNext) sortSegments(segments);
}

void RecordingEntry::refreshDerivedText() {
    decodeTranscript();
    segmentCount = std::int64_t(segments.size());
    std::vector<std::string_view> sources, translations;
    sources.reserve(segments.size());
    translations.reserve(segments.size());
    for (const TranscriptSegment& s : segments) {
        sources.push_back(s.sourceText);
        translations.push_back(s.translatedText);
    }
    sourceText = joinedNonEmptyBlocks(sources);
    translatedText = joinedNonEmptyBlocks(translations);
}

std::string RecordingEntry::composedTitle(SessionLabel mode, std::string_view topicText) {
    std::string_view t = text::trimmed(topicText);
    if (text::graphemeCount(t) > kTopicLimit) {
        const auto clusters = text::graphemes(t);
        t = std::string_view(t.data(), std::size_t(clusters[kTopicLimit].data() - t.data()));
    }
    std::string title(modeWord(mode));
    if (t.empty()) return title;
    title.append(kSeparator);
    title.append(t);
    return title;
}

bool RecordingEntry::isClockOnly(std::string_view s) {
    std::size_t i = 0;
    if (digits12(s, i) && consume(s, i, "月") && digits12(s, i) && consume(s, i, "日")) {
        const std::size_t dateEnd = i;
        while (i < s.size()) {
            std::size_t next = i;
            if (!text::isWhitespace(text::decodeScalar(s, next))) break;
            i = next;
        }
        if (i > dateEnd && clockTail(s, i)) return true;
    }
    return clockTail(s, 0);
}

std::optional<std::string> RecordingEntry::topic(std::string_view title) {
    const std::string_view trimmedTitle = text::trimmed(title);
    std::string_view candidate = trimmedTitle;
    for (std::string_view word : kTitleWords) {
        if (!startsWith(trimmedTitle, word)) continue;
        const std::string_view rest = trimmedTitle.substr(word.size());
        if (startsWith(rest, kSeparator)) {
            candidate = trimSeparators(rest.substr(kSeparator.size()));
        } else {
            const std::string_view left = trimSeparators(rest);
            if (left.empty() || isClockOnly(left)) return std::nullopt;
        }
        break;
    }
    if (candidate.empty() || isClockOnly(candidate)) return std::nullopt;
    return std::string(candidate);
}

std::string RecordingEntry::stripLeadingModeWords(std::string_view s) {
    for (;;) {
        s = text::trimmed(s);
        bool dropped = false;
        for (std::string_view word : kTitleWords) {
            if (startsWith(s, word) && startsWith(s.substr(word.size()), kSeparator)) {
                s.remove_prefix(word.size() + kSeparator.size());
                dropped = true;
                break;
            }
        }
        if (!dropped) return std::string(s);
    }
}

std::string RecordingEntry::clock(Date date, std::string_view timeZone) {
    return formatDate(date, "M月d日 HH:mm", timeZone);
}

std::string RecordingEntry::fallbackTitle(RecordingKind kind, Date createdAt, std::string_view timeZone) {
    std::string title(kind == RecordingKind::live ? "同传 " : "录音 ");
    title.append(formatDate(createdAt, DateStyle::numeric, TimeStyle::shortened, timeZone));
    return title;
}

void relabelPlaceholderTitles(std::vector<RecordingEntry>& entries, std::string_view timeZone) {
    for (RecordingEntry& e : entries) {
        if (!e.titleIsAuto) continue;
        const auto topic = RecordingEntry::topic(e.title);
        e.title = RecordingEntry::composedTitle(e.mode, topic ? *topic : RecordingEntry::clock(e.createdAt, timeZone));
    }
}

std::string transcriptMarkdown(const RecordingEntry& entry, std::string_view timeZone) {
    if (!entry.isTranscriptDecoded()) return transcriptMarkdown(entry.withDecodedTranscript(), timeZone);
    std::string md = "# " + entry.title;
    md += "\n\n创建时间：" + formatDate(entry.createdAt, DateStyle::abbreviated, TimeStyle::standard, timeZone);
    md += "\n类型：";
    md += entry.kind == RecordingKind::live ? "同传" : "录音";
    md += "\n语言：";
    switch (entry.language) {
        case RecognitionLanguage::automatic: md += "自动"; break;
        case RecognitionLanguage::chinese: md += "中文"; break;
        case RecognitionLanguage::japanese: md += "日文"; break;
    }
    md += "\n\n";

    std::string body;
    for (const CaptionGrouping::CaptionSentence& s : CaptionGrouping::sentences(entry.segments, entry.createdAt)) {
        const std::string_view source = text::trimmed(s.source);
        const std::string_view translation = text::trimmed(s.translation);
        std::string lines(source);
        if (!translation.empty() && translation != source) {
            if (!lines.empty()) lines += "\n> ";
            lines += translation;
        }
        if (lines.empty()) continue;
        if (!body.empty()) body += "\n\n";
        body += lines;
    }
    if (body.empty()) body = text::isBlank(entry.translatedText) ? entry.sourceText : entry.translatedText;
    return md + body;
}

}  // namespace osv
