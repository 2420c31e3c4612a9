#include "app/BuildIdentity.h"

namespace kelvo {

QString BuildIdentity::summary() const {
    return QStringLiteral("app ") + shortVersion + QStringLiteral(" (") + build +
           QStringLiteral("), backend ") + backend + QStringLiteral(", helper ") + helper +
           QStringLiteral(", exe ") + fingerprint + QStringLiteral(", bundle ") + bundlePath;
}

QString BuildIdentity::versionLabel() const {
    return QStringLiteral("Build ") + shortVersion + QStringLiteral(" (") + build +
           QStringLiteral(") \u2022 ") + stamp;
}

QString BuildIdentity::versionDetail() const {
    return QStringLiteral("Backend ") + backend + QStringLiteral(" \u2022 Helper ") + helper;
}

}  // namespace kelvo
