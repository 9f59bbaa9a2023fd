#include <cstdio>
#include <filesystem>
#include <iomanip>
#include <istream>
#include <iterator>
#include <map>
#include <set>
#include <ostream>
#include <sstream>

#include "cli/Cli.h"
#include "cli/CliJson.h"
#include "transcript/CaptionBlocks.h"
#include "transcript/LiveTranscriptSession.h"
#include "core/AtomicFile.h"
#include "core/Json.h"
#include "core/Text.h"
#include "transcript/TranscriptEventJson.h"
#include "transcript/TranscriptReadModel.h"
#include "transcript/TranscriptSegmenter.h"

namespace osv::cli {
namespace {

using json::Json;

Expected<std::string> readInput(const std::string& path, std::istream& in) {
    if (path == "-") return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return readWholeFile(path);
}

// Reads a JSON Lines event log, reporting each line that doesn't decode on `err`.
// None (after saying why) when the file can't be read or no event decodes.
std::optional<TranscriptEventLog> readLog(const std::string& path, std::istream& in, std::ostream& err) {
    auto bytes = readInput(path, in);
    if (!bytes) {
        err << "ossevra-cli: " << bytes.error().message << "\n";
        return std::nullopt;
    }
    JsonLinesReading reading = decodeJsonLines(*bytes);
    for (const auto& [line, error] : reading.skipped)
        err << path << ":" << line << ": skipped: " << error.message << "\n";
    if (reading.log.empty()) {
        err << "ossevra-cli: no event could be read from " << path << "\n";
        return std::nullopt;
    }
    return std::move(reading.log);
}

Json translationJson(const Translation& t) {
    Json j = Json::object();
    j["text"] = t.text;
    j["origin"] = rawValue(t.origin);
    j["at"] = t.at.seconds;
    return j;
}

Json sentenceJson(const Sentence& s) {
    Json j = Json::object();
    j["id"] = s.id.raw.text();
    j["channel"] = rawValue(s.channel);
    j["startedAt"] = s.startedAt.seconds;
    j["endedAt"] = s.endedAt.seconds;
    j["text"] = s.text;
    j["bestText"] = s.bestText();
    j["readableText"] = s.readableText();
    Json utterances = Json::array();
    for (const auto& u : s.utteranceIDs) utterances.push_back(u.raw.text());
    j["utteranceIDs"] = std::move(utterances);
    j["isClosed"] = s.isClosed;
    Json translations = Json::array();
    for (const auto& t : s.translations) translations.push_back(translationJson(t));
    j["translations"] = std::move(translations);
    Json revisions = Json::array();
    for (const auto& r : s.revisions) {
        Json rj = Json::object();
        rj["text"] = r.text;
        rj["origin"] = rawValue(r.origin);
        rj["at"] = r.at.seconds;
        rj["sourceCharacterCount"] = r.sourceCharacterCount ? Json(*r.sourceCharacterCount) : Json(nullptr);
        revisions.push_back(std::move(rj));
    }
    j["revisions"] = std::move(revisions);
    j["translationFailure"] = optionalString(s.translationFailure);
    j["furigana"] = optionalString(s.furigana);
    return j;
}

Json snapshotJson(const TranscriptSnapshot& snapshot) {
    Json sentences = Json::array();
    for (const Sentence& s : snapshot.sentences()) sentences.push_back(sentenceJson(s));
    Json utterances = Json::array();
    for (const Utterance& u : snapshot.utterances()) {
        Json j = Json::object();
        j["id"] = u.id.raw.text();
        j["channel"] = rawValue(u.channel);
        j["startedAt"] = u.startedAt.seconds;
        j["endedAt"] = u.endedAt.seconds;
        j["text"] = u.text;
        j["isClosed"] = u.isClosed;
        utterances.push_back(std::move(j));
    }
    Json streams = Json::object();
    for (const auto& [channel, text] : snapshot.unattributedTranslationStream())
        streams[std::string(rawValue(channel))] = text.str();
    Json unbound = Json::object();
    for (const auto& [id, t] : snapshot.unboundTranslations()) unbound[id.raw.text()] = translationJson(t);
    Json glossary = Json::array();
    for (const GlossaryTerm& term : snapshot.glossary()) {
        Json j = Json::object();
        j["written"] = term.written;
        j["heard"] = optionalString(term.heard);
        j["translated"] = optionalString(term.translated);
        glossary.push_back(std::move(j));
    }
    Json j = Json::object();
    j["sentences"] = std::move(sentences);
    j["utterances"] = std::move(utterances);
    j["unattributedTranslationStream"] = std::move(streams);
    j["unboundTranslations"] = std::move(unbound);
    j["glossary"] = std::move(glossary);
    return j;
}

std::string offset(Date t, Date origin) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%+.2fs", t - origin);
    return buffer;
}

// The snapshot as a person reads it: one line per sentence, its work indented below.
void printSnapshotText(const TranscriptSnapshot& snapshot, std::ostream& out) {
    const auto& sentences = snapshot.sentences();
    Date origin = sentences.empty() ? Date(0) : sentences[0].startedAt;
    out << "sentences: " << sentences.size() << "\n";
    for (const Sentence& s : sentences) {
        out << "  [" << rawValue(s.channel) << " " << offset(s.startedAt, origin) << " " << offset(s.endedAt, origin)
            << "] " << (s.readableText().empty() ? "(empty)" : s.readableText()) << (s.isClosed ? "" : "  …open")
            << "\n";
        for (const Translation& t : s.translations) out << "      " << rawValue(t.origin) << ": " << t.text << "\n";
        for (const SourceRevision& r : s.revisions) out << "      revision " << rawValue(r.origin) << ": " << r.text << "\n";
        if (s.translationFailure) out << "      failed: " << *s.translationFailure << "\n";
        if (s.furigana) out << "      furigana: " << *s.furigana << "\n";
    }
    for (const auto& [channel, text] : snapshot.unattributedTranslationStream())
        out << "translation stream " << rawValue(channel) << ": " << text.view() << "\n";
    for (const auto& [id, t] : snapshot.unboundTranslations())
        out << "unbound translation " << id.raw.text() << ": " << t.text << "\n";
    if (!snapshot.glossary().empty()) out << "glossary:\n" << snapshot.glossaryLines() << "\n";
}

// One file argument ("-" for standard input) and one optional flag, in any order.
// False, after printing `usage`, for anything else.
bool parseFileAndFlag(const std::vector<std::string>& args, std::string_view flag, const char* usage,
                      std::ostream& err, std::optional<std::string>& path, bool& flagGiven) {
    for (const auto& a : args) {
        if (a == flag) {
            flagGiven = true;
        } else if (!path && (a == "-" || a.rfind("--", 0) != 0)) {
            path = a;
        } else {
            err << "unexpected argument \"" << a << "\"\n" << usage;
            return false;
        }
    }
    if (!path) err << usage;
    return path.has_value();
}

int fold(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err) {
    std::optional<std::string> path;
    bool asText = false;
    if (!parseFileAndFlag(args, "--text", "usage: ossevra-cli transcript fold FILE.jsonl [--text]\n", err, path, asText))
        return kUsage;
    auto log = readLog(*path, in, err);
    if (!log) return kFailed;
    TranscriptReadModel::Fold f;
    f.advance(*log);
    const TranscriptSnapshot snapshot = f.snapshot();
    if (asText) printSnapshotText(snapshot, out);
    else out << json::dumpPretty(snapshotJson(snapshot)) << "\n";
    return kOk;
}

int compact(const std::vector<std::string>& args, std::istream& in, std::ostream& err) {
    if (args.size() != 2) {
        err << "usage: ossevra-cli transcript compact IN.jsonl OUT.jsonl\n";
        return kUsage;
    }
    auto log = readLog(args[0], in, err);
    if (!log) return kFailed;
    const TranscriptEventLog compacted = log->compacted();
    if (auto written = writeFileAtomically(args[1], encodeJsonLines(compacted)); !written) {
        err << "ossevra-cli: " << written.error().message << "\n";
        return kFailed;
    }
    err << "compacted " << log->size() << " events into " << compacted.size() << "\n";
    return kOk;
}

// One line of a build script, checked before anything runs.
struct ScriptCall {
    enum class Op { ingest, closeUtterance, buildFromTranslation, finish } op;
    std::string text;
    TranscriptSegmenter::DeltaKind kind = TranscriptSegmenter::DeltaKind::source;
    CaptureChannel channel = CaptureChannel::system;
    BoundaryReason reason = BoundaryReason::idle;
    bool flag = false;
    Date at;
    std::optional<Date> speechAnchor;
};

std::optional<ScriptCall> parseCall(const Json& j, std::string& problem) {
    auto fail = [&](std::string why) {
        problem = std::move(why);
        return std::nullopt;
    };
    if (!j.is_object()) return fail("not a JSON object");
    const auto op = json::readOptional<std::string>(j, "op");
    if (!op) return fail("missing \"op\"");
    ScriptCall call{};
    auto channel = [&]() -> bool {
        const auto raw = json::readOptional<std::string>(j, "channel");
        auto c = raw ? captureChannelFromRaw(*raw) : std::nullopt;
        if (!c) return false;
        call.channel = *c;
        return true;
    };
    auto reason = [&]() -> bool {
        const auto raw = json::readOptional<std::string>(j, "reason");
        auto r = raw ? boundaryReasonFromRaw(*raw) : std::nullopt;
        if (!r) return false;
        call.reason = *r;
        return true;
    };
    const auto at = json::readOptional<Date>(j, "at");
    if (!at) return fail("\"at\" must be a number");
    call.at = *at;
    if (*op == "ingest") {
        call.op = ScriptCall::Op::ingest;
        const auto text = json::readOptional<std::string>(j, "text");
        if (!text) return fail("\"text\" must be a string");
        call.text = *text;
        const auto kind = json::read<std::string>(j, "kind", "");
        if (kind == "source") call.kind = TranscriptSegmenter::DeltaKind::source;
        else if (kind == "streamedTranslation") call.kind = TranscriptSegmenter::DeltaKind::streamedTranslation;
        else return fail("\"kind\" must be \"source\" or \"streamedTranslation\"");
        if (!channel()) return fail("\"channel\" must be \"system\" or \"microphone\"");
        if (const Json* anchor = json::member(j, "speechAnchor"); anchor && !anchor->is_null()) {
            call.speechAnchor = json::as<Date>(*anchor);
            if (!call.speechAnchor) return fail("\"speechAnchor\" must be a number or null");
        }
    } else if (*op == "closeUtterance") {
        call.op = ScriptCall::Op::closeUtterance;
        if (!channel()) return fail("\"channel\" must be \"system\" or \"microphone\"");
        if (!reason()) return fail("unknown or missing \"reason\"");
    } else if (*op == "buildFromTranslation") {
        call.op = ScriptCall::Op::buildFromTranslation;
        const auto flag = json::readOptional<bool>(j, "flag");
        if (!flag) return fail("\"flag\" must be true or false");
        call.flag = *flag;
        if (!channel()) return fail("\"channel\" must be \"system\" or \"microphone\"");
    } else if (*op == "finish") {
        call.op = ScriptCall::Op::finish;
        if (!reason()) return fail("unknown or missing \"reason\"");
    } else {
        return fail("unknown op \"" + *op + "\"");
    }
    return call;
}

int build(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err) {
    std::optional<std::string> path;
    bool deterministic = false;
    if (!parseFileAndFlag(args, "--deterministic-ids",
                          "usage: ossevra-cli transcript build SCRIPT.jsonl [--deterministic-ids]\n", err, path,
                          deterministic))
        return kUsage;
    auto bytes = readInput(*path, in);
    if (!bytes) {
        err << "ossevra-cli: " << bytes.error().message << "\n";
        return kFailed;
    }

    // A replay is exact or refused: every line is checked before the first call runs.
    std::vector<ScriptCall> calls;
    bool malformed = false;
    std::istringstream lines(*bytes);
    std::string line;
    for (std::size_t number = 1; std::getline(lines, line); ++number) {
        if (text::isBlank(line)) continue;
        std::string problem;
        const auto j = json::parse(line);
        auto call = j ? parseCall(*j, problem) : std::nullopt;
        if (!j) problem = "not JSON";
        if (!call) {
            err << *path << ":" << number << ": " << problem << "\n";
            malformed = true;
            continue;
        }
        calls.push_back(std::move(*call));
    }
    if (malformed) return kUsage;

    std::optional<Uuid::DeterministicSequence> sequence;
    if (deterministic) sequence.emplace();
    TranscriptSegmenter segmenter;
    TranscriptEventLog log;
    for (const ScriptCall& call : calls) {
        switch (call.op) {
            case ScriptCall::Op::ingest: {
                const auto directive =
                    segmenter.ingest(call.text, call.kind, call.channel, call.at, call.speechAnchor, log);
                Json d = nullptr;
                if (directive) {
                    d = Json::object();
                    d["reason"] = rawValue(directive->reason);
                    d["delay"] = directive->delay;
                }
                err << json::dumpLine(d) << "\n";
                break;
            }
            case ScriptCall::Op::closeUtterance:
                segmenter.closeUtterance(call.channel, call.reason, call.at, log);
                break;
            case ScriptCall::Op::buildFromTranslation:
                segmenter.buildFromTranslation(call.flag, call.channel, call.at, log);
                break;
            case ScriptCall::Op::finish:
                segmenter.finish(call.reason, call.at, log);
                break;
        }
    }
    out << encodeJsonLines(log);
    return kOk;
}

// Arguments of the form FILE --name VALUE --flag, in any order.
struct Options {
    std::string path;
    std::map<std::string, std::string> values;
    std::set<std::string> flags;
};

std::optional<Options> parseOptions(const std::vector<std::string>& args, const std::set<std::string>& valueNames,
                                    const std::set<std::string>& flagNames, const char* usage, std::ostream& err) {
    Options o;
    bool havePath = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (valueNames.count(a)) {
            if (i + 1 >= args.size()) {
                err << a << " needs a value\n" << usage;
                return std::nullopt;
            }
            o.values[a] = args[++i];
        } else if (flagNames.count(a)) {
            o.flags.insert(a);
        } else if (!havePath && (a == "-" || a.rfind("--", 0) != 0)) {
            o.path = a;
            havePath = true;
        } else {
            err << "unexpected argument \"" << a << "\"\n" << usage;
            return std::nullopt;
        }
    }
    if (!havePath) {
        err << usage;
        return std::nullopt;
    }
    return o;
}

