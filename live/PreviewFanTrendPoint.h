// One point of the fan-preview trace: what the fans would be asked to do.
#pragma once

#include "foundation/core/Types.h"

namespace kelvo {

struct PreviewFanTrendPoint {
    Timestamp timestamp = 0;
    double averageRPM = 0;  // mean of the positive per-fan targets
    bool operator==(const PreviewFanTrendPoint&) const = default;
};

}  // namespace kelvo
