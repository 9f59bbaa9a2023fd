#pragma once

// The seam between the live session and the sentence lanes: the controller says when
// sentences may be owed language work; the dispatcher claims, submits, files results and
// tells when its work for a recording is done. Main thread only.

#include <functional>

#include "core/Uuid.h"

namespace osv {

class TranslationDispatch {
public:
    virtual ~TranslationDispatch() = default;
    // After a delta was ingested or a segment closed: claim what is due and submit it.
    virtual void submitClaimed(const Uuid& recordingID) = 0;
    // The full sweep: everything due, then the grace timer for what is held.
    virtual void dispatchPendingTranslations(const Uuid& recordingID) = 0;
    // Re-arms the wake-up for the next held request.
    virtual void armGraceTimer(const Uuid& recordingID) = 0;
    virtual void cancelGrace() = 0;
    // Once the session's last sentence closed: what is still owed is sent into the stored
    // recording.
    virtual void sweepOutstandingTranslations(const Uuid& recordingID) = 0;
    virtual void retryFailedTranslations(const Uuid& recordingID, bool isLive) = 0;
    // Work of this recording still running; the session is filed only when there is none.
    virtual bool hasTrackedWork(const Uuid& recordingID) const = 0;
};

// Until lanes are wired: nothing is dispatched, and nothing holds a session open.
class NoTranslationDispatch final : public TranslationDispatch {
public:
    void submitClaimed(const Uuid&) override {}
    void dispatchPendingTranslations(const Uuid&) override {}
    void armGraceTimer(const Uuid&) override {}
    void cancelGrace() override {}
    void sweepOutstandingTranslations(const Uuid&) override {}
    void retryFailedTranslations(const Uuid&, bool) override {}
    bool hasTrackedWork(const Uuid&) const override { return false; }
};

}  // namespace osv
