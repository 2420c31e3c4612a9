// The chart's scale maxima, each over the whole history so the scale does not jump as old
// samples scroll out of view.
#pragma once

#include <span>

#include "foundation/core/Types.h"

namespace kelvo {

struct TrendScaleMaxima {
    double fanRPM = 1;
    double gpuMHz = 1;
    double cpuMHz = 1;
    double totalPowerW = 1;
    bool operator==(const TrendScaleMaxima&) const = default;
};

double chartFanScaleMaxRPM(std::span<const TelemetrySample> samples);
double chartGPUScaleMaxMHz(std::span<const TelemetrySample> samples);
double chartCPUScaleMaxMHz(std::span<const TelemetrySample> samples);
double chartTotalPowerScaleMaxW(std::span<const TelemetrySample> samples);
TrendScaleMaxima chartScaleMaxima(std::span<const TelemetrySample> samples);

}  // namespace kelvo
