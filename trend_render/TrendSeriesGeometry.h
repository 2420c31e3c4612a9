// A series' polylines stroked into triangles in plot fractions: miter joins computed in pixels,
// and for dashed series, dashes anchored to the timeline so they travel with the content.
#pragma once

#include <QSizeF>
#include <array>
#include <optional>
#include <span>
#include <vector>

#include "dashboard/FixedViewportTrendSnapshot.h"
#include "trend_render/TrendVertex.h"

namespace kelvo {

using TrendPolyline = std::vector<TrendPoint>;

// Where a dash pattern stands at a point: in a dash (drawing) or a gap, and how many pixels of
// that piece remain.
struct DashState {
    bool drawing = true;
    double remaining = 0;
    bool operator==(const DashState&) const = default;
};

// Drops every point equal to the previous kept one within 1e-6 in both coordinates.
TrendPolyline deduplicatedPolyline(std::span<const TrendPoint> points);
// The dash state at a content position `anchorPixels` for a pattern starting at pixel 0.
DashState anchoredDashState(double anchorPixels, double dashPixels, double gapPixels);
// The drawn pieces of `polyline` for a dash pattern starting in `start`; the scales turn plot
// fractions into pixels.
std::vector<TrendPolyline> dashedSegments(std::span<const TrendPoint> polyline, double widthScale,
                                          double heightScale, double dashPixels, double gapPixels,
                                          DashState start);
// The offset of an inner point between two unit normals: a miter, or the next normal when
// the turn is too sharp or degenerate.
std::array<double, 2> joinedOffsetPixels(std::array<double, 2> previous, std::array<double, 2> next,
                                         double halfWidth);
// Appends two triangles per step of `segment`, stroked `halfWidth` pixels to each side.
void strokedSegmentVertices(std::span<const TrendPoint> segment, const TrendColor& color,
                            double widthScale, double heightScale, double halfWidth,
                            std::vector<Vertex>& out);
// Every segment of a series, deduplicated, dashed when it has a pattern, and stroked.
// `domain` anchors the dash phase to the timeline.
std::vector<Vertex> buildSeriesVertices(const FixedViewportTrendSeriesSnapshot& series,
                                        const QSizeF& plotSize,
                                        const FixedViewportTrendViewportDomain& domain);
// The same into `out`, which is cleared first and keeps its storage: a rebuild then allocates
// nothing once the series have reached their size.
void buildSeriesVertices(const FixedViewportTrendSeriesSnapshot& series, const QSizeF& plotSize,
                         const FixedViewportTrendViewportDomain& domain, std::vector<Vertex>& out);

}  // namespace kelvo
