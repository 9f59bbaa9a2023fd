#include "services/TranscriptionTurn.h"

#include <algorithm>

#include "audio/AudioLevel.h"
#include "audio/RealtimePCMEncoder.h"
#include "core/Json.h"

namespace osv {
namespace {

using json::Json;

bool startsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }
bool endsWith(std::string_view s, std::string_view suffix) {
    return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

// A fading phrase keeps its turn open down to this peak, when its level still reads as voice.
constexpr float kContinuingPeak = 0.003f;
constexpr double kContinuingLevel = 0.0064;

}  // namespace

std::optional<TranscriptionWireEvent> TranscriptionWireEvent::decode(std::string_view text) {
    const auto parsed = json::parse(text);
    if (!parsed || !parsed->is_object()) return std::nullopt;
    const auto type = json::readOptional<std::string>(*parsed, "type");
    if (!type) return std::nullopt;
    TranscriptionWireEvent e;
    e.type = *type;
    e.itemID = json::readOptional<std::string>(*parsed, "item_id");
    e.previousItemID = json::readOptional<std::string>(*parsed, "previous_item_id");
    e.delta = json::readOptional<std::string>(*parsed, "delta");
    e.transcript = json::readOptional<std::string>(*parsed, "transcript");
    if (const Json* error = json::member(*parsed, "error"); error && error->is_object()) {
        e.hasError = true;
        e.errorMessage = json::readOptional<std::string>(*error, "message");
    }
    return e;
}

TranscriptionAudioTurn TranscriptionAudioTurn::forModel(std::string_view model) {
    TranscriptionAudioTurn t;
    const bool live = startsWith(model, "gpt-live-transcribe");
    t.maximumBytes = live ? 192'000 : 384'000;
    const std::size_t initial = startsWith(model, "gpt-transcribe") ? 144'000 : live ? 192'000 : 384'000;
    t.initialMaximumBytes = std::min(t.maximumBytes, initial);
    return t;
}

void TranscriptionAudioTurn::clearBuffer() {
    bytes = 0;
    quietBytes = 0;
    heardSpeech = false;
}

bool TranscriptionAudioTurn::append(const std::vector<std::uint8_t>& pcm16) {
    bytes += pcm16.size();
    const float peak = pcm16Peak(pcm16);
    bool speech;
    if (continuingSpeech && peak >= kContinuingPeak) speech = peak >= kLoudPeak || pcm16Level(pcm16) >= kContinuingLevel;
    else speech = peak >= kLoudPeak;

    const bool bigEnough = bytes >= kMinimumCommitBytes;
    if (speech) {
        heardSpeech = true;
        continuingSpeech = true;
        quietBytes = 0;
        return bigEnough && bytes >= limit();
    }
    quietBytes += pcm16.size();
    if (quietBytes >= kQuietEndBytes) {
        continuingSpeech = false;
        return heardSpeech && bigEnough;
    }
    return heardSpeech && bigEnough && bytes >= limit();
}

std::vector<TranscriptionTurnReader::Output> TranscriptionTurnReader::accept(const TranscriptionWireEvent& event) {
    std::vector<Output> out;
    if (!event.itemID || completed_.contains(*event.itemID)) return out;
    const std::string& id = *event.itemID;
    const bool committed = event.type == "input_audio_buffer.committed";
    if (!committed && !startsWith(event.type, "conversation.item.input_audio_transcription.")) return out;

    if (committed && event.previousItemID && !completed_.contains(*event.previousItemID) &&
        !items_.contains(*event.previousItemID)) {
        // A later item announced first: its predecessor keeps its place in spoken order.
        items_[*event.previousItemID];
        const auto at = std::find(order_.begin(), order_.end(), id);
        order_.insert(at, *event.previousItemID);
    }
    if (!items_.contains(id)) {
        items_[id];
        order_.push_back(id);
    }
    Item& item = items_[id];
    if (endsWith(event.type, ".delta")) item.text += event.delta.value_or("");
    if (endsWith(event.type, ".completed")) {
        if (event.transcript) item.text = *event.transcript;
        item.done = true;
    }

    while (!order_.empty()) {
        const std::string head = order_.front();
        auto it = items_.find(head);
        if (it == items_.end()) break;
        Item& h = it->second;
        if (startsWith(h.text, h.emitted)) {
            std::string rest = h.text.substr(h.emitted.size());
            if (!rest.empty()) out.push_back(Output::newText(std::move(rest)));
            h.emitted = h.text;
            if (!h.done) break;
        } else {
            // A mismatch is reported only once the final text is known.
            if (!h.done) break;
            out.push_back(Output::revised(h.emitted, h.text));
        }
        out.push_back(Output::ended());
        order_.erase(order_.begin());
        items_.erase(it);
        completed_.insert(head);
    }
    return out;
}

}  // namespace osv
