// Shows versions as "display version (build)" in every update dialog, for the installed build
// and the offered one, so two builds of one marketing version can be told apart.
#pragma once

#include <QString>

#include "updates/Appcast.h"

namespace kelvo {

class BuildAwareVersionDisplayer {
public:
    // The offered update's version text; bundleDisplayVersion is rewritten in place to the
    // installed build's version text.
    QString formatUpdateVersion(const AppcastItem& update, QString& bundleDisplayVersion,
                                const QString& bundleVersion) const;
    QString formatBundleDisplayVersion(const QString& displayVersion,
                                       const QString& bundleVersion) const;
};

}  // namespace kelvo
