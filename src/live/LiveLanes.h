#pragma once

// The sentence lanes behind the live controller's dispatch seam: the lane runner, the
// OpenAI text client and the sentence pass, with the pass's host answered by the
// controller. Main thread only.

#include <memory>

#include "live/TranslationDispatch.h"
#include "settings/TranslatorSettings.h"

namespace osv {

class HttpTransport;
class LiveController;
class RecordingLibrary;
class Scheduler;

class LiveLanes final : public TranslationDispatch {
public:
    LiveLanes(Scheduler& scheduler, HttpTransport& http, std::string openAIBase, RecordingLibrary& library,
              std::function<TranslatorSettings()> settings);
    ~LiveLanes() override;

    // The controller is made after the lanes (it takes them as its dispatch): attach it
    // before the first session.
    void attach(LiveController& controller);
    // Before the controller goes: work ending later (requests aborted as the lanes go) then
    // reaches nothing.
    void detach();

    void submitClaimed(const Uuid& recordingID) override;
    void dispatchPendingTranslations(const Uuid& recordingID) override;
    void armGraceTimer(const Uuid& recordingID) override;
    void cancelGrace() override;
    void sweepOutstandingTranslations(const Uuid& recordingID) override;
    void retryFailedTranslations(const Uuid& recordingID, bool isLive) override;
    bool hasTrackedWork(const Uuid& recordingID) const override;

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

}  // namespace osv
