#include "app/ExternalRequestQueue.h"

#include <QTimer>
#include <utility>

namespace kelvo {

ExternalRequestQueue::ExternalRequestQueue(int coalesceMs, Apply apply, QObject* parent)
    : QObject(parent), apply_(std::move(apply)), timer_(new QTimer(this)) {
    timer_->setSingleShot(true);
    timer_->setInterval(coalesceMs);
    connect(timer_, &QTimer::timeout, this, &ExternalRequestQueue::flush);
}

void ExternalRequestQueue::queueMode(ControlMode mode) {
    pending_.mode = mode;
    scheduleFlush();
}

void ExternalRequestQueue::queueCooldown(bool enabled) {
    pending_.cooldown = enabled;
    scheduleFlush();
}

bool ExternalRequestQueue::flushScheduled() const {
    return timer_->isActive();
}

void ExternalRequestQueue::scheduleFlush() {
    // Not restarted by later requests: a steady flood must not postpone the flush forever.
    if (!timer_->isActive()) timer_->start();
}

void ExternalRequestQueue::flush() {
    timer_->stop();
    apply_(std::exchange(pending_, Batch{}));
}

}  // namespace kelvo
