// Throttle intervals as shaded bands in fractions of the visible window.
#pragma once

#include <span>
#include <vector>

#include "dashboard/FixedViewportTrendSnapshot.h"

namespace kelvo {

// Fractions are left unclamped (the renderer clips); empty spans and a window without length
// give no band.
std::vector<FixedViewportThrottleBandSnapshot> fixedViewportThrottleBands(
    std::span<const ClockWindowThrottleSpan> spans, const FixedViewportTrendViewportDomain& domain);

}  // namespace kelvo
