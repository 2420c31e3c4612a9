#include "dashboard/PeakPerformanceTint.h"

#include "dashboard/SystemColors.h"

namespace kelvo {

PeakPerformanceTint peakPerformanceTint(const PeakPerformanceAnalysis& analysis) {
    const auto value = analysis.clockRetentionPct();
    if (!value) return PeakPerformanceTint::secondary;
    if (*value >= 0.98) return PeakPerformanceTint::green;
    if (*value >= 0.93) return PeakPerformanceTint::yellow;
    return PeakPerformanceTint::red;
}

QColor peakPerformanceTintColor(PeakPerformanceTint tint) {
    switch (tint) {
        case PeakPerformanceTint::green: return SystemColor::green;
        case PeakPerformanceTint::yellow: return SystemColor::yellow;
        case PeakPerformanceTint::red: return SystemColor::red;
        case PeakPerformanceTint::secondary: return SystemColor::secondary;
    }
    return SystemColor::secondary;
}

}  // namespace kelvo
