// The control loop as an actor: one thread owns the ControlEngine; every other thread talks to
// it by posting jobs, so the engine needs no locks.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "foundation/control/ControlEngine.h"

namespace kelvo {

class ControlLoop {
public:
    using SnapshotHandler = std::function<void(const ControlSnapshot&)>;
    using Job = std::function<void(ControlEngine&)>;

    ControlLoop(std::shared_ptr<TelemetryProvider> telemetry, std::shared_ptr<FanController> fans,
                std::shared_ptr<SQLiteStore> store, std::shared_ptr<EventRing> events,
                std::shared_ptr<HardwareCapabilityTracker> tracker, ControlLoopConfig config = {},
                std::function<Timestamp()> now = wallClockNow);
    // Stops ticking, gives the fans back to the firmware and joins the thread.
    ~ControlLoop();
    ControlLoop(const ControlLoop&) = delete;
    ControlLoop& operator=(const ControlLoop&) = delete;

    // Handlers run on the loop thread after every tick.
    Uuid subscribe(SnapshotHandler handler);
    void unsubscribe(const Uuid& id);

    void start();
    // Idempotent. Blocks until the fans are released and the thread is idle.
    void stop();
    bool isRunning() const;

    // Runs `job` on the loop thread, after the jobs posted before it.
    void post(Job job);

    double tickSeconds() const { return tickSeconds_; }

private:
    void threadMain();
    Timestamp tickTimestamp();

    std::unique_ptr<ControlEngine> engine_;
    std::function<Timestamp()> now_;
    double tickSeconds_;
    std::optional<Timestamp> lastStamp_;  // loop thread only
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<Job> jobs_;
    std::map<std::string, SnapshotHandler> handlers_;
    bool running_ = false;
    bool stopRequested_ = false;
    bool quitting_ = false;
    bool released_ = true;
    std::thread thread_;
};

}  // namespace kelvo
