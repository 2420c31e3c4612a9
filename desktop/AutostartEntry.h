// The desktop's autostart entry for Kelvo ($XDG_CONFIG_HOME/autostart/kelvo.desktop).
#pragma once

#include <QString>

namespace kelvo {

QString autostartEntryPath();
bool isAutostartEnabled();
// Writes the entry launching `executable`, or removes it. False when the file system refused.
bool setAutostartEnabled(bool enabled, const QString& executable);

}  // namespace kelvo
