#include "live/LiveLanes.h"

#include "lanes/LaneRunner.h"
#include "lanes/SentenceTranslationPass.h"
#include "live/LiveController.h"
#include "services/OpenAIClient.h"

namespace osv {

namespace {

// What the pass asks of the controller.
class PassHost final : public SentenceTranslationPass::Host {
public:
    explicit PassHost(std::function<TranslatorSettings()> settings) : settings_(std::move(settings)) {}
    LiveController* controller = nullptr;

    LiveTranscriptSession* liveTranscript(const Uuid& recordingID) override {
        return controller && controller->holdsLiveTranscript(recordingID) ? &controller->liveTranscript() : nullptr;
    }
    void transcriptChanged(const Uuid& recordingID) override {
        if (controller && controller->holdsLiveTranscript(recordingID)) controller->projectTranscript();
    }
    TranslatorSettings settings() override { return settings_(); }
    ModelPreferences modelPreferences() override { return settings_().models; }
    UsageTally& usageTally() override { return controller ? controller->liveUsage() : spareTally_; }
    void debug(DebugEvent event) override {
        if (controller)
            controller->addDebug(event.level, event.category, std::move(event.title), std::move(event.details),
                                 std::move(event.code));
    }
    void trackedWorkFinished(const Uuid& recordingID) override {
        if (controller) controller->finishLiveRecordingIfIdle(recordingID);
    }

private:
    std::function<TranslatorSettings()> settings_;
    UsageTally spareTally_;
};

}  // namespace

struct LiveLanes::Parts {
    Parts(Scheduler& scheduler, HttpTransport& http, std::string base, RecordingLibrary& library,
          std::function<TranslatorSettings()> settings)
        : host(std::move(settings)),
          lanes(scheduler),
          client(http, scheduler, std::move(base)),
          pass(host, lanes, client, library, scheduler) {}
    PassHost host;
    LaneRunner lanes;
    OpenAIClient client;
    SentenceTranslationPass pass;
};

LiveLanes::LiveLanes(Scheduler& scheduler, HttpTransport& http, std::string openAIBase, RecordingLibrary& library,
                     std::function<TranslatorSettings()> settings)
    : parts_(std::make_unique<Parts>(scheduler, http, std::move(openAIBase), library, std::move(settings))) {}

LiveLanes::~LiveLanes() = default;

void LiveLanes::attach(LiveController& controller) { parts_->host.controller = &controller; }
void LiveLanes::detach() { parts_->host.controller = nullptr; }

void LiveLanes::submitClaimed(const Uuid& id) { parts_->pass.submitClaimed(id); }
void LiveLanes::dispatchPendingTranslations(const Uuid& id) { parts_->pass.dispatchPendingTranslations(id); }
void LiveLanes::armGraceTimer(const Uuid& id) { parts_->pass.armGraceTimer(id); }
void LiveLanes::cancelGrace() { parts_->pass.cancelGrace(); }
void LiveLanes::sweepOutstandingTranslations(const Uuid& id) { parts_->pass.sweepOutstandingTranslations(id); }
void LiveLanes::retryFailedTranslations(const Uuid& id, bool isLive) { parts_->pass.retryFailedTranslations(id, isLive); }
bool LiveLanes::hasTrackedWork(const Uuid& id) const { return parts_->pass.hasTrackedWork(id); }

}  // namespace osv
