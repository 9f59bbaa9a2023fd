#include "transcript/TranscriptEvent.h"

#include "core/EnumNames.h"

#include <array>
#include <unordered_map>

namespace osv {
namespace {

constexpr std::array<std::string_view, 5> boundaryNames{"punctuation", "idle", "lengthCap", "channelChange",
                                                        "sessionEnd"};
constexpr std::array<std::string_view, 4> translationOriginNames{"streamed", "refined", "reverseToJapanese",
                                                                 "provisional"};
constexpr std::array<std::string_view, 2> revisionOriginNames{"repaired", "contextual"};

}  // namespace

std::string_view rawValue(BoundaryReason r) { return boundaryNames[std::size_t(r)]; }
std::string_view rawValue(TranslationOrigin o) { return translationOriginNames[std::size_t(o)]; }
std::string_view rawValue(SourceRevisionOrigin o) { return revisionOriginNames[std::size_t(o)]; }

std::optional<BoundaryReason> boundaryReasonFromRaw(std::string_view raw) {
    return enumFromRaw<BoundaryReason>(raw, boundaryNames);
}
std::optional<TranslationOrigin> translationOriginFromRaw(std::string_view raw) {
    return enumFromRaw<TranslationOrigin>(raw, translationOriginNames);
}
std::optional<SourceRevisionOrigin> sourceRevisionOriginFromRaw(std::string_view raw) {
    return enumFromRaw<SourceRevisionOrigin>(raw, revisionOriginNames);
}

std::string_view payloadName(const TranscriptEvent::Payload& payload) {
    static constexpr std::array<std::string_view, std::variant_size_v<TranscriptEvent::Payload>> names{
        "sourceDelta",        "streamedTranslationDelta", "sentenceClosed",   "utteranceClosed",
        "sentenceTranslated", "glossaryLearned",          "sourceRevised",    "sentenceFurigana",
        "sentenceTranslationFailed", "sourceStreamLost",  "sourceStreamRestored"};
    return names[payload.index()];
}

TranscriptEventLog TranscriptEventLog::compacted() const {
    // One open run per channel and stream: [channel][0 = source, 1 = streamed translation].
    struct OpenRun {
        std::size_t first = 0;
        std::size_t count = 0;
        std::string text;
    };
    OpenRun open[2][2];
    std::vector<bool> drop(events.size(), false);
    std::unordered_map<std::size_t, std::string> merged;

    auto finish = [&](OpenRun& run) {
        if (run.count >= 2) merged.emplace(run.first, std::move(run.text));
        run = OpenRun{};
    };

    for (std::size_t i = 0; i < events.size(); ++i) {
        const TranscriptEvent& e = events[i];
        const auto channel = std::size_t(e.channel);
        const std::string* text = nullptr;
        std::size_t stream = 0;
        if (auto* d = std::get_if<TranscriptEvent::SourceDelta>(&e.payload)) {
            text = &d->text;
        } else if (auto* t = std::get_if<TranscriptEvent::StreamedTranslationDelta>(&e.payload)) {
            text = &t->text;
            stream = 1;
        }
        if (!text) {
            // Any other event ends both runs of its own channel, and only those.
            finish(open[channel][0]);
            finish(open[channel][1]);
            continue;
        }
        OpenRun& run = open[channel][stream];
        if (run.count == 0) run.first = i;
        else drop[i] = true;
        ++run.count;
        run.text += *text;
    }
    for (auto& channelRuns : open)
        for (auto& run : channelRuns) finish(run);

    if (merged.empty()) return *this;

    TranscriptEventLog out;
    out.events.reserve(events.size());
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (drop[i]) continue;
        TranscriptEvent e = events[i];
        if (auto it = merged.find(i); it != merged.end()) {
            if (auto* d = std::get_if<TranscriptEvent::SourceDelta>(&e.payload)) d->text = std::move(it->second);
            else std::get<TranscriptEvent::StreamedTranslationDelta>(e.payload).text = std::move(it->second);
        }
        out.events.push_back(std::move(e));
    }
    return out;
}

}  // namespace osv
