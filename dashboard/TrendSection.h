// The dashboard's trend section, memoised: recomputed only when its key changes, and the key is
// cheap because the store's trend revision stands for the whole history.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "dashboard/PeakPerformance.h"
#include "dashboard/TrendSnapshot.h"

namespace kelvo {

struct TrendSectionComputationKey {
    std::uint64_t trendRevision = 0;
    std::string trendWindowModeRawValue = "fiveMinutes";  // normalised
    bool showGPUSeries = true;
    bool showCPUSeries = true;
    bool showFanSeries = true;
    bool showPowerSeries = true;
    std::string runtimeModeRawValue = "systemAuto";
    GPUClockWindowAnalysisConfig gpuClockWindowAnalysisConfig;
    bool operator==(const TrendSectionComputationKey&) const = default;
};

struct TrendSectionComputationValue {
    double fanScaleMaxRPM = 1;
    double gpuScaleMaxMHz = 1;
    double cpuScaleMaxMHz = 1;
    double totalPowerScaleMaxW = 1;
    std::string totalPowerScaleText;
    std::optional<Timestamp> latestSampleTimestamp;
    PeakPerformanceAnalysis peakPerformanceAnalysis;
    FixedViewportTrendSnapshot snapshot;
};

struct TrendSectionInputs {
    std::span<const TelemetrySample> samples;
    std::span<const PreviewFanTrendPoint> previewPoints;
    std::span<const ThrottleWarningTrendPoint> throttleHistory;
};

// Computes the section from scratch; `now` stands in for the newest sample when there is none.
TrendSectionComputationValue computeTrendSection(const TrendSectionComputationKey& key,
                                                 const TrendSectionInputs& inputs, Timestamp now);

class TrendSectionMemoizer {
public:
    const TrendSectionComputationValue& value(const TrendSectionComputationKey& key,
                                              const TrendSectionInputs& inputs, Timestamp now);
    std::uint64_t computationCount() const { return computations_; }
    const std::optional<TrendSectionComputationKey>& cachedKey() const { return cachedKey_; }

private:
    std::optional<TrendSectionComputationKey> cachedKey_;
    std::optional<TrendSectionComputationValue> cachedValue_;
    std::uint64_t computations_ = 0;
};

}  // namespace kelvo
