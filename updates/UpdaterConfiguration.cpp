#include "updates/UpdaterConfiguration.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QSysInfo>

#include "updates/UpdateInstaller.h"

namespace kelvo {

UpdaterConfiguration UpdaterConfiguration::fromBuild() {
    UpdaterConfiguration configuration;
    configuration.feedUrl = QUrl(QStringLiteral(KELVO_UPDATE_FEED_URL));
    configuration.publicKey = QByteArrayLiteral(KELVO_UPDATE_PUBLIC_KEY);
    configuration.displayVersion = QStringLiteral(KELVO_UPDATE_DISPLAY_VERSION);
    configuration.buildVersion = QStringLiteral(KELVO_UPDATE_BUILD_VERSION);
    // A release states the oldest kernel it runs on; the kernel is what all distributions share.
    configuration.systemVersion = QSysInfo::kernelVersion();
    const QString executable = QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget();
    configuration.installTarget = UpdateInstaller::runningInstallTarget(executable);
    return configuration;
}

}  // namespace kelvo
