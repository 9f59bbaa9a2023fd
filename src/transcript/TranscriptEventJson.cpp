#include "transcript/TranscriptEventJson.h"

#include <array>

#include "core/Json.h"

namespace osv {
namespace {

using json::Json;

Json idJson(const SentenceID& id) {
    Json j = Json::object();
    j["raw"] = id.raw.text();
    return j;
}

// Decoding of one event: the first problem found ends it, with a reason a person can act on.
struct Problem {
    std::string reason;
};

const Json& field(const Json& object, std::string_view key) {
    const Json* m = json::member(object, key);
    if (!m) throw Problem{"missing \"" + std::string(key) + "\""};
    return *m;
}

std::string stringField(const Json& object, std::string_view key) {
    const Json& v = field(object, key);
    if (!v.is_string()) throw Problem{"\"" + std::string(key) + "\" is not a string"};
    return v.get<std::string>();
}

Date dateValue(const Json& v, std::string_view key) {
    auto d = json::as<Date>(v);
    if (!d) throw Problem{"\"" + std::string(key) + "\" is not a number"};
    return *d;
}

Uuid uuidValue(const Json& v, std::string_view key) {
    auto u = json::as<Uuid>(v);
    if (!u) throw Problem{"\"" + std::string(key) + "\" is not a UUID"};
    return *u;
}

SentenceID sentenceIdField(const Json& object) {
    const Json& wrapper = field(object, "_0");
    if (!wrapper.is_object()) throw Problem{"\"_0\" is not an object"};
    return SentenceID{uuidValue(field(wrapper, "raw"), "raw")};
}

template <class E, class Parse>
E enumField(const Json& object, std::string_view key, Parse parse) {
    const std::string raw = stringField(object, key);
    if (auto e = parse(raw)) return *e;
    throw Problem{"unknown " + std::string(key) + " \"" + raw + "\""};
}

GlossaryTerm termValue(const Json& j) {
    if (!j.is_object()) throw Problem{"glossary term is not an object"};
    GlossaryTerm t;
    t.written = stringField(j, "written");
    for (auto [key, slot] : {std::pair{"heard", &t.heard}, std::pair{"translated", &t.translated}}) {
        const Json* m = json::member(j, key);
        if (!m || m->is_null()) continue;
        if (!m->is_string()) throw Problem{"\"" + std::string(key) + "\" is not a string"};
        *slot = m->get<std::string>();
    }
    return t;
}

TranscriptEvent::Payload payloadValue(const Json& p) {
    using E = TranscriptEvent;
    if (!p.is_object()) throw Problem{"payload is not an object"};
    if (p.size() != 1) throw Problem{"payload must have exactly one key, has " + std::to_string(p.size())};
    const std::string& name = p.begin().key();
    const Json& v = p.begin().value();
    if (!v.is_object()) throw Problem{"payload \"" + name + "\" is not an object"};
    if (name == "sourceDelta") return E::SourceDelta{stringField(v, "text")};
    if (name == "streamedTranslationDelta") return E::StreamedTranslationDelta{stringField(v, "text")};
    if (name == "sentenceClosed")
        return E::SentenceClosed{sentenceIdField(v), enumField<BoundaryReason>(v, "reason", boundaryReasonFromRaw)};
    if (name == "utteranceClosed")
        return E::UtteranceClosed{enumField<BoundaryReason>(v, "reason", boundaryReasonFromRaw)};
    if (name == "sentenceTranslated")
        return E::SentenceTranslated{sentenceIdField(v), stringField(v, "text"),
                                     enumField<TranslationOrigin>(v, "origin", translationOriginFromRaw)};
    if (name == "glossaryLearned") {
        const Json& terms = field(v, "terms");
        if (!terms.is_array()) throw Problem{"\"terms\" is not a list"};
        E::GlossaryLearned g;
        for (const Json& t : terms) g.terms.push_back(termValue(t));
        return g;
    }
    if (name == "sourceRevised")
        return E::SourceRevised{sentenceIdField(v), stringField(v, "text"),
                                enumField<SourceRevisionOrigin>(v, "origin", sourceRevisionOriginFromRaw)};
    if (name == "sentenceFurigana") return E::SentenceFurigana{sentenceIdField(v), stringField(v, "ruby")};
    if (name == "sentenceTranslationFailed")
        return E::SentenceTranslationFailed{sentenceIdField(v), stringField(v, "reason")};
    if (name == "sourceStreamLost") return E::SourceStreamLost{};
    if (name == "sourceStreamRestored") return E::SourceStreamRestored{};
    throw Problem{"unknown payload \"" + name + "\""};
}

Error undecodable(const std::string& reason) { return Error{"event_undecodable", reason}; }

}  // namespace

Json toJson(const GlossaryTerm& term) {
    Json j = Json::object();
    j["written"] = term.written;
    if (term.heard && !term.heard->empty()) j["heard"] = *term.heard;
    if (term.translated && !term.translated->empty()) j["translated"] = *term.translated;
    return j;
}

Json toJson(const TranscriptEvent& event) {
    using E = TranscriptEvent;
    Json body = Json::object();
    std::visit(
        [&](const auto& p) {
            using P = std::decay_t<decltype(p)>;
            if constexpr (std::is_same_v<P, E::SourceDelta> || std::is_same_v<P, E::StreamedTranslationDelta>) {
                body["text"] = p.text;
            } else if constexpr (std::is_same_v<P, E::SentenceClosed>) {
                body["_0"] = idJson(p.id);
                body["reason"] = rawValue(p.reason);
            } else if constexpr (std::is_same_v<P, E::UtteranceClosed>) {
                body["reason"] = rawValue(p.reason);
            } else if constexpr (std::is_same_v<P, E::SentenceTranslated> || std::is_same_v<P, E::SourceRevised>) {
                body["_0"] = idJson(p.id);
                body["text"] = p.text;
                body["origin"] = rawValue(p.origin);
            } else if constexpr (std::is_same_v<P, E::GlossaryLearned>) {
                Json terms = Json::array();
                for (const auto& t : p.terms) terms.push_back(toJson(t));
                body["terms"] = std::move(terms);
            } else if constexpr (std::is_same_v<P, E::SentenceFurigana>) {
                body["_0"] = idJson(p.id);
                body["ruby"] = p.ruby;
            } else if constexpr (std::is_same_v<P, E::SentenceTranslationFailed>) {
                body["_0"] = idJson(p.id);
                body["reason"] = p.reason;
            }
        },
        event.payload);

    Json j = Json::object();
    j["id"] = event.id.text();
    j["at"] = event.at.seconds;
    if (event.receivedAt) j["receivedAt"] = event.receivedAt->seconds;
    j["channel"] = rawValue(event.channel);
    Json payload = Json::object();
    payload[std::string(payloadName(event.payload))] = std::move(body);
    j["payload"] = std::move(payload);
    return j;
}

Expected<TranscriptEvent> transcriptEventFromJson(const Json& j) {
    try {
        if (!j.is_object()) throw Problem{"event is not an object"};
        TranscriptEvent e;
        e.id = uuidValue(field(j, "id"), "id");
        e.at = dateValue(field(j, "at"), "at");
        if (const Json* r = json::member(j, "receivedAt"); r && !r->is_null()) e.receivedAt = dateValue(*r, "receivedAt");
        e.channel = enumField<CaptureChannel>(j, "channel", captureChannelFromRaw);
        e.payload = payloadValue(field(j, "payload"));
        return e;
    } catch (const Problem& p) {
        return undecodable(p.reason);
    }
}

Expected<GlossaryTerm> glossaryTermFromJson(const Json& j) {
    try {
        return termValue(j);
    } catch (const Problem& p) {
        return Error{"glossary_term_undecodable", p.reason};
    }
}

Json toJson(const TranscriptEventLog& log) {
    Json events = Json::array();
    for (const auto& e : log.events) events.push_back(toJson(e));
    Json j = Json::object();
    j["events"] = std::move(events);
    return j;
}

Expected<TranscriptEventLog> transcriptEventLogFromJson(const Json& j) {
    const Json* events = json::member(j, "events");
    if (!events || !events->is_array()) return Error{"log_undecodable", "missing \"events\""};
    TranscriptEventLog log;
    log.events.reserve(events->size());
    for (const Json& e : *events) {
        auto decoded = transcriptEventFromJson(e);
        if (!decoded) return Error{"log_undecodable", decoded.error().message};
        log.append(std::move(decoded).value());
    }
    return log;
}

std::string encodeEventLine(const TranscriptEvent& event) { return json::dumpLine(toJson(event)); }

Expected<TranscriptEvent> decodeEventLine(std::string_view line) {
    auto j = json::parse(line);
    if (!j) return undecodable("not JSON");
    return transcriptEventFromJson(*j);
}

std::string encodeJsonLines(const TranscriptEventLog& log, std::size_t from) {
    std::string out;
    for (std::size_t i = from; i < log.events.size(); ++i) {
        out += encodeEventLine(log.events[i]);
        out.push_back('\n');
    }
    return out;
}

JsonLinesReading decodeJsonLines(std::string_view bytes) {
    JsonLinesReading reading;
    std::size_t lineNumber = 0;
    std::size_t start = 0;
    while (start <= bytes.size()) {
        std::size_t end = bytes.find('\n', start);
        if (end == std::string_view::npos) end = bytes.size();
        ++lineNumber;
        const std::string_view line = bytes.substr(start, end - start);
        if (!line.empty()) {
            ++reading.lineCount;
            auto decoded = decodeEventLine(line);
            if (decoded) reading.log.append(std::move(decoded).value());
            else reading.skipped.emplace_back(lineNumber, decoded.error());
        }
        if (end == bytes.size()) break;
        start = end + 1;
    }
    return reading;
}

namespace {
constexpr std::array<std::string_view, 6> kStatusNames{"provisional", "transcribing", "translating",
                                                      "finalizing",  "complete",     "failed"};
}  // namespace

std::string_view rawValue(TranscriptSegment::SegmentStatus status) { return kStatusNames[std::size_t(status)]; }

std::optional<TranscriptSegment::SegmentStatus> segmentStatusFromRaw(std::string_view raw) {
    for (std::size_t i = 0; i < kStatusNames.size(); ++i)
        if (kStatusNames[i] == raw) return static_cast<TranscriptSegment::SegmentStatus>(i);
    return std::nullopt;
}

Json toJson(const TranscriptSegment& s) {
    Json j = Json::object();
    j["id"] = s.id.text();
    j["sequence"] = s.sequence;
    if (s.channel) j["channel"] = rawValue(*s.channel);
    j["startedAt"] = s.startedAt.seconds;
    j["sourceText"] = s.sourceText;
    j["translatedText"] = s.translatedText;
    j["status"] = rawValue(s.status);
    if (s.firstVisibleLatencyMilliseconds) j["firstVisibleLatencyMilliseconds"] = *s.firstVisibleLatencyMilliseconds;
    if (s.finalLatencyMilliseconds) j["finalLatencyMilliseconds"] = *s.finalLatencyMilliseconds;
    return j;
}

Expected<TranscriptSegment> transcriptSegmentFromJson(const Json& j) {
    const auto id = json::readOptional<Uuid>(j, "id");
    if (!id) return Error{"segment_undecodable", "segment without a readable \"id\""};
    TranscriptSegment s;
    s.id = *id;
    s.sequence = int(json::read<std::int64_t>(j, "sequence", 0));
    if (auto c = json::readOptional<std::string>(j, "channel")) s.channel = captureChannelFromRaw(*c);
    s.startedAt = json::read<Date>(j, "startedAt", Date(0));
    s.sourceText = json::read<std::string>(j, "sourceText", "");
    s.translatedText = json::read<std::string>(j, "translatedText", "");
    if (auto raw = json::readOptional<std::string>(j, "status"))
        s.status = segmentStatusFromRaw(*raw).value_or(TranscriptSegment::SegmentStatus::provisional);
    if (auto v = json::readOptional<std::int64_t>(j, "firstVisibleLatencyMilliseconds")) s.firstVisibleLatencyMilliseconds = int(*v);
    if (auto v = json::readOptional<std::int64_t>(j, "finalLatencyMilliseconds")) s.finalLatencyMilliseconds = int(*v);
    return s;
}

}  // namespace osv
