#include "services/RealtimeServerEvent.h"

#include "core/Json.h"
#include "core/Text.h"

namespace osv {
namespace {

using json::Json;

// A member read as the wire type demands: absent and null give none, another type fails.
bool optionalString(const Json& object, const char* key, std::optional<std::string>& out) {
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) return true;
    if (!it->is_string()) return false;
    out = it->get<std::string>();
    return true;
}

bool endsWith(std::string_view s, std::string_view suffix) {
    return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}
bool contains(std::string_view s, std::string_view part) { return s.find(part) != std::string_view::npos; }

constexpr std::array<std::string_view, 4> kSuffixes{".delta", ".completed", ".done", ".failed"};

}  // namespace

std::optional<RealtimeServerEvent> RealtimeServerEvent::decode(std::string_view text) {
    const auto parsed = json::parse(text);
    if (!parsed || !parsed->is_object()) return std::nullopt;
    const Json& j = *parsed;
    RealtimeServerEvent e;
    const auto type = j.find("type");
    if (type == j.end() || !type->is_string()) return std::nullopt;
    e.type = type->get<std::string>();
    if (!optionalString(j, "delta", e.delta) || !optionalString(j, "transcript", e.transcript) ||
        !optionalString(j, "text", e.text))
        return std::nullopt;
    if (const auto error = j.find("error"); error != j.end() && !error->is_null()) {
        if (!error->is_object()) return std::nullopt;
        const auto message = error->find("message");
        if (message == error->end() || !message->is_string()) return std::nullopt;
        ErrorPayload payload;
        payload.message = message->get<std::string>();
        if (!optionalString(*error, "type", payload.type) || !optionalString(*error, "code", payload.code))
            return std::nullopt;
        e.error = std::move(payload);
    }
    // Read forgivingly: a connection's lifetime is a hint for rotating early, never a reason to drop the event.
    if (const auto session = j.find("session"); session != j.end() && session->is_object())
        if (const auto expires = session->find("expires_at"); expires != session->end() && expires->is_number())
            e.sessionExpiresAt = expires->get<double>();
    return e;
}

std::optional<std::string> RealtimeServerEvent::wholeText() const {
    for (const auto* candidate : {&transcript, &text, &delta})
        if (*candidate && !(*candidate)->empty()) return **candidate;
    return std::nullopt;
}

namespace RealtimeEventRoute {

Route route(std::string_view type) {
    if (type == "error") return Route::error;
    if (type == "session.closed" || type == "closed") return Route::closed;

    std::optional<Stream> stream;
    if (contains(type, "input_transcript") || contains(type, "input_audio_transcription")) stream = Stream::source;
    else if (contains(type, "output_transcript") || contains(type, "output_audio_transcript")) stream = Stream::translation;
    if (stream) {
        const bool source = *stream == Stream::source;
        if (endsWith(type, ".delta")) return source ? Route::sourceDelta : Route::translationDelta;
        if (endsWith(type, ".completed") || endsWith(type, ".done"))
            return source ? Route::sourceCompleted : Route::translationCompleted;
        // There is no failure route of the translation: it is a failure of the session.
        if (endsWith(type, ".failed")) return source ? Route::sourceFailed : Route::error;
        return Route::unknown;
    }

    if (type.starts_with("session.output_audio.")) return Route::ignorable;
    static constexpr std::array<std::string_view, 7> kIgnorable{
        "session.created",
        "session.updated",
        "session.input_audio_buffer.committed",
        "session.input_audio_buffer.cleared",
        "session.input_audio_buffer.speech_started",
        "session.input_audio_buffer.speech_stopped",
        "rate_limits.updated",
    };
    for (auto name : kIgnorable)
        if (type == name) return Route::ignorable;
    return Route::unknown;
}

}  // namespace RealtimeEventRoute

std::optional<RealtimeStreamReader::Text> RealtimeStreamReader::read(std::string_view type,
                                                                     const std::optional<std::string>& delta,
                                                                     const std::optional<std::string>& wholeText,
                                                                     std::optional<Route> route) {
    const Route r = route ? *route : RealtimeEventRoute::route(type);
    switch (r) {
        case Route::error:
        case Route::closed:
        case Route::ignorable:
        case Route::unknown:
            return std::nullopt;
        default:
            break;
    }
    const Stream stream =
        (r == Route::translationDelta || r == Route::translationCompleted) ? Stream::translation : Stream::source;
    StreamState& s = state(stream);

    std::string_view spelling = type;
    for (auto suffix : kSuffixes)
        if (endsWith(type, suffix)) {
            spelling.remove_suffix(suffix.size());
            break;
        }

    if (r == Route::sourceFailed) {
        s.deltaCharsThisTurn = 0;
        return std::nullopt;
    }
    if (s.spelling && *s.spelling != spelling) return std::nullopt;

    if (r == Route::sourceDelta || r == Route::translationDelta) {
        if (!delta || delta->empty()) return std::nullopt;
        s.spelling = std::string(spelling);
        s.deltaCharsThisTurn += text::graphemeCount(*delta);
        return Text{stream, *delta, false};
    }

    const std::size_t told = s.deltaCharsThisTurn;
    s.deltaCharsThisTurn = 0;
    if (told != 0) return std::nullopt;
    if (!wholeText || wholeText->empty()) return std::nullopt;
    s.spelling = std::string(spelling);
    return Text{stream, *wholeText, true};
}

}  // namespace osv
