#pragma once

// The Scheduler port over the Qt event loop of the thread that creates it (the main
// thread) and Qt's global thread pool.

#include <memory>

#include "core/Scheduler.h"

class QObject;

namespace osv {

class QtScheduler final : public Scheduler {
public:
    // Create on the main thread, with its QCoreApplication already there.
    QtScheduler();
    // Tasks and timers not yet run are dropped.
    ~QtScheduler() override;

    Date now() const override;
    // Safe from any thread.
    void post(std::function<void()> task) override;
    TimerHandle after(double seconds, std::function<void()> task) override;
    void runInBackground(std::function<void()> work) override;

private:
    std::unique_ptr<QObject> context_;
};

}  // namespace osv
