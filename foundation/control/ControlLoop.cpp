#include "foundation/control/ControlLoop.h"

#include <chrono>
#include <cmath>

namespace kelvo {

ControlLoop::ControlLoop(std::shared_ptr<TelemetryProvider> telemetry,
                         std::shared_ptr<FanController> fans, std::shared_ptr<SQLiteStore> store,
                         std::shared_ptr<EventRing> events,
                         std::shared_ptr<HardwareCapabilityTracker> tracker,
                         ControlLoopConfig config, std::function<Timestamp()> now)
    : engine_(std::make_unique<ControlEngine>(std::move(telemetry), std::move(fans),
                                              std::move(store), std::move(events),
                                              std::move(tracker), config)),
      now_(std::move(now)),
      tickSeconds_(engine_->config().tickSeconds),
      thread_([this] { threadMain(); }) {}

ControlLoop::~ControlLoop() {
    stop();
    {
        std::lock_guard lock(mutex_);
        quitting_ = true;
    }
    cv_.notify_all();
    thread_.join();
}

Uuid ControlLoop::subscribe(SnapshotHandler handler) {
    Uuid id = Uuid::generate();
    std::lock_guard lock(mutex_);
    handlers_[id.toString()] = std::move(handler);
    return id;
}

void ControlLoop::unsubscribe(const Uuid& id) {
    std::lock_guard lock(mutex_);
    handlers_.erase(id.toString());
}

void ControlLoop::start() {
    std::lock_guard lock(mutex_);
    running_ = true;
    released_ = false;
    cv_.notify_all();
}

bool ControlLoop::isRunning() const {
    std::lock_guard lock(mutex_);
    return running_;
}

void ControlLoop::stop() {
    std::unique_lock lock(mutex_);
    if (released_ && !running_) return;
    stopRequested_ = true;
    cv_.notify_all();
    cv_.wait(lock, [this] { return released_; });
}

void ControlLoop::post(Job job) {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
    cv_.notify_all();
}

Timestamp ControlLoop::tickTimestamp() {
    // Ticks on cadence are stamped exactly one period apart, so consumers that gate on sample
    // spacing (one card update a second) never see 0.999 s because of scheduling jitter. A
    // clock step or a stall re-synchronises with the wall clock.
    Timestamp stamp = now_();
    if (lastStamp_ && std::abs(stamp - (*lastStamp_ + tickSeconds_)) < tickSeconds_ * 0.25)
        stamp = *lastStamp_ + tickSeconds_;
    lastStamp_ = stamp;
    return stamp;
}

void ControlLoop::threadMain() {
    using Clock = std::chrono::steady_clock;
    auto tickPeriod =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(tickSeconds_));
    auto nextTick = Clock::now();
    std::unique_lock lock(mutex_);
    for (;;) {
        if (!jobs_.empty()) {
            Job job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job(*engine_);
            lock.lock();
            continue;
        }
        if (stopRequested_) {
            stopRequested_ = false;
            bool wasRunning = running_;
            running_ = false;
            lock.unlock();
            if (wasRunning || !released_) engine_->releaseFans("control loop stopped");
            lock.lock();
            released_ = true;
            cv_.notify_all();
            continue;
        }
        if (quitting_) return;
        if (running_ && Clock::now() >= nextTick) {
            nextTick += tickPeriod;
            // After a stall (suspend, debugger) resume the cadence instead of catching up.
            if (nextTick < Clock::now()) nextTick = Clock::now() + tickPeriod;
            lock.unlock();
            const auto tickStart = Clock::now();
            ControlSnapshot snapshot = engine_->tick(tickTimestamp());
            snapshot.tickDurationSeconds =
                std::chrono::duration<double>(Clock::now() - tickStart).count();
            lock.lock();
            auto handlers = handlers_;
            lock.unlock();
            for (auto& [id, handler] : handlers) handler(snapshot);
            lock.lock();
            continue;
        }
        if (running_)
            cv_.wait_until(lock, nextTick);
        else
            cv_.wait(lock);
    }
}

}  // namespace kelvo
