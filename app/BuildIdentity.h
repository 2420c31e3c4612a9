// The build identity the runtime records at start-up and the dashboard shows: which app,
// fan back-end and helper are running, and from which executable.
#pragma once

#include <QString>

namespace kelvo {

struct BuildIdentity {
    QString shortVersion;
    QString build;
    QString backend;
    QString helper;
    QString fingerprint;  // of the executable
    QString bundlePath;   // the folder the executable runs from
    QString stamp;        // the executable's build stamp

    // The one line the start-up event and bug reports carry.
    QString summary() const;
    // "Build <version> (<build>) • <stamp>"
    QString versionLabel() const;
    // "Backend <backend> • Helper <helper>"
    QString versionDetail() const;
};

}  // namespace kelvo
