// What the updater needs to know about this build and where it lives. fromBuild() takes the
// values compiled in through CMake (KELVO_UPDATE_FEED_URL, KELVO_UPDATE_PUBLIC_KEY, the version
// and build number); tests and kelvoctl fill their own.
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

class QSettings;

namespace kelvo {

struct UpdaterConfiguration {
    QUrl feedUrl;
    QByteArray publicKey;           // base64 Ed25519 public key; empty: nothing is ever installed
    QString displayVersion;         // this build's short version, e.g. "0.1.0"
    QString buildVersion;           // this build's build number, which orders updates
    QString systemVersion;          // compared with an item's minimum system version
    QString installTarget;          // the AppImage file or install directory to replace
    QSettings* settings = nullptr;  // where the update preferences live; null: Kelvo's own
    int transferTimeoutMs = 30000;

    static UpdaterConfiguration fromBuild();
};

}  // namespace kelvo
