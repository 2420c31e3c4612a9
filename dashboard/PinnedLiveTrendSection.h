// The dashboard's live trend section: scale maxima, the Peak Performance analysis of the
// visible window and the chart's snapshot, recomputed only when the key changes.
#pragma once

#include <span>

#include "dashboard/TrendSectionMemoizer.h"
#include "live/PreviewFanTrendPoint.h"

namespace kelvo {

// The store's histories, in time order.
struct TrendSectionInputs {
    std::span<const TelemetrySample> samples;
    std::span<const PreviewFanTrendPoint> previewPoints;
    std::span<const ThrottleWarningTrendPoint> throttleHistory;
};

// Computes the section from scratch. `clock` is read only when there is no sample to end the
// chart at.
TrendSectionComputationValue computeTrendSection(const TrendSectionComputationKey& key,
                                                 const TrendSectionInputs& inputs,
                                                 Timestamp (*clock)() = wallClockNow);

// The memoised section: the cached value while `key` is unchanged.
const TrendSectionComputationValue& pinnedLiveTrendSection(TrendSectionMemoizer& memo,
                                                           const TrendSectionComputationKey& key,
                                                           const TrendSectionInputs& inputs,
                                                           Timestamp (*clock)() = wallClockNow);

}  // namespace kelvo
