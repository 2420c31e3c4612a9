// The trend chart's input as one immutable value: every series already reduced to normalised
// points, throttle bands and ticks placed as fractions of the visible window (x = 0 at the
// window's left edge, 1 at its right; y = 0 at the top, 1 at the bottom).
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "foundation/chart/TrendAnalysis.h"

namespace kelvo {

// Device-RGB red, green, blue, alpha, as the renderer takes them.
using TrendColor = std::array<float, 4>;

struct FixedViewportTrendSeriesSnapshot {
    TrendColor color{};
    // Polylines; the builder makes zero or one per series.
    std::vector<std::vector<TrendPoint>> segments;
    float lineWidthPixels = 2.0f;
    // On and off lengths; absent draws a solid line.
    std::optional<std::array<float, 2>> dashPatternPixels;
    bool operator==(const FixedViewportTrendSeriesSnapshot&) const = default;
};

struct FixedViewportThrottleBandSnapshot {
    float startXFraction = 0;
    float endXFraction = 0;
    TrendColor color{};
    bool operator==(const FixedViewportThrottleBandSnapshot&) const = default;
};

struct FixedViewportTrendTickSnapshot {
    Timestamp date = 0;
    std::string text;
    double xFraction = 0;
    bool operator==(const FixedViewportTrendTickSnapshot&) const = default;
};

struct FixedViewportTrendSnapshot {
    FixedViewportTrendViewportDomain viewportDomain;
    double liveRevealDurationSeconds = 0;
    std::vector<FixedViewportTrendTickSnapshot> xAxisTicks;        // ascending date
    std::vector<FixedViewportThrottleBandSnapshot> throttleBands;  // ascending
    std::vector<FixedViewportTrendSeriesSnapshot> series;          // drawing order
    bool operator==(const FixedViewportTrendSnapshot&) const = default;
};

// An x-axis label placed in points under the plot.
struct FixedViewportTrendReferenceLabel {
    Timestamp date = 0;
    std::string text;
    double x = 0;     // the label's centre after clamping into the plot
    double rawX = 0;  // the tick's own position
    bool operator==(const FixedViewportTrendReferenceLabel&) const = default;
};

}  // namespace kelvo
