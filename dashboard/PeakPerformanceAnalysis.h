// How much of its learned high-load clock the machine delivered in the trend window, from the
// CPU and GPU clock-window analyses of that window.
#pragma once

#include <optional>

#include "foundation/chart/TrendAnalysis.h"

namespace kelvo {

struct PeakPerformanceAnalysis {
    PeakPerformanceDomain domain = PeakPerformanceDomain::none;
    CPUClockWindowAnalysis cpu;
    GPUClockWindowAnalysis gpu;

    // A fraction (0.985 means 98.5 %), never above 1; absent when the domain has no deficit.
    std::optional<double> clockRetentionPct() const;
    bool operator==(const PeakPerformanceAnalysis&) const = default;
};

// 1 − deficit, floored at 0 and capped at 1: running above the learned ceiling is still 100 %.
double peakPerformanceRetention(double deficit);

}  // namespace kelvo
