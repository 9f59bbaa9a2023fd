#pragma once

// What the realtime translation endpoint sends, and how its many spellings of the same
// thing are reduced to two streams of text delivered once per turn.

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace osv {

// One decoded server message. Every field but `type` is optional; unknown fields are
// ignored. A field that is present with the wrong JSON type (null apart) makes the whole
// message undecodable, as does an `error` object without a string `message`.
struct RealtimeServerEvent {
    struct ErrorPayload {
        std::string message;
        std::optional<std::string> type;
        std::optional<std::string> code;
        bool operator==(const ErrorPayload&) const = default;
    };

    std::string type;
    std::optional<std::string> delta;
    std::optional<std::string> transcript;
    std::optional<std::string> text;
    std::optional<ErrorPayload> error;
    // session.created: when the service will end this connection, Unix seconds.
    std::optional<double> sessionExpiresAt;

    // None when the text is not a JSON object of that shape.
    static std::optional<RealtimeServerEvent> decode(std::string_view json);

    // The first of `transcript`, `text`, `delta` that is present and not empty.
    std::optional<std::string> wholeText() const;

    bool operator==(const RealtimeServerEvent&) const = default;
};

namespace RealtimeEventRoute {

enum class Route {
    sourceDelta,
    sourceCompleted,
    sourceFailed,
    translationDelta,
    translationCompleted,
    error,
    closed,
    ignorable,
    unknown,
};
enum class Stream { source, translation };

// By substring, not by an exact list: the endpoint has spelled the same event several ways.
Route route(std::string_view type);

}  // namespace RealtimeEventRoute

// Per-turn reading state of both streams: the first spelling seen on a stream wins (the
// others echo the same words), and a turn is told by its deltas if any came, else once by
// its completion's whole text.
class RealtimeStreamReader {
public:
    using Route = RealtimeEventRoute::Route;
    using Stream = RealtimeEventRoute::Stream;

    struct Text {
        Stream stream;
        std::string text;
        bool isWholeTurn = false;  // from a completion rather than from a delta
        bool operator==(const Text&) const = default;
    };

    std::optional<Text> read(std::string_view type, const std::optional<std::string>& delta,
                             const std::optional<std::string>& wholeText,
                             std::optional<Route> route = std::nullopt);

    // The type less its suffix, that this stream is read by; none until a text was taken.
    const std::optional<std::string>& spelling(Stream stream) const { return state(stream).spelling; }
    // Characters of delta text since the stream's last completion or failure.
    std::size_t deltaCharsThisTurn(Stream stream) const { return state(stream).deltaCharsThisTurn; }

private:
    struct StreamState {
        std::optional<std::string> spelling;
        std::size_t deltaCharsThisTurn = 0;
    };
    StreamState& state(Stream s) { return streams_[s == Stream::source ? 0 : 1]; }
    const StreamState& state(Stream s) const { return streams_[s == Stream::source ? 0 : 1]; }
    std::array<StreamState, 2> streams_;
};

}  // namespace osv
