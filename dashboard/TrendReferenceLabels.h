// X-axis labels placed in points under the chart: clamped inside the plot, newer labels win
// when two would overlap.
#pragma once

#include <QColor>
#include <QFont>
#include <QRectF>
#include <string>
#include <vector>

#include "dashboard/TrendSnapshot.h"

namespace kelvo {

struct FixedViewportTrendReferenceLabel {
    Timestamp date = 0;
    std::string text;
    double x = 0;     // centre after clamping, points
    double rawX = 0;  // the tick's own position, points
    bool operator==(const FixedViewportTrendReferenceLabel&) const = default;
};

// The small control-size font with tabular digits, so labels do not jitter as time moves.
QFont trendReferenceLabelFont();

std::vector<FixedViewportTrendReferenceLabel> fixedViewportTrendReferenceXAxisLabels(
    const std::vector<FixedViewportTrendTickSnapshot>& ticks, const QRectF& plotFrame,
    const QFont& font = trendReferenceLabelFont());

// The renderer's colour vector; a colour that cannot be converted is used as it is.
TrendColor trendRenderColor(const QColor& color);

}  // namespace kelvo
