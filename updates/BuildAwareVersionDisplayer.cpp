#include "updates/BuildAwareVersionDisplayer.h"

namespace kelvo {

QString BuildAwareVersionDisplayer::formatUpdateVersion(const AppcastItem& update,
                                                        QString& bundleDisplayVersion,
                                                        const QString& bundleVersion) const {
    bundleDisplayVersion = formatBundleDisplayVersion(bundleDisplayVersion, bundleVersion);
    return formatBundleDisplayVersion(update.shortVersion, update.version);
}

QString BuildAwareVersionDisplayer::formatBundleDisplayVersion(const QString& displayVersion,
                                                               const QString& bundleVersion) const {
    return displayVersion + QStringLiteral(" (") + bundleVersion + QStringLiteral(")");
}

}  // namespace kelvo
