#pragma once

// A scenario of the fake server: rules read from a hand-written JSON Lines file, for the
// WebSocket connections and for plain HTTP requests.
// See README.md in this folder for the format.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "HttpExchange.h"
#include "core/Expected.h"
#include "core/Json.h"

namespace osv::fake {

struct Rule {
    enum class Action { send, close, drop, stall, expire };

    int line = 0;
    // The trigger: "connect", or the type of a message the client sent.
    std::string on = "connect";
    std::optional<int> nth;    // only the nth such message
    std::optional<int> every;  // each nth: n, 2n, 3n...
    int afterMs = 0;           // delay after the trigger
    // Only on the connection that was the nth to send audio: tells the channels of one
    // session apart (the side that speaks first is speaker 1).
    std::optional<int> speaker;
    // Only on these connections, numbered 1, 2, ... in the order they came in (a
    // reconnect is a new connection): refused connections, faults of one connection.
    std::vector<int> connections;

    Action action = Action::send;
    std::vector<std::string> frames;  // for send: the payloads, in order
    bool binary = false;
    int closeCode = 1000;
    std::string closeReason;
    // expire: the service's lifetime limit. `expiresAfterS` after the trigger the connection
    // gets the session_expired error and a close with 1001; with `announce`, the trigger
    // sends session.created carrying that moment as expires_at first.
    int expiresAfterS = 0;
    bool announce = true;

    std::optional<std::string> path;  // only on connections to this path (trailing *: a prefix)
    int padBytes = 0;                 // each sent message gets a "padding" member this long

    // Whether the `count`th message of type `on` fires this rule.
    bool firesAt(int count) const;
    bool appliesTo(std::string_view connectionPath) const;
};

// The names a client's message triggers: its "type", or else its top-level keys and each
// "key.innerKey" of an object member.
std::vector<std::string> triggersOf(const json::Json& message);

struct Scenario {
    std::vector<Rule> socketRules;    // played to each WebSocket connection
    std::vector<HttpRule> httpRules;  // lines with "http": answer plain requests
};

// The rules of a scenario file, or an error naming every bad line. `baseDirectory` is
// where relative "file" bodies are read from (the scenario file's folder).
Expected<Scenario> parseScenario(std::string_view text, const std::string& baseDirectory = {});

}  // namespace osv::fake
