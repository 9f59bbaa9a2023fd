#include "live/RealtimeStreamHealth.h"

#include <algorithm>

namespace osv {

RealtimeStreamHealth RealtimeStreamHealth::connected(Date now, double baseDelay) {
    RealtimeStreamHealth health;
    health.startedAt = now;
    health.rearmDelay = std::max(baseDelay, 7.0);
    health.degradeDelay = std::max(health.rearmDelay + 7.0, 14.0);
    return health;
}

double RealtimeStreamHealth::baseDelay(bool geminiSource, const std::string& translationTranscriptionModel,
                                       const std::string& realtimeTranscriptionModel) {
    if (geminiSource) return 3.0;
    const std::string first =
        translationTranscriptionModel == "gpt-realtime-whisper" ? "gpt-transcribe" : translationTranscriptionModel;
    const auto fast = [](const std::string& model) { return model.rfind("gpt-live-transcribe", 0) == 0; };
    return fast(first) && fast(realtimeTranscriptionModel) ? 7.0 : 11.0;
}

RealtimeStreamHealth::Action RealtimeStreamHealth::noteSource(Date at) {
    lastSourceAt = at;
    sourceFailedAt.reset();
    if (stage == Stage::healthy) return Action::none;
    stage = Stage::healthy;
    return Action::restore;
}

void RealtimeStreamHealth::noteSourceFailure(Date at) {
    if (!sourceFailedAt) sourceFailedAt = at;
}

void RealtimeStreamHealth::noteTranslation(Date at) {
    if (!lastTranslationAt || at - *lastTranslationAt > kTranslationFreshSeconds) translationBurstStartedAt = at;
    lastTranslationAt = at;
}

RealtimeStreamHealth::Action RealtimeStreamHealth::evaluate(Date now) {
    if (!lastTranslationAt || now - *lastTranslationAt > kTranslationFreshSeconds) return Action::none;
    const Date distantPast(-1e12);
    const Date quietFrom = std::max(lastSourceAt.value_or(distantPast), translationBurstStartedAt.value_or(startedAt));
    const double silence = now - quietFrom;
    const Date responseFrom = std::max(lastSourceResponseAt.value_or(distantPast), quietFrom);
    double rearmAge = now - responseFrom;
    if (sourceFailedAt && *sourceFailedAt <= now) rearmAge = std::max(rearmAge, rearmDelay);
    if (degradeDelay <= silence && stage < Stage::degraded) {
        stage = Stage::degraded;
        return Action::degrade;
    }
    if (rearmDelay <= rearmAge && stage == Stage::healthy) {
        stage = Stage::rearmed;
        return Action::rearm;
    }
    return Action::none;
}

}  // namespace osv
