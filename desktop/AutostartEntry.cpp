#include "desktop/AutostartEntry.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSaveFile>
#include <QStandardPaths>

namespace kelvo {

QString autostartEntryPath() {
    const QString config = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    return QDir(config).filePath(QStringLiteral("autostart/kelvo.desktop"));
}

bool isAutostartEnabled() {
    return QFile::exists(autostartEntryPath());
}

namespace {
// Exec values quote arguments that hold spaces or quoting characters.
QString quotedExec(const QString& executable) {
    if (!executable.contains(QRegularExpression(QStringLiteral("[\\s\"'\\\\$`]"))))
        return executable;
    QString escaped = executable;
    for (const char* c : {"\\", "\"", "`", "$"})
        escaped.replace(QLatin1String(c), QLatin1String("\\") + QLatin1String(c));
    return QLatin1Char('"') + escaped + QLatin1Char('"');
}
}  // namespace

bool setAutostartEnabled(bool enabled, const QString& executable) {
    const QString path = autostartEntryPath();
    if (!enabled) return !QFile::exists(path) || QFile::remove(path);
    if (!QDir().mkpath(QFileInfo(path).absolutePath())) return false;
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text)) return false;
    const QString entry = QStringLiteral(
                              "[Desktop Entry]\n"
                              "Type=Application\n"
                              "Name=Kelvo\n"
                              "Comment=Fan control with a live dashboard\n"
                              "Exec=%1\n"
                              "Icon=kelvo\n"
                              "Terminal=false\n"
                              "X-GNOME-Autostart-enabled=true\n")
                              .arg(quotedExec(executable));
    file.write(entry.toUtf8());
    return file.commit();
}

}  // namespace kelvo
