// What a capture run teaches the loop: the learned high-load references, and the adaptive lead
// between a load rise and the temperature rise it causes.
#pragma once

#include <optional>
#include <vector>

#include "foundation/core/ProfilingTypes.h"

namespace kelvo::ProfilingModels {

inline constexpr double kHighLoadUtilizationPct = 70;
inline constexpr double kHighLoadPowerW = 45;
inline constexpr double kClockPercentile = 0.90;
inline constexpr double kTemperaturePercentile = 0.95;
// A load rise "causes" the first temperature rise of this size within this window.
inline constexpr double kLeadTemperatureRiseC = 3;
inline constexpr double kLeadWindowSeconds = 120;

bool isHighLoad(const TelemetrySample& sample);
// Linear interpolation between closest ranks; none for an empty list.
std::optional<double> percentile(std::vector<double> values, double fraction);

// Clock references: the 90th percentile under high load; temperature reference: the 95th
// percentile of the hotter sensor. What the run cannot tell keeps the baseline's value; a run
// without high load keeps the whole baseline, and yields none when there is no baseline.
std::optional<LearnedModel> deriveLearnedModel(const std::vector<TelemetrySample>& samples,
                                               const std::optional<LearnedModel>& baseline,
                                               Timestamp now);

AdaptiveModelRefreshResult fitAdaptiveLeadModel(const std::vector<TelemetrySample>& samples,
                                                const std::optional<AdaptiveLeadModel>& previous,
                                                Timestamp now);

}  // namespace kelvo::ProfilingModels
