#include "foundation/profiling/DroopSignal.h"

#include <algorithm>
#include <cmath>

namespace kelvo::DroopSignal {

namespace {
double clean(double value) {
    return std::isfinite(value) && value > 0 ? value : 0.0;
}
}  // namespace

double peakAligned(double cpuDrop, double gpuDrop, double cpuUtilizationPct,
                   double gpuUtilizationPct, double peakWeight) {
    const double cpuBusy = std::min(clean(cpuUtilizationPct), 100.0) / 100.0;
    const double gpuBusy = std::min(clean(gpuUtilizationPct), 100.0) / 100.0;
    return clean(peakWeight) * std::max(clean(cpuDrop) * cpuBusy, clean(gpuDrop) * gpuBusy);
}

}  // namespace kelvo::DroopSignal
