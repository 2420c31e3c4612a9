// Formats one line per card update for `kelvo --headless`.
#pragma once

#include <QString>

#include "foundation/core/Types.h"

namespace kelvo {

QString headlessLine(const TelemetrySample& sample, ControlMode mode, ControlStatus status,
                     bool throttleWarning);

}  // namespace kelvo
