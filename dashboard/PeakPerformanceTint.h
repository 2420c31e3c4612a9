// The traffic-light tint of the Peak Performance figure.
#pragma once

#include <QColor>

#include "dashboard/PeakPerformanceAnalysis.h"

namespace kelvo {

enum class PeakPerformanceTint { secondary, green, yellow, red };

// Green from 98 %, yellow from 93 %, red below (and for a value that is not a number);
// neutral while there is no figure.
PeakPerformanceTint peakPerformanceTint(const PeakPerformanceAnalysis& analysis);
QColor peakPerformanceTintColor(PeakPerformanceTint tint);

}  // namespace kelvo
