#include "app/SleepWatcher.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QTimer>

namespace kelvo {

SleepWatcher::SleepWatcher(Callbacks callbacks, std::chrono::milliseconds sleepNeverCameAfter,
                           QObject* parent)
    : QObject(parent),
      callbacks_(std::move(callbacks)),
      sleepNeverCameAfter_(sleepNeverCameAfter),
      awakeTimer_(new QTimer(this)) {
    awakeTimer_->setSingleShot(true);
    // Qt's timers run on CLOCK_MONOTONIC, which does not advance while the machine is
    // suspended: a real sleep of any length does not run this out.
    awakeTimer_->setTimerType(Qt::CoarseTimer);
    awakeTimer_->setInterval(sleepNeverCameAfter_);
    connect(awakeTimer_, &QTimer::timeout, this, &SleepWatcher::sleepNeverCame);
}

void SleepWatcher::subscribe() {
    subscribe(QDBusConnection::systemBus());
}

void SleepWatcher::subscribe(QDBusConnection bus) {
    if (!bus.isConnected()) {
        if (callbacks_.unavailable) callbacks_.unavailable(bus.lastError().message());
        return;
    }
    // Only logind's own name: QtDBus follows the name's owner and drops the signal from any
    // other sender, even one addressed to Kelvo alone, which the bus itself does not filter.
    const bool subscribed = bus.connect(
        QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
        QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("PrepareForSleep"), this,
        SLOT(onPrepareForSleep(bool)));
    if (!subscribed && callbacks_.unavailable) callbacks_.unavailable(bus.lastError().message());
}

void SleepWatcher::onPrepareForSleep(bool sleeping) {
    if (sleeping == sleeping_) return;
    sleeping_ = sleeping;
    if (sleeping)
        awakeTimer_->start();
    else
        awakeTimer_->stop();
    if (callbacks_.changed) callbacks_.changed(sleeping);
}

void SleepWatcher::sleepNeverCame() {
    if (!sleeping_) return;
    sleeping_ = false;
    if (callbacks_.sleepNeverCame) callbacks_.sleepNeverCame(sleepNeverCameAfter_);
    if (callbacks_.changed) callbacks_.changed(false);
}

}  // namespace kelvo
