#pragma once

// The Scheduler port over the Qt event loop of the thread that creates it (the main
// thread) and Qt's global thread pool.

#include <memory>

#include "core/Scheduler.h"

class QObject;
class QThreadPool;

namespace osv {

class QtScheduler final : public Scheduler {
public:
    // Create on the main thread, with its QCoreApplication already there.
    QtScheduler();
    // Waits for the background work still running (it may post back to this scheduler);
    // tasks and timers not yet run are then dropped.
    ~QtScheduler() override;

    Date now() const override;
    // Safe from any thread.
    void post(std::function<void()> task) override;
    TimerHandle after(double seconds, std::function<void()> task) override;
    void runInBackground(std::function<void()> work) override;

    // Timers armed and neither fired nor cancelled (a cancelled one is stopped and freed).
    std::size_t armedTimerCount() const;

private:
    std::unique_ptr<QObject> context_;
    std::unique_ptr<QThreadPool> pool_;
};

}  // namespace osv