std::optional<double> number(const std::string& text) {
    const auto j = json::parse(text);
    if (!j) return std::nullopt;
    return json::as<double>(*j);
}

// The log's snapshot at the moment the command asks about.
std::optional<TranscriptSnapshot> snapshotOf(const std::string& path, std::istream& in, std::ostream& err) {
    auto log = readLog(path, in, err);
    if (!log) return std::nullopt;
    TranscriptReadModel::Fold fold;
    fold.advance(*log);
    return fold.snapshot();
}

int captions(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err) {
    static const char* usage = "usage: ossevra-cli transcript captions FILE.jsonl --now T [--no-translate] [--labels]\n";
    auto o = parseOptions(args, {"--now"}, {"--no-translate", "--labels"}, usage, err);
    if (!o) return kUsage;
    const auto now = o->values.count("--now") ? number(o->values["--now"]) : std::nullopt;
    if (!now) {
        err << "--now must be a date in seconds since 2001-01-01 UTC\n" << usage;
        return kUsage;
    }
    const auto snapshot = snapshotOf(o->path, in, err);
    if (!snapshot) return kFailed;
    const bool translates = !o->flags.count("--no-translate");
    TranslationRouter::Config routing;
    routing.translates = translates;
    const auto blocks = captionBlocks(*snapshot, TranscriptSnapshot::paragraphs(0, snapshot->sentences()),
                                      o->flags.count("--labels") > 0, translates, routing, false, Date(*now));
    Json array = Json::array();
    for (const auto& b : blocks) array.push_back(captionBlockJson(b));
    out << json::dumpPretty(array) << "\n";
    return kOk;
}

