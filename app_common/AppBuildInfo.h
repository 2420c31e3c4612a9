// Which build is running, where its files live, and which fan back-end and helper it talks to.
#pragma once

#include <QCoroTask>
#include <QDateTime>
#include <QSettings>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <functional>
#include <memory>
#include <optional>

#include "app_common/Legacy.h"
#include "foundation/core/FanController.h"

namespace kelvo {

// The build's identity values as two dictionaries: a lookup consults the localized one first,
// then the raw one. Tests install their own through AppBuildInfo::setInfoDictionary.
struct AppInfoDictionary {
    QVariantMap localized;
    QVariantMap raw;

    // What this binary was built with: the short version and the build number (legacy::k...Key).
    static AppInfoDictionary compiledIn();
};

namespace AppBuildInfo {

inline constexpr char kApplicationFolderName[] = "Kelvo";
inline constexpr char kDefaultDatabaseFileName[] = "kelvo.sqlite";
inline constexpr char kRepoRootEnvironmentVariable[] = "KELVO_REPO_ROOT";

// The application folder ("Kelvo" in the user's data location). No such location is fatal.
QString applicationFolder();
// The capture database; creates the application folder on the way (errors are left to the
// database open to report).
QString defaultDatabasePath();
// Where capture exports go; not created here.
QString defaultProfilesBaseDirectory();

// A trimmed, non-empty identity value; localized entries win over raw ones.
std::optional<QString> bundleValue(const QString& key);
const AppInfoDictionary& infoDictionary();
void setInfoDictionary(AppInfoDictionary dictionary);
void resetInfoDictionary();

// The running executable; none when it cannot be located. A provider replaces the lookup of
// /proc/self/exe (an empty provider restores it).
using ExecutablePathProvider = std::function<std::optional<QString>()>;
std::optional<QString> executablePath();
void setExecutablePathProvider(ExecutablePathProvider provider);

// Modification time of the executable as "MM/dd HH:mm:ss" in local time, or "unknown".
QString executableBuildStamp();
// "Build <short> (<build>) • <stamp>", the label the dashboard shows until the runtime has
// resolved the full identity.
QString initialBuildVersionLabel();
// "size=<bytes>,mtime=<seconds>", or "unknown" (no executable) / "unreadable" (no attributes).
QString executableFingerprint();

QString fanBackendLabel(const FanController& controller);
// The label for a back-end's type name: legacy::kHelperBackendLabel, "hybrid", "local",
// "simulated", or the name.
QString fanBackendLabelForTypeName(const QString& typeName);
// Helper-backed controllers are asked off the main thread: "unavailable" when the helper does
// not answer. Other back-ends have no helper: "n/a".
QCoro::Task<QString> resolveHelperVersion(std::shared_ptr<FanController> controller);

// Whole seconds as "%02d:%02d" minutes and seconds (minutes uncapped). Non-finite or
// out-of-range input is fatal.
QString formatDuration(double seconds);
// The current UTC time as "yyyyMMdd-HHmmss"; the overload formats a given moment.
QString profileTimestampFolderName();
QString profileTimestampFolderName(const QDateTime& moment);

}  // namespace AppBuildInfo

}  // namespace kelvo
