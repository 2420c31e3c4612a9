// Where the x-axis ticks go for a trend window.
#pragma once

#include <vector>

#include "dashboard/TrendWindowMode.h"
#include "foundation/chart/TrendAnalysis.h"

namespace kelvo {

// Stride-aligned dates in the range, without one exactly at its upper bound (it would sit on
// the live edge) and without neighbours that would show the same text; the first and the last
// date are always kept.
std::vector<Timestamp> fixedViewportTrendXAxisTickDates(ClosedTimeRange timeDomain,
                                                        TrendWindowMode mode);

}  // namespace kelvo
