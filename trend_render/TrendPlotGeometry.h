// The chart's fixed layers in plot fractions: the grid, the axis ticks and the throttle bands.
// Built once per snapshot; the scroll is applied by the vertex stage.
#pragma once

#include <QSizeF>
#include <span>
#include <vector>

#include "dashboard/FixedViewportTrendSnapshot.h"
#include "trend_render/TrendVertex.h"

namespace kelvo {

// The six horizontal grid values, top to bottom.
inline constexpr std::array<double, 6> kTrendGridValues{100, 80, 60, 40, 20, 0};
inline constexpr double kTrendGridDashPoints = 4;
inline constexpr double kTrendGridGapPoints = 6;
inline constexpr double kTrendAxisTickLengthPoints = 4;

// Line list: six fixed horizontal lines, then one dashed scrolling vertical line per tick.
std::vector<Vertex> buildPlotGridVertices(std::span<const FixedViewportTrendTickSnapshot> ticks,
                                          const QSizeF& plotSize, const TrendColor& horizontal,
                                          const TrendColor& vertical);
// Line list: one short scrolling segment per tick, just under the plot.
std::vector<Vertex> buildAxisTickVertices(std::span<const FixedViewportTrendTickSnapshot> ticks,
                                          const QSizeF& plotSize, const TrendColor& color);
// Triangle list: two triangles per band with start < end.
std::vector<Vertex> buildThrottleBandVertices(
    std::span<const FixedViewportThrottleBandSnapshot> bands, bool shifted);

}  // namespace kelvo
