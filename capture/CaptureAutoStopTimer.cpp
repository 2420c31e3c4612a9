#include "capture/CaptureAutoStopTimer.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace kelvo {

CaptureAutoStopTimer::CaptureAutoStopTimer() {
    timer_.setSingleShot(true);
}

void CaptureAutoStopTimer::cancel() {
    ++generation_;
    timer_.stop();
    queued_ = false;
    QObject::disconnect(connection_);
}

void CaptureAutoStopTimer::schedule(double delaySeconds, std::function<void()> fire) {
    cancel();
    const std::uint64_t generation = generation_;
    auto run = [this, generation, fire = std::move(fire)] {
        if (generation_ != generation) return;  // cancelled
        queued_ = false;
        fire();
    };
    // The timer is the context of both paths: a call still queued when it goes is dropped.
    if (delaySeconds <= 0) {
        queued_ = true;
        QMetaObject::invokeMethod(&timer_, run, Qt::QueuedConnection);
        return;
    }
    connection_ = QObject::connect(&timer_, &QTimer::timeout, &timer_, run);
    // QTimer takes an int of milliseconds: a plan beyond that waits as long as it can.
    const double ms = std::min(delaySeconds * 1000.0, 2147483647.0);
    timer_.start(static_cast<int>(std::ceil(ms)));
}

}  // namespace kelvo
