#include "capture/FileManagerReveal.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QFileInfo>
#include <QProcess>
#include <QUrl>

namespace kelvo {

namespace {
void openContainingFolder(const QString& path) {
    const QString folder = QFileInfo(path).absolutePath();
    // Detached: the file manager outlives us, and a missing xdg-open is simply no window.
    QProcess::startDetached(QStringLiteral("xdg-open"), {folder});
}
}  // namespace

void revealInFileManager(const QString& path) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        openContainingFolder(path);
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"),
        QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(QFileInfo(path).absoluteFilePath()).toString()}
         << QString();
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                     [path](QDBusPendingCallWatcher* self) {
                         if (self->isError()) openContainingFolder(path);
                         self->deleteLater();
                     });
}

}  // namespace kelvo
