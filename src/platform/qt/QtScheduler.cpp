#include "platform/qt/QtScheduler.h"

#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <QThreadPool>
#include <QTimer>

#include <algorithm>
#include <cmath>

#include "core/EntryGuard.h"

namespace osv {

QtScheduler::QtScheduler() : context_(std::make_unique<QObject>()), pool_(std::make_unique<QThreadPool>()) {}

QtScheduler::~QtScheduler() {
    // Work still running posts back through this object: it must end before we go.
    pool_->waitForDone();
}

Date QtScheduler::now() const { return Date::now(); }

void QtScheduler::post(std::function<void()> task) {
    // Queued calls to a context that is gone are dropped by Qt.
    QMetaObject::invokeMethod(
        context_.get(), [task = std::move(task)] { guardEntry("posted task", task); }, Qt::QueuedConnection);
}

TimerHandle QtScheduler::after(double seconds, std::function<void()> task) {
    auto state = std::make_shared<TimerHandle::State>();
    auto* timer = new QTimer(context_.get());
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    const double ms = std::isfinite(seconds) ? std::clamp(seconds * 1000.0, 0.0, 2.0e9) : 2.0e9;
    // A timer re-armed at every delta would otherwise pile up cancelled timers until each
    // fell due; cancelling stops and frees it at once.
    state->release = [weak = QPointer<QTimer>(timer)] { delete weak.data(); };
    QObject::connect(timer, &QTimer::timeout, timer, [timer, state, task = std::move(task)] {
        timer->deleteLater();
        if (state->cancelled) return;
        state->fired = true;
        guardEntry("timer", task);
    });
    timer->start(int(std::lround(ms)));
    return TimerHandle(state);
}

void QtScheduler::runInBackground(std::function<void()> work) {
    pool_->start([work = std::move(work)] { guardEntry("background work", work); });
}

std::size_t QtScheduler::armedTimerCount() const {
    std::size_t armed = 0;
    for (const QTimer* timer : context_->findChildren<QTimer*>(Qt::FindDirectChildrenOnly)) armed += timer->isActive();
    return armed;
}

}  // namespace osv
