// Placing values on the chart in normalised plot coordinates, and turning a series' points into
// its drawn segment.
#pragma once

#include <span>
#include <vector>

#include "foundation/chart/TrendAnalysis.h"

namespace kelvo {

// (t − visible lower) ÷ window seconds; 0 when the window has no length.
float trendXFraction(Timestamp t, const FixedViewportTrendViewportDomain& domain);
// 1 − value ÷ the chart's y range: 0 at the top.
float trendYFraction(double value);
// value as a percentage of scale, clamped to the chart's y range.
double trendPercentOfScale(double value, double scale);

// Zero or one segment: points are reduced to about `bucketCount` and drawn only when at least
// two remain.
std::vector<std::vector<TrendPoint>> trendSeriesSegments(std::span<const TrendPoint> points,
                                                         int bucketCount);

}  // namespace kelvo
