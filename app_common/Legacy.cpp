#include "app_common/Legacy.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <filesystem>
#include <system_error>

#include "app_common/AppBuildInfo.h"

namespace kelvo::legacy {

namespace {
std::filesystem::path fsPath(const QString& path) {
    return std::filesystem::path(QFile::encodeName(path).toStdString());
}
}  // namespace

std::optional<QString> OneTimeStorageResetResult::startupMessage() const {
    if (!applied) return std::nullopt;
    const QString separator = QStringLiteral(", ");
    if (!failedFiles.isEmpty())
        return QStringLiteral("One-time storage reset for build ") + build +
               QStringLiteral(" was partial. Removed: ") + removedFiles.join(separator) +
               QStringLiteral(". Failed: ") + failedFiles.join(separator) + QStringLiteral(".");
    if (removedFiles.isEmpty())
        return QStringLiteral("Applied one-time storage reset for build ") + build +
               QStringLiteral("; no existing capture DB files were present.");
    return QStringLiteral("Applied one-time storage reset for build ") + build +
           QStringLiteral(": removed ") + removedFiles.join(separator) + QStringLiteral(".");
}

QStringList storageResetCandidateNames() {
    const QString database = QString::fromLatin1(AppBuildInfo::kDefaultDatabaseFileName);
    return {database,
            database + QStringLiteral("-wal"),
            database + QStringLiteral("-shm"),
            QStringLiteral("kelvo.db"),
            QStringLiteral("kelvo.sqlite3"),
            QStringLiteral("profiling.sqlite"),
            QStringLiteral("runtime-events.db"),
            QStringLiteral("runtime_events.db"),
            QStringLiteral("telemetry.sqlite"),
            QStringLiteral("thermal_controller.db")};
}

OneTimeStorageResetResult applyOneTimeStorageResetIfNeeded(QSettings& defaults) {
    const QString target = QString::fromLatin1(kStorageResetBuild);
    OneTimeStorageResetResult result;
    result.build = target;
    // Only that build resets: every other build, older or newer, leaves the files alone.
    if (AppBuildInfo::bundleValue(QString::fromLatin1(legacy::kBuildNumberKey)) != target)
        return result;
    const QVariant marker = defaults.value(QString::fromLatin1(kResetMarkerKey));
    if (marker.isValid() && marker.toString() == target) return result;

    const QDir folder(AppBuildInfo::applicationFolder());
    QDir().mkpath(folder.path());
    for (const QString& name : storageResetCandidateNames()) {
        const QString path = folder.filePath(name);
        if (!QFileInfo::exists(path)) continue;
        // Non-recursive on purpose: a directory in a database file's place is not ours to empty.
        std::error_code error;
        if (std::filesystem::remove(fsPath(path), error) && !error) {
            result.removedFiles.append(name);
        } else {
            const QString reason = error ? QString::fromStdString(error.message())
                                         : QStringLiteral("the file could not be removed");
            result.failedFiles.append(name + QStringLiteral(": ") + reason);
        }
    }
    // A partial reset leaves the marker unset so that the next launch tries again.
    if (result.failedFiles.isEmpty()) {
        defaults.setValue(QString::fromLatin1(kResetMarkerKey), target);
        defaults.sync();
    }
    result.applied = true;
    return result;
}

}  // namespace kelvo::legacy
