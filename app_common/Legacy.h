// Names Kelvo keeps from the platform it was first written for, fenced here with the reason each
// one stays. Nothing else in the tree spells them out.
#pragma once

#include <QSettings>
#include <QString>
#include <QStringList>
#include <array>
#include <optional>

namespace kelvo::legacy {

// The build-identity dictionary's keys: the tests' dictionaries and saved identities use them.
inline constexpr char kShortVersionKey[] = "CFBundleShortVersionString";
inline constexpr char kBuildNumberKey[] = "CFBundleVersion";

// The helper-backed fan back-end's label in events, the status line and the metrics; scripts
// and dashboards already match on it.
inline constexpr char kHelperBackendLabel[] = "xpc";
// The launch flag for "fans only through kelvo-helperd": documented, and in users' units.
inline constexpr char kHelperOnlyFansFlag[] = "--xpc-only-fans";

// Window-geometry keys that earlier builds wrote into the settings; removed at launch so they do
// not linger.
inline constexpr std::array<const char*, 3> kWindowFramePrefixes = {
    "NSWindow Frame dashboard-AppWindow-",
    "NSWindow Frame SwiftUI.ModifiedContent<Kelvo.DashboardView",
    "NSWindow Frame Kelvo.dashboardWindow",
};

// Build 343 alone empties the capture databases that earlier builds left behind (their schema
// could not be migrated); the marker keeps it to one run.
inline constexpr char kStorageResetBuild[] = "343";
inline constexpr char kResetMarkerKey[] = "kelvo.storage.one_time_reset.applied_build";

struct OneTimeStorageResetResult {
    bool applied = false;
    QString build;
    QStringList removedFiles;  // file names only
    QStringList failedFiles;   // "name: reason"

    // The runtime event text for this outcome; none when the reset did not run.
    std::optional<QString> startupMessage() const;

    bool operator==(const OneTimeStorageResetResult&) const = default;
};

// Runs the reset on the first launch of kStorageResetBuild (and again after a partial one); any
// other build never touches the files. Never throws; removal errors are collected in the result.
OneTimeStorageResetResult applyOneTimeStorageResetIfNeeded(QSettings& defaults);
// The files the reset deletes, in the order it tries them (names inside the application folder).
QStringList storageResetCandidateNames();

}  // namespace kelvo::legacy
