// X-axis labels placed in points under the chart: clamped inside the plot, and where two would
// overlap the newer one wins.
#pragma once

#include <QFont>
#include <QRectF>
#include <span>
#include <vector>

#include "dashboard/FixedViewportTrendSnapshot.h"

namespace kelvo {

// The small control-size system font; its digits are tabular, so labels keep their width as
// the time changes.
QFont trendReferenceLabelFont();

// In ascending order.
std::vector<FixedViewportTrendReferenceLabel> fixedViewportTrendReferenceXAxisLabels(
    std::span<const FixedViewportTrendTickSnapshot> ticks, const QRectF& plotFrame,
    const QFont& font = trendReferenceLabelFont());

}  // namespace kelvo
