// What the chart shows at one moment, in the units each series really has: the values under the
// pointer (or the keyboard cursor) for every series the toggles show. The chart plots clocks,
// fan speed and power as percentages of their scales; the readout gives back MHz, RPM and W.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "dashboard/TrendSnapshotBuilder.h"
#include "foundation/core/Types.h"

namespace kelvo {

struct TrendReadoutRow {
    std::string series;  // the toggle's label: "GPU Temp", "CPU Clock", "Fan Speed", ...
    std::string value;   // "62 °C", "1450 MHz"; "not read" when the sample has no value
    bool operator==(const TrendReadoutRow&) const = default;
};

struct TrendReadout {
    Timestamp sampleTime = 0;  // the sample the rows come from
    std::string timeText;      // its local time, to the second
    std::vector<TrendReadoutRow> rows;
    bool operator==(const TrendReadout&) const = default;
};

// Farther than this from every sample, a moment has no readout (before the history starts, in a
// gap while the machine slept): the nearest sample would describe another time.
inline constexpr double kTrendReadoutMaxGapSeconds = 2.0;

// The sample nearest `time` (samples in time order), or nothing when none lies within the gap.
std::optional<std::size_t> nearestTrendSampleIndex(std::span<const TelemetrySample> samples,
                                                   Timestamp time);

// The readout at `time`, or nothing without a sample near it.
std::optional<TrendReadout> trendReadout(std::span<const TelemetrySample> samples, Timestamp time,
                                         const TrendSeriesToggles& toggles);

}  // namespace kelvo
