#include "app/NotificationCoordinator.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QVariantMap>

namespace kelvo {

namespace {
const char* const kService = "org.freedesktop.Notifications";
const char* const kPath = "/org/freedesktop/Notifications";
const char* const kInterface = "org.freedesktop.Notifications";
}  // namespace

NotificationCoordinator::NotificationCoordinator(QObject* parent) : QObject(parent) {}

void NotificationCoordinator::requestAuthorization() {
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return;
    // The answer does not matter: posting is attempted regardless.
    bus.asyncCall(QDBusMessage::createMethodCall(kService, kPath, kInterface, "GetCapabilities"));
}

void NotificationCoordinator::post(const QString& title, const QString& body) {
    if (!authorizationRequested_) {
        authorizationRequested_ = true;
        requestAuthorization();
    }
    if (observer_) observer_(title, body);
    emit posted(title, body);

    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return;
    QDBusMessage notify = QDBusMessage::createMethodCall(kService, kPath, kInterface, "Notify");
    // app name, replaces id, icon, summary, body, actions, hints (no sound hint), timeout.
    notify << QStringLiteral("Kelvo") << 0u << QStringLiteral("kelvo") << title << body
           << QStringList() << QVariantMap() << -1;
    bus.asyncCall(notify);
}

}  // namespace kelvo
