// What the dashboard's trend section depends on (the key) and what it shows (the value).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "dashboard/FixedViewportTrendSnapshot.h"
#include "dashboard/PeakPerformanceAnalysis.h"
#include "dashboard/TrendSnapshotBuilder.h"

namespace kelvo {

// Cheap to compare: the store's trend revision stands for the whole history.
struct TrendSectionComputationKey {
    std::uint64_t trendRevision = 0;
    std::string trendWindowModeRawValue = "fiveMinutes";  // "oneMinute" or "fiveMinutes"
    bool showGPUSeries = true;
    bool showCPUSeries = true;
    bool showFanSeries = true;
    bool showPowerSeries = true;
    std::string runtimeModeRawValue = "systemAuto";
    GPUClockWindowAnalysisConfig gpuClockWindowAnalysisConfig;
    bool operator==(const TrendSectionComputationKey&) const = default;
};

// The window text is normalised, so an unknown stored value keys the same as "fiveMinutes".
TrendSectionComputationKey makeTrendSectionComputationKey(
    std::uint64_t trendRevision, std::string_view trendWindowRawValue,
    const TrendSeriesToggles& toggles, ControlMode runtimeMode,
    const GPUClockWindowAnalysisConfig& gpuClockWindowAnalysisConfig);

struct TrendSectionComputationValue {
    double fanScaleMaxRPM = 1;
    double gpuScaleMaxMHz = 1;
    double cpuScaleMaxMHz = 1;
    double totalPowerScaleMaxW = 1;
    std::string totalPowerScaleText;
    std::optional<Timestamp> latestSampleTimestamp;
    PeakPerformanceAnalysis peakPerformanceAnalysis;
    FixedViewportTrendSnapshot snapshot;
    bool operator==(const TrendSectionComputationValue&) const = default;
};

}  // namespace kelvo
