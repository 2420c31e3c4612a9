// The "Peak Performance" figure: how much of its learned high-load clock the machine delivered
// in the current trend window, its traffic-light tint and its explanations.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "foundation/TrendAnalysis.h"

namespace kelvo {

struct PeakPerformanceAnalysis {
    PeakPerformanceDomain domain = PeakPerformanceDomain::none;
    CPUClockWindowAnalysis cpu;
    GPUClockWindowAnalysis gpu;

    // A fraction: 0.985 means 98.5 %.
    std::optional<double> clockRetentionPct() const;
    bool operator==(const PeakPerformanceAnalysis&) const = default;
};

enum class PeakPerformanceTint { secondary, green, yellow, red };

// "1m" for the one-minute trend window, "5m" for anything else.
std::string peakPerformanceWindowToken(const std::string& trendWindowRawValue);

PeakPerformanceTint peakPerformanceTint(const PeakPerformanceAnalysis& analysis);
std::string peakPerformanceValueText(const PeakPerformanceAnalysis& analysis);
std::string peakPerformanceHelp(const PeakPerformanceAnalysis& analysis,
                                const std::string& windowToken);
std::string gpuPeakPerformanceHelp(const GPUClockWindowAnalysis& gpu,
                                   const std::string& windowToken);
std::string combinedPeakPerformanceHelp(const PeakPerformanceAnalysis& analysis,
                                        const std::string& windowToken);
std::vector<std::string> waitingPeakPerformanceDomains(const PeakPerformanceAnalysis& analysis);
std::string formatPerformanceLevel(double level);

}  // namespace kelvo
