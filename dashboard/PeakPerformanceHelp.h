// The explanations behind the Peak Performance figure: sample counts, the window, the GPU's
// requested versus granted performance states and the likely limiter.
#pragma once

#include <string>
#include <vector>

#include "dashboard/PeakPerformanceAnalysis.h"
#include "dashboard/TrendWindowMode.h"

namespace kelvo {

// "1m" for the one-minute window, "5m" for the five-minute one.
std::string peakPerformanceWindowToken(TrendWindowMode window);

// The domains whose learned high-load reference is not ready yet: "CPU", then "GPU".
std::vector<std::string> waitingPeakPerformanceDomains(const PeakPerformanceAnalysis& analysis);

std::string peakPerformanceHelp(const PeakPerformanceAnalysis& analysis, TrendWindowMode window);
std::string gpuPeakPerformanceHelp(const GPUClockWindowAnalysis& gpu, TrendWindowMode window);
std::string combinedPeakPerformanceHelp(const PeakPerformanceAnalysis& analysis,
                                        TrendWindowMode window);

}  // namespace kelvo
