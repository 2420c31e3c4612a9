// Points the runtime's data and config folders into a test's temporary folder and opens a
// settings file there, so tests never see each other's files or the user's.
#pragma once

#include <QSettings>
#include <QTemporaryDir>
#include <memory>

namespace kelvo::testing {

inline std::unique_ptr<QSettings> enterPrivateHome(const QTemporaryDir& home) {
    qputenv("XDG_DATA_HOME", home.filePath(QStringLiteral("data")).toUtf8());
    qputenv("XDG_CONFIG_HOME", home.filePath(QStringLiteral("config")).toUtf8());
    return std::make_unique<QSettings>(home.filePath(QStringLiteral("settings.ini")),
                                       QSettings::IniFormat);
}

}  // namespace kelvo::testing
