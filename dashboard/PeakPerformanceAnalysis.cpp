#include "dashboard/PeakPerformanceAnalysis.h"

#include <algorithm>

namespace kelvo {

double peakPerformanceRetention(double deficit) {
    return std::clamp(1 - deficit, 0.0, 1.0);
}

std::optional<double> PeakPerformanceAnalysis::clockRetentionPct() const {
    switch (domain) {
        case PeakPerformanceDomain::none: return std::nullopt;
        case PeakPerformanceDomain::cpu:
            if (!cpu.clockDeficit) return std::nullopt;
            return peakPerformanceRetention(*cpu.clockDeficit);
        case PeakPerformanceDomain::gpu:
            if (!gpu.clockDeficit) return std::nullopt;
            return peakPerformanceRetention(*gpu.clockDeficit);
        case PeakPerformanceDomain::combined:
            if (!cpu.clockDeficit || !gpu.clockDeficit) return std::nullopt;
            return (peakPerformanceRetention(*gpu.clockDeficit) +
                    peakPerformanceRetention(*cpu.clockDeficit)) /
                   2;
    }
    return std::nullopt;
}

}  // namespace kelvo
