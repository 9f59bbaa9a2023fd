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

std::optional<RecordingEntry> entry(Element e, Date now) {
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

    if (auto id = read(Key::id, uuid)) r.id = *id;
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
    const RecordingStatus statusFallback = r.segments.empty() ? RecordingStatus::ready : RecordingStatus::complete;
    if (auto raw = read(Key::status, str)) r.status = recordingStatusFromRaw(*raw).value_or(statusFallback);
    else r.status = statusFallback;
    r.isLikelySilent = read(Key::isLikelySilent, boolean).value_or(false);
    r.peakLevel = nonNegative(read(Key::peakLevel, number));
    r.averageLevel = nonNegative(read(Key::averageLevel, number));
    r.levelSampleCount = std::max<std::int64_t>(0, read(Key::levelSampleCount, integer).value_or(0));
    r.segmentCount = std::max<std::int64_t>(read(Key::segmentCount, integer).value_or(0), std::int64_t(r.segments.size()));
    r.errorMessage = read(Key::errorMessage, optionalText);
    if (auto raw = read(Key::feedback, str)) r.feedback = recordingFeedbackFromRaw(*raw).value_or(RecordingFeedback::none);
    if (auto v = field(Key::usage))
        if (auto j = viaNlohmann(*v)) r.usage = usageTallyFromJson(*j);
    r.titleIsAuto = read(Key::titleIsAuto, boolean).value_or(false);
    r.replayStartupDuration = read(Key::replayStartupDuration, number);
    r.replayStopRequestedAt = read(Key::replayStopRequestedAt, date);
    r.importedAudioFilename = read(Key::importedAudioFilename, optionalText);
    if (auto v = field(Key::processingTrace)) r.processingTrace = processingTrace(*v);
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

static_assert(IndexBytes::kPadding >= simdjson::SIMDJSON_PADDING);

Expected<LossyRecordingEntryList> decodeList(const char* data, std::size_t size, bool padded, Date now) {
    dom::parser parser;
    Element root;
    if (parser.parse(data, size, !padded).get(root) != simdjson::SUCCESS)
        return Error{"recording_index_undecodable", "the index is not valid JSON"};
    dom::array array;
    if (root.get_array().get(array) != simdjson::SUCCESS)
        return Error{"recording_index_undecodable", "the index is not a JSON array"};
    LossyRecordingEntryList list;
    list.entries.reserve(array.size());
    for (Element item : array) {
        if (auto e = entry(item, now)) list.entries.push_back(std::move(*e));
        else ++list.skippedCount;
    }
    return list;
}

}  // namespace

Expected<IndexBytes> IndexBytes::read(const std::filesystem::path& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) {
        if (errno == ENOENT) return Error{"file_missing", "no file at " + path.string()};
        return Error{"file_unreadable", "cannot open " + path.string() + ": " + std::strerror(errno)};
    }
    IndexBytes bytes;
    long size = -1;
    if (std::fseek(file, 0, SEEK_END) == 0) size = std::ftell(file);
    bool ok = size >= 0 && std::fseek(file, 0, SEEK_SET) == 0;
    if (ok) {
        bytes.size_ = std::size_t(size);
        bytes.data_ = std::make_unique_for_overwrite<char[]>(bytes.size_ + kPadding);
        ok = std::fread(bytes.data_.get(), 1, bytes.size_, file) == bytes.size_;
        std::memset(bytes.data_.get() + bytes.size_, 0, kPadding);
    }
    std::fclose(file);
    if (!ok) return Error{"file_unreadable", "cannot read " + path.string()};
    return bytes;
}

IndexBytes IndexBytes::copy(std::string_view source) {
    IndexBytes bytes;
    bytes.size_ = source.size();
    bytes.data_ = std::make_unique<char[]>(source.size() + kPadding);
    std::memcpy(bytes.data_.get(), source.data(), source.size());
    return bytes;
}

Expected<LossyRecordingEntryList> decodeRecordingEntryList(const IndexBytes& bytes, Date now) {
    return decodeList(bytes.view().data(), bytes.view().size(), true, now);
}

Expected<LossyRecordingEntryList> decodeRecordingEntryList(std::string_view bytes, Date now) {
    return decodeList(bytes.data(), bytes.size(), false, now);
}

std::optional<RecordingEntry> decodeRecordingEntry(std::string_view json, Date now) {
    dom::parser parser;
    Element root;
    if (parser.parse(json.data(), json.size()).get(root) != simdjson::SUCCESS) return std::nullopt;
    return entry(root, now);
}

void writeRecordingEntry(JsonWriter& w, const RecordingEntry& r, const std::unordered_set<Uuid>* filedLogs) {
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
    w.key("sourceText");
    w.string(r.sourceText);
    w.key("translatedText");
    w.string(r.translatedText);
    w.key("segments");
    w.beginArray();
    for (const TranscriptSegment& s : r.segments) write(w, s);
    w.endArray();
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

std::string encodeRecordingEntries(const std::vector<RecordingEntry>& entries, const std::unordered_set<Uuid>* filedLogs,
                                   std::size_t sizeHint) {
    std::string out;
    out.reserve(sizeHint);
    JsonWriter w(out);
    w.beginArray();
    for (const RecordingEntry& e : entries) writeRecordingEntry(w, e, filedLogs);
    w.endArray();
    return out;
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

std::optional<std::vector<IndexElement>> unknownIndexElements(const IndexBytes& fileBytes,
                                                              const std::unordered_set<Uuid>& writtenIDs,
                                                              const std::unordered_set<Uuid>& knownIDs) {
    dom::parser parser;
    Element root;
    if (parser.parse(fileBytes.view().data(), fileBytes.view().size(), false).get(root) != simdjson::SUCCESS)
        return std::nullopt;
    dom::array array;
    if (root.get_array().get(array) != simdjson::SUCCESS) return std::nullopt;
    std::vector<IndexElement> kept;
    for (Element item : array) {
        dom::object object;
        if (item.get_object().get(object) != simdjson::SUCCESS) {
            kept.push_back({std::nullopt, simdjson::minify(item)});
            continue;
        }
        Element idValue;
        std::optional<Uuid> id;
        if (object.at_key("id").get(idValue) == simdjson::SUCCESS) id = uuid(idValue);
        if (!id) id = derivedRecordingID(simdjson::minify(item));
        if (!writtenIDs.contains(*id) && !knownIDs.contains(*id)) kept.push_back({id, simdjson::minify(item)});
    }
    return kept;
}

}  // namespace osv
