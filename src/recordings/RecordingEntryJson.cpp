#include "recordings/RecordingEntryJson.h"

#include <simdjson.h>

#include <array>
#include <cmath>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unordered_map>

#include "core/Json.h"
#include "core/Text.h"
#include "recordings/IndexText.h"
#include "transcript/CaptureChannel.h"
#include "transcript/TranscriptEventJson.h"

namespace osv {
namespace {

namespace dom = simdjson::dom;
using Element = dom::element;

// ---- Reading -------------------------------------------------------------------------

std::optional<std::string_view> str(Element e) {
    std::string_view s;
    if (e.get_string().get(s) != simdjson::SUCCESS) return std::nullopt;
    return s;
}

std::optional<double> number(Element e) {
    double d;
    if (e.get_double().get(d) != simdjson::SUCCESS || !std::isfinite(d)) return std::nullopt;
    return d;
}

std::optional<std::int64_t> integer(Element e) {
    std::int64_t i;
    if (e.get_int64().get(i) == simdjson::SUCCESS) return i;
    double d;
    if (e.type() == dom::element_type::DOUBLE && e.get_double().get(d) == simdjson::SUCCESS && d == std::floor(d) &&
        std::fabs(d) < 9.0e15)
        return std::int64_t(d);
    return std::nullopt;
}

std::optional<bool> boolean(Element e) {
    bool b;
    if (e.get_bool().get(b) != simdjson::SUCCESS) return std::nullopt;
    return b;
}

std::optional<Uuid> uuid(Element e) {
    auto s = str(e);
    return s ? Uuid::parse(*s) : std::nullopt;
}

std::optional<Date> date(Element e) {
    auto d = number(e);
    return d ? std::optional<Date>(Date(*d)) : std::nullopt;
}

std::string textOf(Element e) {
    auto s = str(e);
    return s ? std::string(*s) : std::string();
}

std::optional<std::string> optionalText(Element e) {
    auto s = str(e);
    return s ? std::optional<std::string>(std::string(*s)) : std::nullopt;
}

std::vector<std::string> texts(Element e) {
    std::vector<std::string> out;
    dom::array array;
    if (e.get_array().get(array) != simdjson::SUCCESS) return out;
    for (Element item : array)
        if (auto s = str(item)) out.emplace_back(*s);
    return out;
}

// Calls `f(key, value)` for each member of an object; false when `e` is no object.
template <class F>
bool forEachMember(Element e, F&& f) {
    dom::object object;
    if (e.get_object().get(object) != simdjson::SUCCESS) return false;
    for (dom::key_value_pair member : object) f(member.key, member.value);
    return true;
}

// Each element of an array that `decode` can read; the others are left out.
template <class T, class Decode>
std::vector<T> list(Element e, Decode&& decode) {
    std::vector<T> out;
    dom::array array;
    if (e.get_array().get(array) != simdjson::SUCCESS) return out;
    out.reserve(array.size());
    for (Element item : array)
        if (std::optional<T> v = decode(item)) out.push_back(std::move(*v));
    return out;
}

// Values whose readers work on nlohmann documents (they are small and rare in an index).
std::optional<json::Json> viaNlohmann(Element e) { return json::parse(simdjson::minify(e)); }

std::optional<TranscriptSegment> segment(Element e) {
    TranscriptSegment s;
    bool hasID = false;
    const bool isObject = forEachMember(e, [&](std::string_view key, Element v) {
        if (key == "id") {
            if (auto id = uuid(v)) s.id = *id, hasID = true;
        } else if (key == "sequence") {
            if (auto i = integer(v)) s.sequence = int(*i);
        } else if (key == "channel") {
            if (auto c = str(v)) s.channel = captureChannelFromRaw(*c);
        } else if (key == "startedAt") {
            if (auto d = date(v)) s.startedAt = *d;
        } else if (key == "sourceText") {
            s.sourceText = textOf(v);
        } else if (key == "translatedText") {
            s.translatedText = textOf(v);
        } else if (key == "status") {
            if (auto raw = str(v)) s.status = segmentStatusFromRaw(*raw).value_or(TranscriptSegment::SegmentStatus::provisional);
        } else if (key == "firstVisibleLatencyMilliseconds") {
            if (auto i = integer(v)) s.firstVisibleLatencyMilliseconds = int(*i);
        } else if (key == "finalLatencyMilliseconds") {
            if (auto i = integer(v)) s.finalLatencyMilliseconds = int(*i);
        }
    });
    if (!isObject || !hasID) return std::nullopt;
    return s;
}

std::optional<SessionSummary> summary(Element e) {
    SessionSummary s;
    const bool isObject = forEachMember(e, [&](std::string_view key, Element v) {
        if (key == "overview") s.overview = textOf(v);
        else if (key == "topics")
            s.topics = list<SessionSummary::Topic>(v, [](Element t) -> std::optional<SessionSummary::Topic> {
                SessionSummary::Topic topic;
                if (!forEachMember(t, [&](std::string_view k, Element tv) {
                        if (k == "title") topic.title = textOf(tv);
                        else if (k == "points") topic.points = texts(tv);
                    }))
                    return std::nullopt;
                return topic;
            });
        else if (key == "actions") s.actions = texts(v);
        else if (key == "createdAt") s.createdAt = date(v).value_or(Date());
        else if (key == "basedOnSentenceCount") s.basedOnSentenceCount = int(integer(v).value_or(0));
    });
    if (!isObject) return std::nullopt;
    return s;
}

std::optional<CoachReview> coachReview(Element e) {
    CoachReview c;
    bool hasID = false;
    const bool isObject = forEachMember(e, [&](std::string_view key, Element v) {
        if (key == "id") {
            if (auto id = uuid(v)) c.id = *id, hasID = true;
        } else if (key == "heard") c.heard = textOf(v);
        else if (key == "answer") c.answer = textOf(v);
        else if (key == "createdAt") c.createdAt = date(v).value_or(Date());
    });
    if (!isObject) return std::nullopt;
    if (!hasID) c.id = Uuid::random();
    return c;
}

std::optional<AnswerKind> answerKind(Element e) {
    std::optional<AnswerKind> kind;
    std::size_t members = 0;
    forEachMember(e, [&](std::string_view key, Element v) {
        ++members;
        if (key == "quick") kind = AnswerKind{AnswerKind::Case::quick, {}};
        else if (key == "considered") kind = AnswerKind{AnswerKind::Case::considered, {}};
        else if (key == "expansion") {
            std::string label;
            forEachMember(v, [&](std::string_view k, Element lv) {
                if (k == "_0") label = textOf(lv);
            });
            kind = AnswerKind{AnswerKind::Case::expansion, std::move(label)};
        }
    });
    if (members != 1) return std::nullopt;
    return kind;
}

std::optional<ResponseSuggestion> suggestion(Element e) {
    ResponseSuggestion r;
    bool hasID = false;
    const bool isObject = forEachMember(e, [&](std::string_view key, Element v) {
        if (key == "id") {
            if (auto id = uuid(v)) r.id = *id, hasID = true;
        } else if (key == "keyPoints") r.keyPoints = texts(v);
        else if (key == "replies")
            r.replies = list<SuggestedReply>(v, [](Element item) -> std::optional<SuggestedReply> {
                SuggestedReply reply;
                bool replyID = false;
                if (!forEachMember(item, [&](std::string_view k, Element rv) {
                        if (k == "id") {
                            if (auto id = uuid(rv)) reply.id = *id, replyID = true;
                        } else if (k == "text") reply.text = textOf(rv);
                        else if (k == "translation") reply.translation = textOf(rv);
                    }))
                    return std::nullopt;
                if (!replyID) reply.id = Uuid::random();
                return reply;
            });
        else if (key == "createdAt") r.createdAt = date(v).value_or(Date());
        else if (key == "basedOnLineCount") r.basedOnLineCount = int(integer(v).value_or(0));
        else if (key == "kind") r.kind = answerKind(v).value_or(AnswerKind{});
        else if (key == "language") r.language = str(v) == std::optional<std::string_view>("chinese")
                                                      ? ResolvedReplyLanguage::chinese
                                                      : ResolvedReplyLanguage::japanese;
        else if (key == "round") r.round = int(integer(v).value_or(0));
        else if (key == "isUnclear") r.isUnclear = boolean(v).value_or(false);
        else if (key == "question") r.question = optionalText(v);
        else if (key == "questionTranslation") r.questionTranslation = optionalText(v);
        else if (key == "questionIsMine") r.questionIsMine = boolean(v).value_or(false);
        else if (key == "questionJudgedUnclear") r.questionJudgedUnclear = boolean(v).value_or(false);
    });
    if (!isObject) return std::nullopt;
    if (!hasID) r.id = Uuid::random();
    return r;
}

std::optional<RecordingProcessingTrace> processingTrace(Element e) {
    RecordingProcessingTrace t;
    bool started = false;
    const bool isObject = forEachMember(e, [&](std::string_view key, Element v) {
        if (key == "startedAt") {
            if (auto d = date(v)) t.startedAt = *d, started = true;
        } else if (key == "sourceReadyAt") t.sourceReadyAt = date(v);
        else if (key == "translationReadyAt") t.translationReadyAt = date(v);
        else if (key == "summaryReadyAt") t.summaryReadyAt = date(v);
        else if (key == "finishedAt") t.finishedAt = date(v);
        else if (key == "sourceText") t.sourceText = textOf(v);
        else if (key == "translatedText") t.translatedText = textOf(v);
        else if (key == "summary") t.summary = summary(v);
        else if (key == "errorMessage") t.errorMessage = optionalText(v);
    });
    // A trace without its start cannot place any stage.
    if (!isObject || !started) return std::nullopt;
    return t;
}

template <class V, class Decode>
std::map<Uuid, V> uuidMap(Element e, Decode&& decode) {
    std::map<Uuid, V> out;
    forEachMember(e, [&](std::string_view key, Element v) {
        auto id = Uuid::parse(key);
        if (!id) return;
        if (std::optional<V> value = decode(v)) out.emplace(*id, std::move(*value));
    });
    return out;
}

enum class Key {
    id, schemaVersion, title, createdAt, updatedAt, kind, mode, replayStartupDuration, replayStopRequestedAt,
    processingTrace, importedAudioFilename, summary, coachCards, suggestions, suggestionFurigana,
    assistCaptionDispositions, captureMode, language, duration, byteSize, relativeAudioPath, sourceText,
    translatedText, segments, eventLog, status, isLikelySilent, peakLevel, averageLevel, levelSampleCount,
    segmentCount, errorMessage, feedback, usage, titleIsAuto, count
};

constexpr std::array<std::string_view, std::size_t(Key::count)> kKeys = {
    "id", "schemaVersion", "title", "createdAt", "updatedAt", "kind", "mode", "replayStartupDuration",
    "replayStopRequestedAt", "processingTrace", "importedAudioFilename", "summary", "coachCards", "suggestions",
    "suggestionFurigana", "assistCaptionDispositions", "captureMode", "language", "duration", "byteSize",
    "relativeAudioPath", "sourceText", "translatedText", "segments", "eventLog", "status", "isLikelySilent",
    "peakLevel", "averageLevel", "levelSampleCount", "segmentCount", "errorMessage", "feedback", "usage",
    "titleIsAuto"};

std::optional<Key> keyOf(std::string_view name) {
    static const auto table = [] {
        std::unordered_map<std::string_view, Key> m;
        for (std::size_t i = 0; i < kKeys.size(); ++i) m.emplace(kKeys[i], Key(i));
        return m;
    }();
    auto it = table.find(name);
    return it == table.end() ? std::nullopt : std::optional<Key>(it->second);
}

double finiteOrZero(double v) { return std::isfinite(v) ? v : 0.0; }

double nonNegative(std::optional<double> d) { return d && *d >= 0 ? *d : 0.0; }

// With `encoded`, the transcript's keys were taken out of `e` and stay encoded; the
// defaults that depend on the segments take their count from it. `hasID` tells whether the
// entry carries a readable id (otherwise one is derived from this very text).
std::optional<RecordingEntry> entry(Element e, Date now, std::shared_ptr<const EncodedTranscript> encoded = nullptr,
                                    bool* hasID = nullptr) {
    dom::object object;
    if (e.get_object().get(object) != simdjson::SUCCESS) return std::nullopt;
    std::array<std::optional<Element>, std::size_t(Key::count)> at;
    RecordingEntry r;
    for (dom::key_value_pair member : object) {
        if (auto k = keyOf(member.key)) {
            if (!at[std::size_t(*k)]) at[std::size_t(*k)] = member.value;
        } else {
            r.unknownFields.emplace_back(std::string(member.key), simdjson::minify(member.value));
        }
    }
    auto field = [&](Key k) { return at[std::size_t(k)]; };
    auto read = [&](Key k, auto&& decode) {
        auto v = field(k);
        return v ? decode(*v) : decltype(decode(*v)){};
    };

    const auto readID = read(Key::id, uuid);
    if (hasID) *hasID = bool(readID);
    if (readID) r.id = *readID;
    else r.id = derivedRecordingID(simdjson::minify(e));
    r.schemaVersion = int(read(Key::schemaVersion, integer).value_or(1));
    r.createdAt = read(Key::createdAt, date).value_or(now);
    r.updatedAt = read(Key::updatedAt, date).value_or(r.createdAt);
    r.kind = read(Key::kind, str) == std::optional<std::string_view>("live") ? RecordingKind::live : RecordingKind::manual;
    const SessionLabel modeFallback = r.kind == RecordingKind::live ? SessionLabel::interpret : SessionLabel::record;
    if (auto raw = read(Key::mode, str)) r.mode = sessionLabelFromRaw(*raw).value_or(modeFallback);
    else r.mode = modeFallback;
    const auto title = read(Key::title, str);
    r.title = title ? std::string(text::trimmed(*title)) : std::string();
    if (r.title.empty()) r.title = RecordingEntry::fallbackTitle(r.kind, r.createdAt);
    if (auto raw = read(Key::captureMode, str)) r.captureMode = captureModeFromRaw(*raw).value_or(AudioCaptureMode::systemAudio);
    if (auto raw = read(Key::language, str))
        r.language = recognitionLanguageFromRaw(*raw).value_or(RecognitionLanguage::automatic);
    r.duration = nonNegative(read(Key::duration, number));
    r.byteSize = std::max<std::int64_t>(0, read(Key::byteSize, integer).value_or(0));
    r.relativeAudioPath = read(Key::relativeAudioPath, optionalText);
    if (auto v = field(Key::sourceText)) r.sourceText = textOf(*v);
    if (auto v = field(Key::translatedText)) r.translatedText = textOf(*v);
    if (auto v = field(Key::segments)) {
        r.segments = list<TranscriptSegment>(*v, segment);
        sortSegments(r.segments);
    }
    if (auto v = field(Key::summary)) r.summary = summary(*v);
    if (auto v = field(Key::coachCards)) r.coachCards = list<CoachReview>(*v, coachReview);
    if (auto v = field(Key::suggestions)) r.suggestions = list<ResponseSuggestion>(*v, suggestion);
    if (auto v = field(Key::suggestionFurigana))
        r.suggestionFurigana = uuidMap<std::string>(*v, optionalText);
    if (auto v = field(Key::assistCaptionDispositions))
        r.assistCaptionDispositions = uuidMap<AssistCaptionDisposition>(*v, [](Element d) {
            auto raw = str(d);
            return raw ? assistCaptionDispositionFromRaw(*raw) : std::nullopt;
        });
    if (auto v = field(Key::eventLog))
        if (auto j = viaNlohmann(*v))
            if (auto log = transcriptEventLogFromJson(*j)) r.eventLog = std::move(*log);
    const std::size_t segmentsRead = encoded ? encoded->segmentCount : r.segments.size();
    const RecordingStatus statusFallback = segmentsRead == 0 ? RecordingStatus::ready : RecordingStatus::complete;
    if (auto raw = read(Key::status, str)) r.status = recordingStatusFromRaw(*raw).value_or(statusFallback);
    else r.status = statusFallback;
    r.isLikelySilent = read(Key::isLikelySilent, boolean).value_or(false);
    r.peakLevel = nonNegative(read(Key::peakLevel, number));
    r.averageLevel = nonNegative(read(Key::averageLevel, number));
    r.levelSampleCount = std::max<std::int64_t>(0, read(Key::levelSampleCount, integer).value_or(0));
    r.segmentCount = std::max<std::int64_t>(read(Key::segmentCount, integer).value_or(0), std::int64_t(segmentsRead));
    r.errorMessage = read(Key::errorMessage, optionalText);
    if (auto raw = read(Key::feedback, str)) r.feedback = recordingFeedbackFromRaw(*raw).value_or(RecordingFeedback::none);
    if (auto v = field(Key::usage))
        if (auto j = viaNlohmann(*v)) r.usage = usageTallyFromJson(*j);
    r.titleIsAuto = read(Key::titleIsAuto, boolean).value_or(false);
    r.replayStartupDuration = read(Key::replayStartupDuration, number);
    r.replayStopRequestedAt = read(Key::replayStopRequestedAt, date);
    r.importedAudioFilename = read(Key::importedAudioFilename, optionalText);
    if (auto v = field(Key::processingTrace)) r.processingTrace = processingTrace(*v);
    r.encodedTranscript.text = std::move(encoded);
    return r;
}

// ---- Writing -------------------------------------------------------------------------

void write(JsonWriter& w, const TranscriptSegment& s) {
    w.beginObject();
    w.key("id");
    w.uuid(s.id);
    w.key("sequence");
    w.integer(s.sequence);
    if (s.channel) {
        w.key("channel");
        w.string(rawValue(*s.channel));
    }
    w.key("startedAt");
    w.date(s.startedAt);
    w.key("sourceText");
    w.string(s.sourceText);
    w.key("translatedText");
    w.string(s.translatedText);
    w.key("status");
    w.string(rawValue(s.status));
    if (s.firstVisibleLatencyMilliseconds) {
        w.key("firstVisibleLatencyMilliseconds");
        w.integer(*s.firstVisibleLatencyMilliseconds);
    }
    if (s.finalLatencyMilliseconds) {
        w.key("finalLatencyMilliseconds");
        w.integer(*s.finalLatencyMilliseconds);
    }
    w.endObject();
}

void writeTexts(JsonWriter& w, const std::vector<std::string>& items) {
    w.beginArray();
    for (const std::string& s : items) w.string(s);
    w.endArray();
}

void write(JsonWriter& w, const SessionSummary& s) {
    w.beginObject();
    w.key("overview");
    w.string(s.overview);
    w.key("topics");
    w.beginArray();
    for (const SessionSummary::Topic& t : s.topics) {
        w.beginObject();
        w.key("title");
        w.string(t.title);
        w.key("points");
        writeTexts(w, t.points);
        w.endObject();
    }
    w.endArray();
    w.key("actions");
    writeTexts(w, s.actions);
    w.key("createdAt");
    w.date(s.createdAt);
    w.key("basedOnSentenceCount");
    w.integer(s.basedOnSentenceCount);
    w.endObject();
}

void write(JsonWriter& w, const CoachReview& c) {
    w.beginObject();
    w.key("id");
    w.uuid(c.id);
    w.key("heard");
    w.string(c.heard);
    w.key("answer");
    w.string(c.answer);
    w.key("createdAt");
    w.date(c.createdAt);
    w.endObject();
}

void write(JsonWriter& w, const AnswerKind& k) {
    w.beginObject();
    switch (k.kind) {
        case AnswerKind::Case::quick:
            w.key("quick");
            w.beginObject();
            w.endObject();
            break;
        case AnswerKind::Case::considered:
            w.key("considered");
            w.beginObject();
            w.endObject();
            break;
        case AnswerKind::Case::expansion:
            w.key("expansion");
            w.beginObject();
            w.key("_0");
            w.string(k.label);
            w.endObject();
            break;
    }
    w.endObject();
}

void writeOptional(JsonWriter& w, std::string_view key, const std::optional<std::string>& value) {
    if (!value) return;
    w.key(key);
    w.string(*value);
}

void writeOptional(JsonWriter& w, std::string_view key, const std::optional<Date>& value) {
    if (!value) return;
    w.key(key);
    w.date(*value);
}

void write(JsonWriter& w, const ResponseSuggestion& r) {
    w.beginObject();
    w.key("id");
    w.uuid(r.id);
    w.key("keyPoints");
    writeTexts(w, r.keyPoints);
    w.key("replies");
    w.beginArray();
    for (const SuggestedReply& reply : r.replies) {
        w.beginObject();
        w.key("id");
        w.uuid(reply.id);
        w.key("text");
        w.string(reply.text);
        w.key("translation");
        w.string(reply.translation);
        w.endObject();
    }
    w.endArray();
    w.key("createdAt");
    w.date(r.createdAt);
    w.key("basedOnLineCount");
    w.integer(r.basedOnLineCount);
    w.key("kind");
    write(w, r.kind);
    w.key("language");
    w.string(r.language == ResolvedReplyLanguage::chinese ? "chinese" : "japanese");
    w.key("round");
    w.integer(r.round);
    w.key("isUnclear");
    w.boolean(r.isUnclear);
    writeOptional(w, "question", r.question);
    writeOptional(w, "questionTranslation", r.questionTranslation);
    w.key("questionIsMine");
    w.boolean(r.questionIsMine);
    w.key("questionJudgedUnclear");
    w.boolean(r.questionJudgedUnclear);
    w.endObject();
}

void write(JsonWriter& w, const RecordingProcessingTrace& t) {
    w.beginObject();
    w.key("startedAt");
    w.date(t.startedAt);
    writeOptional(w, "sourceReadyAt", t.sourceReadyAt);
    writeOptional(w, "translationReadyAt", t.translationReadyAt);
    writeOptional(w, "summaryReadyAt", t.summaryReadyAt);
    writeOptional(w, "finishedAt", t.finishedAt);
    w.key("sourceText");
    w.string(t.sourceText);
    w.key("translatedText");
    w.string(t.translatedText);
    if (t.summary) {
        w.key("summary");
        write(w, *t.summary);
    }
    writeOptional(w, "errorMessage", t.errorMessage);
    w.endObject();
}

template <class V, class WriteValue>
void writeUuidMap(JsonWriter& w, const std::map<Uuid, V>& map, WriteValue&& writeValue) {
    w.beginObject();
    for (const auto& [id, value] : map) {
        w.key(id.text());
        writeValue(value);
    }
    w.endObject();
}

// The text of one value, parsed from a copy with room for the parser's padding.
simdjson::error_code parseValue(dom::parser& parser, std::string& scratch, std::string_view text, Element& out) {
    scratch.reserve(text.size() + simdjson::SIMDJSON_PADDING);
    scratch.assign(text);
    return parser.parse(scratch).get(out);
}

// One element of the index read the fast way: the transcript stays encoded when it is
// written exactly as this build writes it, and everything else is decoded from a copy of
// the element without it. None when the element is not such an entry (then the whole
// element is decoded the ordinary way).
std::optional<RecordingEntry> readWithEncodedTranscript(const char* p, const char* end, const char*& after,
                                                        const std::shared_ptr<const void>& owner, Date now,
                                                        dom::parser& parser, std::string& reduced) {
    using namespace indextext;
    auto encoded = std::make_shared<EncodedTranscript>();
    encoded->owner = owner;
    bool seen[3] = {false, false, false};
    reduced.clear();
    reduced.push_back('{');
    p = skipWhitespace(p + 1, end);
    if (p < end && *p == '}') return std::nullopt;
    for (;;) {
        if (p >= end || *p != '"') return std::nullopt;
        const char* keyStart = p;
        const char* keyEnd = skipValue(p, end);
        if (!keyEnd) return std::nullopt;
        const std::string_view key(keyStart + 1, std::size_t(keyEnd - keyStart - 2));
        if (key.find('\\') != std::string_view::npos) return std::nullopt;
        p = skipWhitespace(keyEnd, end);
        if (p >= end || *p != ':') return std::nullopt;
        p = skipWhitespace(p + 1, end);
        const int big = key == "sourceText" ? 0 : key == "translatedText" ? 1 : key == "segments" ? 2 : -1;
        const char* valueEnd;
        if (big >= 0) {
            if (seen[big]) return std::nullopt;
            seen[big] = true;
            valueEnd = big == 2 ? canonicalSegments(p, end, encoded->segmentCount) : canonicalString(p, end);
            if (!valueEnd) return std::nullopt;
            const std::string_view value(p, std::size_t(valueEnd - p));
            (big == 0 ? encoded->sourceText : big == 1 ? encoded->translatedText : encoded->segments) = value;
        } else {
            valueEnd = skipValue(p, end);
            if (!valueEnd) return std::nullopt;
            if (reduced.size() > 1) reduced.push_back(',');
            reduced.append(keyStart, valueEnd);
        }
        p = skipWhitespace(valueEnd, end);
        if (p < end && *p == ',') {
            p = skipWhitespace(p + 1, end);
            continue;
        }
        if (p < end && *p == '}') break;
        return std::nullopt;
    }
    reduced.push_back('}');
    reduced.reserve(reduced.size() + simdjson::SIMDJSON_PADDING);
    Element element;
    if (parser.parse(reduced).get(element) != simdjson::SUCCESS) return std::nullopt;
    bool hasID = false;
    auto r = entry(element, now, std::move(encoded), &hasID);
    if (!r || !hasID) return std::nullopt;  // a derived id is made from the whole element
    after = p + 1;
    return r;
}

struct ScannedIndex {
    LossyRecordingEntryList list;
    // When asked for: every element's text in file order, with the index of its entry (none
    // for an element that is no object).
    std::vector<std::pair<std::string_view, std::optional<std::size_t>>> elements;
};

// The index element by element. A file that is no JSON array as a whole is refused, as it
// always was; within it, each element is read on its own.
Expected<ScannedIndex> scanIndex(std::string_view text, const std::shared_ptr<const void>& owner, Date now,
                                 bool keepElements) {
    using namespace indextext;
    const Error undecodable{"recording_index_undecodable", "the index is not valid JSON"};
    if (!simdjson::validate_utf8(text.data(), text.size())) return undecodable;
    const char* const end = text.data() + text.size();
    const char* p = skipWhitespace(text.data(), end);
    if (p == end || *p != '[') {
        if (p != end && skipValue(p, end)) return Error{"recording_index_undecodable", "the index is not a JSON array"};
        return undecodable;
    }
    ScannedIndex out;
    dom::parser parser;
    std::string scratch;
    p = skipWhitespace(p + 1, end);
    if (p < end && *p == ']') {
        p = skipWhitespace(p + 1, end);
    } else {
        for (;;) {
            const char* start = p;
            const char* after = nullptr;
            std::optional<RecordingEntry> fast;
            if (p < end && *p == '{') fast = readWithEncodedTranscript(p, end, after, owner, now, parser, scratch);
            std::optional<std::size_t> entryIndex;
            if (fast) {
                entryIndex = out.list.entries.size();
                out.list.entries.push_back(std::move(*fast));
            } else {
                after = skipValue(p, end);
                if (!after) return undecodable;
                Element element;
                if (parseValue(parser, scratch, std::string_view(start, std::size_t(after - start)), element) !=
                    simdjson::SUCCESS)
                    return undecodable;
                if (auto e = entry(element, now)) {
                    entryIndex = out.list.entries.size();
                    out.list.entries.push_back(std::move(*e));
                } else {
                    ++out.list.skippedCount;
                    out.list.unreadable.push_back({std::nullopt, simdjson::minify(element)});
                }
            }
            if (keepElements) out.elements.push_back({std::string_view(start, std::size_t(after - start)), entryIndex});
            p = skipWhitespace(after, end);
            if (p < end && *p == ',') {
                p = skipWhitespace(p + 1, end);
                continue;
            }
            if (p < end && *p == ']') {
                p = skipWhitespace(p + 1, end);
                break;
            }
            return undecodable;
        }
    }
    if (p != end) return undecodable;
    return out;
}

}  // namespace

void RecordingEntry::decodeTranscript() {
    if (!encodedTranscript) return;
    const std::shared_ptr<const EncodedTranscript> encoded = std::move(encodedTranscript.text);
    encodedTranscript.text.reset();
    sourceText = indextext::unescapeCanonicalString(encoded->sourceText);
    translatedText = indextext::unescapeCanonicalString(encoded->translatedText);
    dom::parser parser;
    std::string scratch;
    Element element;
    segments.clear();
    if (parseValue(parser, scratch, encoded->segments, element) == simdjson::SUCCESS) {
        segments = list<TranscriptSegment>(element, segment);
        sortSegments(segments);
    }
}

Expected<LossyRecordingEntryList> decodeRecordingEntryList(std::string_view text, std::shared_ptr<const void> owner,
                                                           Date now) {
    auto scanned = scanIndex(text, owner, now, false);
    if (!scanned) return scanned.error();
    return std::move(scanned->list);
}

Expected<LossyRecordingEntryList> decodeRecordingEntryList(std::string_view bytes, Date now) {
    auto copy = std::make_shared<const std::string>(bytes);
    return decodeRecordingEntryList(*copy, copy, now);
}

std::optional<RecordingEntry> decodeRecordingEntry(std::string_view json, Date now) {
    dom::parser parser;
    std::string scratch;
    Element root;
    if (parseValue(parser, scratch, json, root) != simdjson::SUCCESS) return std::nullopt;
    return entry(root, now);
}

namespace {

// Writes an entry; with `pieces`, a transcript kept as read is referred to, not copied.
void writeEntry(JsonWriter& w, const RecordingEntry& r, const std::unordered_set<Uuid>* filedLogs, EncodedIndex* pieces);

}  // namespace

void writeRecordingEntry(JsonWriter& w, const RecordingEntry& r, const std::unordered_set<Uuid>* filedLogs) {
    writeEntry(w, r, filedLogs, nullptr);
}

void EncodedIndex::keep(std::string_view text) {
    if (text_.size() > cut_) pieces_.push_back({true, cut_, text_.size() - cut_, {}});
    pieces_.push_back({false, 0, 0, text});
    cut_ = text_.size();
    size_ += text.size();
}

std::vector<std::string_view> EncodedIndex::pieces() const {
    std::vector<std::string_view> out;
    out.reserve(pieces_.size() + 1);
    for (const Piece& p : pieces_) out.push_back(p.written ? std::string_view(text_).substr(p.offset, p.length) : p.kept);
    if (text_.size() > cut_) out.push_back(std::string_view(text_).substr(cut_));
    return out;
}

std::size_t EncodedIndex::size() const { return size_ + text_.size(); }

std::string EncodedIndex::joined() const {
    std::string out;
    out.reserve(size());
    for (std::string_view p : pieces()) out.append(p);
    return out;
}

EncodedIndex encodeRecordingIndex(const std::vector<RecordingEntry>& entries, const std::unordered_set<Uuid>* filedLogs,
                                  const std::vector<IndexElement>& carried) {
    EncodedIndex index;
    JsonWriter w(index.text());
    w.beginArray();
    for (const RecordingEntry& e : entries) writeEntry(w, e, filedLogs, &index);
    for (const IndexElement& element : carried) w.raw(element.json);
    w.endArray();
    return index;
}

namespace {

void writeEntry(JsonWriter& w, const RecordingEntry& r, const std::unordered_set<Uuid>* filedLogs, EncodedIndex* pieces) {
    w.beginObject();
    w.key("id");
    w.uuid(r.id);
    w.key("schemaVersion");
    w.integer(r.schemaVersion);
    w.key("title");
    w.string(r.title);
    w.key("createdAt");
    w.date(r.createdAt);
    w.key("updatedAt");
    w.date(r.updatedAt);
    w.key("kind");
    w.string(rawValue(r.kind));
    w.key("mode");
    w.string(rawValue(r.mode));
    if (r.replayStartupDuration) {
        w.key("replayStartupDuration");
        w.number(*r.replayStartupDuration);
    }
    writeOptional(w, "replayStopRequestedAt", r.replayStopRequestedAt);
    if (r.processingTrace) {
        w.key("processingTrace");
        write(w, *r.processingTrace);
    }
    writeOptional(w, "importedAudioFilename", r.importedAudioFilename);
    if (r.summary) {
        w.key("summary");
        write(w, *r.summary);
    }
    if (!r.coachCards.empty()) {
        w.key("coachCards");
        w.beginArray();
        for (const CoachReview& c : r.coachCards) write(w, c);
        w.endArray();
    }
    if (!r.suggestions.empty()) {
        w.key("suggestions");
        w.beginArray();
        for (const ResponseSuggestion& s : r.suggestions) write(w, s);
        w.endArray();
    }
    if (!r.suggestionFurigana.empty()) {
        w.key("suggestionFurigana");
        writeUuidMap(w, r.suggestionFurigana, [&](const std::string& s) { w.string(s); });
    }
    if (!r.assistCaptionDispositions.empty()) {
        w.key("assistCaptionDispositions");
        writeUuidMap(w, r.assistCaptionDispositions, [&](AssistCaptionDisposition d) { w.string(rawValue(d)); });
    }
    w.key("captureMode");
    w.string(rawValue(r.captureMode));
    w.key("language");
    w.string(rawValue(r.language));
    w.key("duration");
    w.number(finiteOrZero(r.duration));
    w.key("byteSize");
    w.integer(r.byteSize);
    writeOptional(w, "relativeAudioPath", r.relativeAudioPath);
    if (const EncodedTranscript* encoded = r.encodedTranscript.text.get()) {
        // Exactly the text this build would write for it, as it was read.
        auto kept = [&](std::string_view key, std::string_view text) {
            w.key(key);
            if (!pieces) return w.raw(text);
            pieces->keep(text);
            w.raw("");  // the value is in place: what follows needs its comma
        };
        kept("sourceText", encoded->sourceText);
        kept("translatedText", encoded->translatedText);
        kept("segments", encoded->segments);
    } else {
        w.key("sourceText");
        w.string(r.sourceText);
        w.key("translatedText");
        w.string(r.translatedText);
        w.key("segments");
        w.beginArray();
        for (const TranscriptSegment& s : r.segments) write(w, s);
        w.endArray();
    }
    if (r.eventLog && !(filedLogs && filedLogs->contains(r.id))) {
        w.key("eventLog");
        w.raw(json::dumpLine(toJson(filedLogs ? r.eventLog->compacted() : *r.eventLog)));
    }
    w.key("status");
    w.string(rawValue(r.status));
    w.key("isLikelySilent");
    w.boolean(r.isLikelySilent);
    w.key("peakLevel");
    w.number(finiteOrZero(r.peakLevel));
    w.key("averageLevel");
    w.number(finiteOrZero(r.averageLevel));
    w.key("levelSampleCount");
    w.integer(r.levelSampleCount);
    w.key("segmentCount");
    w.integer(r.segmentCount);
    writeOptional(w, "errorMessage", r.errorMessage);
    w.key("feedback");
    w.string(rawValue(r.feedback));
    // Only a tally with nothing in it is left out, so no figure of a session is dropped.
    if (!(r.usage == UsageTally{})) {
        w.key("usage");
        w.raw(json::dumpLine(toJson(r.usage)));
    }
    w.key("titleIsAuto");
    w.boolean(r.titleIsAuto);
    for (const auto& [key, raw] : r.unknownFields) {
        w.key(key);
        w.raw(raw);
    }
    w.endObject();
}

}  // namespace

std::string encodeRecordingEntries(const std::vector<RecordingEntry>& entries, const std::unordered_set<Uuid>* filedLogs) {
    return encodeRecordingIndex(entries, filedLogs, {}).joined();
}

Uuid derivedRecordingID(std::string_view minified) {
    // Two FNV-1a passes with different offsets make 128 bits; stable across runs and builds.
    auto fnv = [&](std::uint64_t hash) {
        for (unsigned char c : minified) {
            hash ^= c;
            hash *= 0x100000001b3ULL;
        }
        return hash;
    };
    const std::uint64_t a = fnv(0xcbf29ce484222325ULL);
    const std::uint64_t b = fnv(0x6c62272e07bb0142ULL);
    std::array<std::uint8_t, 16> bytes{};
    for (int i = 0; i < 8; ++i) {
        bytes[std::size_t(i)] = std::uint8_t(a >> (56 - 8 * i));
        bytes[std::size_t(8 + i)] = std::uint8_t(b >> (56 - 8 * i));
    }
    bytes[6] = std::uint8_t((bytes[6] & 0x0F) | 0x80);  // version 8: custom
    bytes[8] = std::uint8_t((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    return Uuid(bytes);
}

std::optional<std::vector<IndexElement>> unknownIndexElements(std::string_view file,
                                                              const std::unordered_set<Uuid>& writtenIDs,
                                                              const std::unordered_set<Uuid>& knownIDs) {
    auto scanned = scanIndex(file, nullptr, Date(0), true);  // the entries die here
    if (!scanned) return std::nullopt;
    // In file order, as carrying over has always kept them.
    std::vector<IndexElement> kept;
    std::size_t unreadable = 0;
    dom::parser parser;
    std::string scratch;
    for (const auto& [text, entryIndex] : scanned->elements) {
        if (!entryIndex) {
            kept.push_back(std::move(scanned->list.unreadable[unreadable++]));
            continue;
        }
        const Uuid& id = scanned->list.entries[*entryIndex].id;
        if (writtenIDs.contains(id) || knownIDs.contains(id)) continue;
        Element element;
        if (parseValue(parser, scratch, text, element) != simdjson::SUCCESS) return std::nullopt;
        kept.push_back({id, simdjson::minify(element)});
    }
    return kept;
}

}  // namespace osv
