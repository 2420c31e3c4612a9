// The chart's time domain for a trend window, ending at the newest sample.
#pragma once

#include "dashboard/TrendWindowMode.h"
#include "foundation/chart/TrendAnalysis.h"

namespace kelvo {

FixedViewportTrendViewportDomain trendViewportDomain(Timestamp referenceUpperBound,
                                                     TrendWindowMode mode);

// The visible part of that domain: what the clock-window analyses judge.
ClosedTimeRange liveClockAnalysisWindow(Timestamp referenceUpperBound, TrendWindowMode mode);

}  // namespace kelvo
