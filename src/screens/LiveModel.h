#pragma once

// The main screen's view of a live session: the controller's published LiveState turned
// into properties, and the buttons' intents passed back. Holds nothing the controller
// does not publish, except which banner the user closed.
//
// Thread contract: main thread.

#include <QObject>
#include <QString>
#include <QVariantList>

#include "live/LiveController.h"
#include "screens/CaptionListModel.h"

namespace osv {

class LiveModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool starting READ starting NOTIFY changed)
    Q_PROPERTY(bool onAir READ onAir NOTIFY changed)
    Q_PROPERTY(bool paused READ paused NOTIFY changed)
    Q_PROPERTY(bool finishing READ finishing NOTIFY changed)
    Q_PROPERTY(bool sessionActive READ sessionActive NOTIFY changed)
    Q_PROPERTY(QString statusText READ statusText NOTIFY changed)
    Q_PROPERTY(QString lastError READ lastError NOTIFY changed)
    Q_PROPERTY(QString liveNotice READ liveNotice NOTIFY changed)
    Q_PROPERTY(QString degradedCapture READ degradedCapture NOTIFY changed)
    // The one notice line: the highest-priority text, its kind ("error", "warning",
    // "status") and how many lower ones wait behind it.
    Q_PROPERTY(QString noticeText READ noticeText NOTIFY changed)
    Q_PROPERTY(QString noticeKind READ noticeKind NOTIFY changed)
    Q_PROPERTY(QStringList otherNotices READ otherNotices NOTIFY changed)
    Q_PROPERTY(QString elapsedText READ elapsedText NOTIFY changed)
    Q_PROPERTY(QVariantList meters READ meters NOTIFY changed)
    Q_PROPERTY(QString monitorHeadline READ monitorHeadline NOTIFY changed)
    Q_PROPERTY(bool hasFailedTranslations READ hasFailedTranslations NOTIFY changed)
    Q_PROPERTY(osv::CaptionListModel* captions READ captions CONSTANT)

public:
    explicit LiveModel(QObject* parent = nullptr);
    ~LiveModel() override;

    // Observes `controller` (null: none) from now on; the captions follow it.
    void attach(LiveController* controller);
    LiveController* controller() const { return controller_; }

    bool starting() const { return state_.isStartingSession; }
    bool onAir() const { return state_.isLiveInterpreting; }
    bool paused() const { return state_.isLivePaused; }
    bool finishing() const { return state_.isFinishingLiveSession; }
    bool sessionActive() const { return state_.isSessionActive(); }
    QString statusText() const { return QString::fromStdString(state_.statusText); }
    QString lastError() const;
    QString liveNotice() const { return QString::fromStdString(state_.liveNotice); }
    QString degradedCapture() const { return QString::fromStdString(state_.degradedCapture); }
    QString noticeText() const;
    QString noticeKind() const;
    QStringList otherNotices() const;
    QString elapsedText() const;
    QVariantList meters() const;
    QString monitorHeadline() const { return QString::fromStdString(state_.monitorHeadline); }
    bool hasFailedTranslations() const { return state_.hasFailedTranslations; }
    CaptionListModel* captions() { return &captions_; }
    const LiveState& state() const { return state_; }

    Q_INVOKABLE void start();
    Q_INVOKABLE void pause();
    Q_INVOKABLE void resume();
    Q_INVOKABLE void stop();
    Q_INVOKABLE void retry();
    // Ctrl+Enter and Ctrl+P.
    Q_INVOKABLE void startOrStop();
    Q_INVOKABLE void pauseOrResume();
    Q_INVOKABLE void dismissError();

signals:
    void changed();
    // After every published state, before `changed`; the shell watches session ends.
    void stateObserved(const osv::LiveState& state);

private:
    void observe(const LiveState& state);
    struct Notice {
        QString text;
        QString kind;
    };
    std::vector<Notice> notices() const;

    LiveController* controller_ = nullptr;
    LiveController::Subscription subscription_ = 0;
    LiveState state_;
    std::string dismissedError_;
    CaptionListModel captions_;
};

}  // namespace osv
