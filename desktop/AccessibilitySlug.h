// Identifiers made from visible labels: "GPU Clock" becomes "gpu-clock".
#pragma once

#include <QString>

namespace kelvo {

// The label's runs of letters and digits, joined with "-" and lower-cased.
QString accessibilitySlug(const QString& label);

}  // namespace kelvo
