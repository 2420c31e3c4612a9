#include "desktop/ReopenBridge.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>

#include "desktop/AppLifecycleController.h"

namespace kelvo {

ReopenBridge::Claim ReopenBridge::claimOrForward() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return Claim::noBus;
    if (bus.registerService(QLatin1String(kService))) return Claim::owned;
    const QDBusMessage call =
        QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath),
                                       QLatin1String(kInterface), QStringLiteral("Reopen"));
    const QDBusMessage reply = bus.call(call, QDBus::Block, 5000);
    // An owner that does not answer is treated as gone: this launch runs on its own.
    return reply.type() == QDBusMessage::ReplyMessage ? Claim::alreadyRunning : Claim::noBus;
}

ReopenBridge::ReopenBridge(AppLifecycleController* controller, QObject* parent)
    : QObject(parent), controller_(controller) {}

bool ReopenBridge::publish() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    return bus.isConnected() &&
           bus.registerObject(QLatin1String(kPath), this, QDBusConnection::ExportAllSlots);
}

void ReopenBridge::Reopen() {
    if (!controller_) return;
    const auto* window = controller_->dashboardWindow();
    const bool visible =
        window && window->isVisible() && !window->windowStates().testFlag(Qt::WindowMinimized);
    controller_->handleReopen(visible);
}

}  // namespace kelvo
