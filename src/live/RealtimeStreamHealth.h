#pragma once

// Whether a channel's source transcript is still alive while its translation flows. The
// transcription side of a realtime connection can stop on its own: the translation keeps
// arriving, so the audio does too, and only the source has gone quiet. This record tells
// when to re-send the transcription configuration and when to give the source up and
// build sentences from the translation instead. Pure: the time is passed in.

#include <optional>
#include <string>

#include "core/Date.h"

namespace osv {

struct RealtimeStreamHealth {
    enum class Stage { healthy, rearmed, degraded };  // ordered
    enum class Action { none, rearm, degrade, restore };

    // Translation older than this says nothing about the source: nobody may be talking.
    static constexpr double kTranslationFreshSeconds = 7.0;

    Stage stage = Stage::healthy;
    Date startedAt;
    std::optional<Date> lastSourceAt;
    std::optional<Date> lastSourceResponseAt;
    double rearmDelay = 11.0;
    double degradeDelay = 18.0;
    std::optional<Date> lastTranslationAt;
    std::optional<Date> translationBurstStartedAt;
    std::optional<Date> sourceFailedAt;

    // A record for a connection that came up at `now`. `baseDelay` is 3 for a Gemini
    // source, 7 for the fast live transcription models on both sides, otherwise 11.
    static RealtimeStreamHealth connected(Date now, double baseDelay);
    // The base delay for the configured models (see connected()).
    static double baseDelay(bool geminiSource, const std::string& translationTranscriptionModel,
                            const std::string& realtimeTranscriptionModel);

    // Source text arrived: healthy again; `restore` when it was not.
    Action noteSource(Date at);
    // The source side reported an error: the re-arm becomes due at once.
    void noteSourceFailure(Date at);
    // Translation text arrived: a new burst begins after 7 seconds without any.
    void noteTranslation(Date at);
    Action evaluate(Date now);
};

}  // namespace osv
