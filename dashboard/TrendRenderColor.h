// Platform colours to the renderer's colour vectors.
#pragma once

#include <QColor>

#include "dashboard/FixedViewportTrendSnapshot.h"

namespace kelvo {

// The colour in RGB as four floats; a colour whose RGB conversion is invalid is used as it is.
TrendColor trendRenderColor(const QColor& color);

}  // namespace kelvo
