#include "dashboard/TrendSectionComputation.h"

#include "dashboard/TrendWindowMode.h"

namespace kelvo {

TrendSectionComputationKey makeTrendSectionComputationKey(
    std::uint64_t trendRevision, std::string_view trendWindowRawValue,
    const TrendSeriesToggles& toggles, ControlMode runtimeMode,
    const GPUClockWindowAnalysisConfig& gpuClockWindowAnalysisConfig) {
    TrendSectionComputationKey key;
    key.trendRevision = trendRevision;
    key.trendWindowModeRawValue = rawValue(trendWindowModeFromRaw(trendWindowRawValue));
    key.showGPUSeries = toggles.gpu;
    key.showCPUSeries = toggles.cpu;
    key.showFanSeries = toggles.fan;
    key.showPowerSeries = toggles.power;
    key.runtimeModeRawValue = std::string(rawValue(runtimeMode));
    key.gpuClockWindowAnalysisConfig = gpuClockWindowAnalysisConfig;
    return key;
}

}  // namespace kelvo
