#include "dashboard/PeakPerformanceValueText.h"

#include "dashboard/PeakPerformanceFormat.h"

namespace kelvo {

std::string peakPerformanceValueText(const PeakPerformanceAnalysis& analysis) {
    const auto retention = analysis.clockRetentionPct();
    if (analysis.domain == PeakPerformanceDomain::none || !retention)
        return kPeakPerformanceNoValue;
    return formatRetentionFraction(*retention);
}

}  // namespace kelvo
