// The part of a time-ordered history that a time range needs, found by binary search.
#pragma once

#include <cstddef>
#include <span>

#include "foundation/core/Types.h"

namespace kelvo {

// The lowest index whose timestamp is at or after `atOrAfter`; the count when there is none.
std::size_t firstTrendSampleIndex(Timestamp atOrAfter, std::span<const TelemetrySample> samples);

// The samples up to `upper`, starting with the last one before `lower` so a line enters the
// range instead of starting inside it. A view into `samples`, never a copy; the whole input
// when everything is in range.
std::span<const TelemetrySample> trendVisibleSamples(std::span<const TelemetrySample> samples,
                                                     Timestamp lower, Timestamp upper);

}  // namespace kelvo