int requests(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err) {
    static const char* usage =
        "usage: ossevra-cli transcript requests FILE.jsonl --now T [--target simplifiedChinese|japanese]\n"
        "       [--perspective solo|shared] [--separated] [--repairs] [--no-refine] [--grace SECONDS]\n";
    auto o = parseOptions(args, {"--now", "--target", "--perspective", "--grace"},
                          {"--separated", "--repairs", "--no-refine"}, usage, err);
    if (!o) return kUsage;
    const auto now = o->values.count("--now") ? number(o->values["--now"]) : std::nullopt;
    if (!now) {
        err << "--now must be a date in seconds since 2001-01-01 UTC\n" << usage;
        return kUsage;
    }
    // A live session's configuration, but for what the options change.
    TranslationRouter::Config config;
    config.repairGraceSeconds = 0.35;
    if (auto it = o->values.find("--target"); it != o->values.end()) {
        if (it->second == "simplifiedChinese") config.target = TargetLanguage::simplifiedChinese;
        else if (it->second == "japanese") config.target = TargetLanguage::japanese;
        else {
            err << "--target must be simplifiedChinese or japanese\n" << usage;
            return kUsage;
        }
    }
    if (auto it = o->values.find("--perspective"); it != o->values.end()) {
        if (it->second == "solo") config.perspective = Perspective::solo;
        else if (it->second == "shared") config.perspective = Perspective::shared;
        else {
            err << "--perspective must be solo or shared\n" << usage;
            return kUsage;
        }
    }
    if (auto it = o->values.find("--grace"); it != o->values.end()) {
        const auto grace = number(it->second);
        if (!grace || *grace < 0) {
            err << "--grace must be a number of seconds\n" << usage;
            return kUsage;
        }
        config.repairGraceSeconds = *grace;
    }
    config.repairsSource = o->flags.count("--repairs") > 0;
    config.refineFinishedSentences = !o->flags.count("--no-refine");
    const auto snapshot = snapshotOf(o->path, in, err);
    if (!snapshot) return kFailed;
    // As in a live session: channels count as separated once both have spoken.
    config.separatedChannels = o->flags.count("--separated") > 0 && snapshot->usesMultipleChannels();

    auto list = [](const std::vector<TranslationRouter::Request>& requests) {
        Json array = Json::array();
        for (const auto& r : requests) array.push_back(requestJson(r));
        return array;
    };
    const Date at(*now);
    Json j = Json::object();
    j["pending"] = list(TranslationRouter::pendingRequests(snapshot->sentences(), config, at));
    j["provisional"] = list(TranslationRouter::provisionalRequests(snapshot->sentences(), config));
    j["repairs"] = list(TranslationRouter::repairRequests(snapshot->sentences(), config));
    const auto deadline = TranslationRouter::nextDeadline(snapshot->sentences(), config, at);
    j["nextDeadline"] = deadline ? Json(deadline->seconds) : Json(nullptr);
    out << json::dumpPretty(j) << "\n";
    return kOk;
}

}  // namespace

int runTranscript(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err) {
    const std::string sub = args.empty() ? "" : args[0];
    const std::vector<std::string> rest(args.begin() + (args.empty() ? 0 : 1), args.end());
    if (sub == "fold") return fold(rest, in, out, err);
    if (sub == "compact") return compact(rest, in, err);
    if (sub == "build") return build(rest, in, out, err);
    if (sub == "captions") return captions(rest, in, out, err);
    if (sub == "requests") return requests(rest, in, out, err);
    err << "usage: ossevra-cli transcript fold|compact|build|captions|requests ...\n";
    return kUsage;
}

}  // namespace osv::cli
