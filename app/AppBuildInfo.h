// Which build is running, where its files live, and which fan back-end and helper it talks to;
// plus the storage reset that belongs to build 343 alone.
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

#include "foundation/FanController.h"

namespace kelvo {

// The build's identity values as two dictionaries: a lookup consults the localized one first,
// then the raw one. Tests install their own through AppBuildInfo::setInfoDictionary.
struct AppInfoDictionary {
    QVariantMap localized;
    QVariantMap raw;

    // What this binary was built with: "CFBundleShortVersionString" and "CFBundleVersion".
    static AppInfoDictionary compiledIn();
};

struct OneTimeStorageResetResult {
    bool applied = false;
    QString build;
    QStringList removedFiles;  // file names only
    QStringList failedFiles;   // "name: reason"

    // The runtime event text for this outcome; none when the reset did not run.
    std::optional<QString> startupMessage() const;

    bool operator==(const OneTimeStorageResetResult&) const = default;
};

namespace AppBuildInfo {

inline constexpr char kResetTargetBuild[] = "343";
inline constexpr char kResetMarkerKey[] = "kelvo.storage.one_time_reset.applied_build";
inline constexpr char kApplicationFolderName[] = "Kelvo";
inline constexpr char kDefaultDatabaseFileName[] = "kelvo.sqlite";
inline constexpr char kRepoRootEnvironmentVariable[] = "KELVO_REPO_ROOT";

// Runs the reset on the first launch of build 343 (and again after a partial one); any other
// build never touches the files. Never throws; removal errors are collected in the result.
OneTimeStorageResetResult applyOneTimeStorageResetIfNeeded(QSettings& defaults);
// The files the reset deletes, in the order it tries them (names inside the application folder).
QStringList storageResetCandidateNames();

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
// The label for a back-end's type name: "xpc", "hybrid", "local", "simulated", or the name.
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
