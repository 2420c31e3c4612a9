// The Peak Performance card's value.
#pragma once

#include <string>

#include "dashboard/PeakPerformanceAnalysis.h"

namespace kelvo {

// "97.0%", or "—" while there is no domain or no retention.
std::string peakPerformanceValueText(const PeakPerformanceAnalysis& analysis);

}  // namespace kelvo
