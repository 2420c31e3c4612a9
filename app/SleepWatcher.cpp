#include "app/SleepWatcher.h"

#include <QDBusConnection>
#include <QDBusError>

namespace kelvo {

SleepWatcher::SleepWatcher(std::function<void(bool)> changed,
                           std::function<void(QString)> unavailable, QObject* parent)
    : QObject(parent), changed_(std::move(changed)) {
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected()) {
        if (unavailable) unavailable(bus.lastError().message());
        return;
    }
    // Only logind's own name: a signal from anyone else on the bus is not a sleep.
    const bool subscribed = bus.connect(
        QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
        QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("PrepareForSleep"), this,
        SLOT(onPrepareForSleep(bool)));
    if (!subscribed && unavailable) unavailable(bus.lastError().message());
}

void SleepWatcher::onPrepareForSleep(bool sleeping) {
    if (changed_) changed_(sleeping);
}

}  // namespace kelvo
