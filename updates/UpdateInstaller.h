// Puts a verified build in place of the running one. Two kinds of installation:
// - a single executable file (an AppImage): the enclosure is the new file itself;
// - an install directory (bin/, lib/, share/ ...): the enclosure is an archive (tar, tar.gz,
//   tar.xz or zip) of that directory's contents.
// Either way the new build is staged next to the old one and swapped in with one rename, so the
// install is either the old build or the new one, never a mix. The old build stays beside it as
// "<target>.previous" until the new build has started and calls removePreviousBuild().
#pragma once

#include <QString>

namespace kelvo::UpdateInstaller {

// The kept previous build of a target.
QString previousBuildPath(const QString& target);

// Installs the verified file `payload` at `target`. Returns empty on success, else the reason;
// on failure the target is as it was.
QString install(const QString& payload, const QString& target);

// Removes the previous build kept by the last install, if any. Call once the new build runs.
void removePreviousBuild(const QString& target);

// Where the running build is installed: the AppImage named by $APPIMAGE, else the directory
// above bin/ when the executable lies in a bin/ folder, else the executable's folder.
QString runningInstallTarget(const QString& executablePath);

}  // namespace kelvo::UpdateInstaller
