#pragma once

// The halves of the realtime transcription stream that hold no socket.
// TranscriptionAudioTurn decides when a turn of audio is complete: the session runs without
// server turn detection, so the client commits by itself. TranscriptionTurnReader puts the
// server's replies, which can arrive out of order and may be revised, into one clean
// stream of text, revisions and turn ends, in spoken order.

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace osv {

// One server message of the transcription session, as far as the client reads it.
struct TranscriptionWireEvent {
    std::string type;
    std::optional<std::string> itemID;          // "item_id"
    std::optional<std::string> previousItemID;  // "previous_item_id"
    std::optional<std::string> delta;
    std::optional<std::string> transcript;
    bool hasError = false;                      // an "error" object was there
    std::optional<std::string> errorMessage;    // its "message"

    // None unless the text is a JSON object with a string "type".
    static std::optional<TranscriptionWireEvent> decode(std::string_view text);
    bool operator==(const TranscriptionWireEvent&) const = default;
};

class TranscriptionAudioTurn {
public:
    static constexpr std::size_t kMinimumCommitBytes = 4'800;  // 0.1 s: less is rolled into the next turn
    static constexpr std::size_t kQuietEndBytes = 28'800;      // 0.6 s of quiet ends a turn
    static constexpr std::size_t kSilenceClearBytes = 48'000;  // 1 s of nothing is cleared on the server

    // The limits for a model: four seconds for "gpt-live-transcribe*", else eight; the first
    // turn of a session is shorter (three seconds for "gpt-transcribe*") so that the first
    // caption comes soon.
    static TranscriptionAudioTurn forModel(std::string_view model);

    // Counts one chunk of working-format audio; true when the turn should be committed now.
    bool append(const std::vector<std::uint8_t>& pcm16);
    // After a commit or a clear: the buffer is empty, speech goes on as it was.
    void clearBuffer();
    // The commit limit that applies now.
    std::size_t limit() const { return hasTranscript ? maximumBytes : initialMaximumBytes; }

    std::size_t maximumBytes = 384'000;
    std::size_t initialMaximumBytes = 384'000;
    bool hasTranscript = false;
    std::size_t bytes = 0;
    std::size_t quietBytes = 0;
    bool heardSpeech = false;
    bool continuingSpeech = false;
};

class TranscriptionTurnReader {
public:
    struct Output {
        enum class Kind { text, revised, ended };
        Kind kind = Kind::text;
        std::string text;
        std::string previous;  // for revised: what had been delivered

        static Output newText(std::string t) { return {Kind::text, std::move(t), {}}; }
        static Output revised(std::string previous, std::string t) { return {Kind::revised, std::move(t), std::move(previous)}; }
        static Output ended() { return {Kind::ended, {}, {}}; }
        bool operator==(const Output&) const = default;
    };

    // What one server message adds to the stream. Only the oldest open turn speaks: later
    // turns wait until it is done.
    std::vector<Output> accept(const TranscriptionWireEvent& event);

    std::size_t openItemCount() const { return order_.size(); }

private:
    struct Item {
        std::string text;
        std::string emitted;
        bool done = false;
    };
    std::vector<std::string> order_;  // oldest first
    std::map<std::string, Item> items_;
    std::set<std::string> completed_;
};

}  // namespace osv
