#include "platform/qt/QtScheduler.h"

#include <QMetaObject>
#include <QObject>
#include <QThreadPool>
#include <QTimer>

#include <algorithm>
#include <cmath>

namespace osv {

QtScheduler::QtScheduler() : context_(std::make_unique<QObject>()) {}

QtScheduler::~QtScheduler() = default;

Date QtScheduler::now() const { return Date::now(); }

void QtScheduler::post(std::function<void()> task) {
    // Queued calls to a context that is gone are dropped by Qt.
    QMetaObject::invokeMethod(context_.get(), [task = std::move(task)] { task(); }, Qt::QueuedConnection);
}

TimerHandle QtScheduler::after(double seconds, std::function<void()> task) {
    auto state = std::make_shared<TimerHandle::State>();
    auto* timer = new QTimer(context_.get());
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    const double ms = std::isfinite(seconds) ? std::clamp(seconds * 1000.0, 0.0, 2.0e9) : 2.0e9;
    // A cancelled timer stays armed until it is due, then does nothing: cancelling needs no
    // way back from the handle to the timer.
    QObject::connect(timer, &QTimer::timeout, timer, [timer, state, task = std::move(task)] {
        timer->deleteLater();
        if (state->cancelled) return;
        state->fired = true;
        task();
    });
    timer->start(int(std::lround(ms)));
    return TimerHandle(state);
}

void QtScheduler::runInBackground(std::function<void()> work) { QThreadPool::globalInstance()->start(std::move(work)); }

}  // namespace osv
