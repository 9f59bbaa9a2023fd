#include "Scenario.h"

#include <sstream>

#include "core/Json.h"

namespace osv::fake {
namespace {

using json::Json;

std::optional<int> positiveInt(const Json& j, const char* key, std::string& problem) {
    const auto it = j.find(key);
    if (it == j.end()) return std::nullopt;
    if (!it->is_number_integer() || it->get<long long>() < 0 || it->get<long long>() > 1'000'000'000) {
        problem = std::string("\"") + key + "\" takes a non-negative whole number";
        return std::nullopt;
    }
    return int(it->get<long long>());
}

std::optional<Rule> parseRule(const Json& j, int line, std::string& problem) {
    if (!j.is_object()) {
        problem = "a rule is a JSON object";
        return std::nullopt;
    }
    static const std::vector<std::string> kKnown{"on",    "nth",   "every", "after_ms", "speaker", "connection",
                                                 "send",  "raw",   "error", "binary",   "close",   "drop",
                                                 "stall", "expire", "path", "pad"};
    for (auto it = j.begin(); it != j.end(); ++it)
        if (std::find(kKnown.begin(), kKnown.end(), it.key()) == kKnown.end()) {
            problem = "unknown key \"" + it.key() + "\"";
            return std::nullopt;
        }
    Rule r;
    r.line = line;
    if (const auto on = j.find("on"); on != j.end()) {
        if (!on->is_string() || on->get<std::string>().empty()) {
            problem = "\"on\" takes \"connect\" or a message type";
            return std::nullopt;
        }
        r.on = on->get<std::string>();
        if (r.on == "append") r.on = "session.input_audio_buffer.append";
    }
    if (const auto path = j.find("path"); path != j.end()) {
        if (!path->is_string() || path->get<std::string>().empty() || path->get<std::string>()[0] != '/') {
            problem = "\"path\" takes a path beginning with \"/\" (a trailing * makes it a prefix)";
            return std::nullopt;
        }
        r.path = path->get<std::string>();
    }
    r.padBytes = positiveInt(j, "pad", problem).value_or(0);
    r.nth = positiveInt(j, "nth", problem);
    r.every = positiveInt(j, "every", problem);
    r.afterMs = positiveInt(j, "after_ms", problem).value_or(0);
    r.speaker = positiveInt(j, "speaker", problem);
    if (const auto c = j.find("connection"); c != j.end()) {
        const auto add = [&](const Json& n) {
            if (!n.is_number_integer() || n.get<int>() < 1) problem = "\"connection\" takes a number from 1 or a list of them";
            else r.connections.push_back(n.get<int>());
        };
        if (c->is_array()) for (const auto& n : *c) add(n);
        else add(*c);
    }
    if (!problem.empty()) return std::nullopt;
    if (r.speaker && (*r.speaker == 0 || r.on == "connect")) {
        problem = "\"speaker\" counts from 1 and needs a message trigger: a connection has no speaker before its audio";
        return std::nullopt;
    }
    if ((r.nth && *r.nth == 0) || (r.every && *r.every == 0) || (r.nth && r.every)) {
        problem = "give at most one of \"nth\" and \"every\", from 1";
        return std::nullopt;
    }
    if ((r.nth || r.every) && r.on == "connect") {
        problem = "\"nth\" and \"every\" count messages; they don't apply to \"connect\"";
        return std::nullopt;
    }
    if (const auto b = j.find("binary"); b != j.end()) {
        if (!b->is_boolean()) {
            problem = "\"binary\" takes true or false";
            return std::nullopt;
        }
        r.binary = b->get<bool>();
    }

    int actions = 0;
    if (const auto send = j.find("send"); send != j.end()) {
        ++actions;
        const auto add = [&](const Json& m) {
            if (!m.is_object()) problem = "\"send\" takes a JSON object or a list of them";
            r.frames.push_back(json::dumpLine(m));
        };
        if (send->is_array()) {
            for (const auto& m : *send) add(m);
        } else {
            add(*send);
        }
    }
    if (const auto raw = j.find("raw"); raw != j.end()) {
        ++actions;
        if (!raw->is_string()) problem = "\"raw\" takes a string, sent as it is";
        else r.frames.push_back(raw->get<std::string>());
    }
    if (const auto error = j.find("error"); error != j.end()) {
        ++actions;
        if (!error->is_object()) problem = "\"error\" takes the error object, e.g. {\"message\": \"...\"}";
        Json m = Json::object();
        m["type"] = "error";
        m["error"] = *error;
        r.frames.push_back(json::dumpLine(m));
    }
    if (const auto close = j.find("close"); close != j.end()) {
        ++actions;
        r.action = Rule::Action::close;
        if (!close->is_object() && !(close->is_boolean() && close->get<bool>())) {
            problem = "\"close\" takes true or {\"code\": 1000, \"reason\": \"...\"}";
        } else if (close->is_object()) {
            r.closeCode = json::read<std::int64_t>(*close, "code", 1000) > 0
                              ? int(json::read<std::int64_t>(*close, "code", 1000))
                              : 1000;
            r.closeReason = json::read<std::string>(*close, "reason", "");
        }
    }
    if (j.contains("drop")) {
        ++actions;
        r.action = Rule::Action::drop;
    }
    if (j.contains("stall")) {
        ++actions;
        r.action = Rule::Action::stall;
    }
    if (const auto expire = j.find("expire"); expire != j.end()) {
        ++actions;
        r.action = Rule::Action::expire;
        const auto after = expire->is_object() ? expire->find("after_s") : expire->end();
        if (after == expire->end() || !after->is_number_integer() || after->get<int>() < 1) {
            problem = "\"expire\" takes {\"after_s\": N} and, if wanted, \"announce\": false";
        } else {
            r.expiresAfterS = after->get<int>();
            r.announce = json::read<bool>(*expire, "announce", true);
        }
    }
    if (!problem.empty()) return std::nullopt;
    if (r.padBytes > 0) {
        if (!j.contains("send")) {
            problem = "\"pad\" goes with \"send\"";
            return std::nullopt;
        }
        // A large frame: each message gets a "padding" member of that many characters.
        for (auto& frame : r.frames) {
            Json m = *json::parse(frame);
            m["padding"] = std::string(std::size_t(r.padBytes), 'x');
            frame = json::dumpLine(m);
        }
    }
    if (actions != 1) {
        problem = "give exactly one of \"send\", \"raw\", \"error\", \"close\", \"drop\", \"stall\", \"expire\"";
        return std::nullopt;
    }
    return r;
}

}  // namespace

bool Rule::appliesTo(std::string_view connectionPath) const {
    if (!path) return true;
    if (path->back() == '*') return connectionPath.substr(0, path->size() - 1) == std::string_view(*path).substr(0, path->size() - 1);
    return connectionPath == *path;
}

std::vector<std::string> triggersOf(const json::Json& message) {
    if (!message.is_object()) return {};
    if (auto type = json::readOptional<std::string>(message, "type")) return {*type};
    // Messages without a type (Gemini Live: "setup", "realtimeInput", ...) trigger by their
    // top-level keys, and by each key with the keys of its object: "realtimeInput.audio".
    std::vector<std::string> names;
    for (auto it = message.begin(); it != message.end(); ++it) {
        names.push_back(it.key());
        if (it->is_object())
            for (auto inner = it->begin(); inner != it->end(); ++inner) names.push_back(it.key() + "." + inner.key());
    }
    return names;
}

bool Rule::firesAt(int count) const {
    if (nth) return count == *nth;
    if (every) return count % *every == 0;
    return true;
}

Expected<Scenario> parseScenario(std::string_view text, const std::string& baseDirectory) {
    Scenario scenario;
    std::string problems;
    std::istringstream in{std::string(text)};
    std::string lineText;
    int line = 0;
    while (std::getline(in, lineText)) {
        ++line;
        const auto first = lineText.find_first_not_of(" \t\r");
        if (first == std::string::npos || lineText[first] == '#' || lineText.compare(first, 2, "//") == 0) continue;
        std::string problem;
        const auto parsed = json::parse(lineText);
        if (!parsed) {
            problem = "not one JSON object";
        } else if (parsed->is_object() && parsed->contains("http")) {
            if (auto rule = parseHttpRule(*parsed, line, baseDirectory, problem)) scenario.httpRules.push_back(std::move(*rule));
        } else if (auto rule = parseRule(*parsed, line, problem)) {
            scenario.socketRules.push_back(std::move(*rule));
        }
        if (!problem.empty()) problems += "line " + std::to_string(line) + ": " + problem + "\n";
    }
    if (!problems.empty()) return Error{"bad_scenario", problems};
    return scenario;
}

}  // namespace osv::fake
