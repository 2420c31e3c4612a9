#include "dashboard/TrendScaleMaxima.h"

#include <algorithm>

namespace kelvo {

namespace {

// Unreadable speeds (NaN) are left out.
double largestOf(const std::vector<double>& values) {
    double best = 0;
    for (double value : values)
        if (value > best) best = value;
    return best;
}

double largestPositive(std::span<const TelemetrySample> samples,
                       std::optional<double> TelemetrySample::*field) {
    double best = 0;
    for (const auto& s : samples)
        if (s.*field && *(s.*field) > best) best = *(s.*field);
    return best;
}

// A scale of at most 1 would blow every reading past the top of the chart.
double atLeastOne(double value) {
    return value > 1.0 ? value : 1.0;
}

}  // namespace

double chartFanScaleMaxRPM(std::span<const TelemetrySample> samples) {
    // The fans' rated maxima are the honest scale and are used as they are; without them, the
    // fastest speed seen or commanded.
    double rated = 0;
    for (const auto& s : samples)
        for (double v : s.fanMaxRPM) rated = std::max(rated, v);
    if (rated > 0) return rated;
    double seen = 0;
    for (const auto& s : samples)
        seen = std::max({seen, largestOf(s.fanCurrentRPM), largestOf(s.fanTargetRPM)});
    return atLeastOne(seen);
}

double chartGPUScaleMaxMHz(std::span<const TelemetrySample> samples) {
    const double reference = largestPositive(samples, &TelemetrySample::gpuReferenceMaxClockMHz);
    if (reference > 0) return reference;
    return atLeastOne(largestPositive(samples, &TelemetrySample::gpuClockMHz));
}

double chartCPUScaleMaxMHz(std::span<const TelemetrySample> samples) {
    return atLeastOne(largestPositive(samples, &TelemetrySample::cpuClockMHz));
}

double chartTotalPowerScaleMaxW(std::span<const TelemetrySample> samples) {
    return atLeastOne(largestPositive(samples, &TelemetrySample::totalPowerW));
}

TrendScaleMaxima chartScaleMaxima(std::span<const TelemetrySample> samples) {
    return {chartFanScaleMaxRPM(samples), chartGPUScaleMaxMHz(samples),
            chartCPUScaleMaxMHz(samples), chartTotalPowerScaleMaxW(samples)};
}

}  // namespace kelvo
