// Orders build versions the way appcasts expect: "1.10" is newer than "1.9", and a pre-release
// ("1.0b2", "1.0rc1") comes before the release it leads to ("1.0").
#pragma once

#include <QString>

namespace kelvo::UpdateVersionComparator {

// Negative when a is older than b, zero when they are the same version, positive when newer.
int compare(const QString& a, const QString& b);

}  // namespace kelvo::UpdateVersionComparator
