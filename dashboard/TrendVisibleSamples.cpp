#include "dashboard/TrendVisibleSamples.h"

#include <algorithm>

namespace kelvo {

std::size_t firstTrendSampleIndex(Timestamp atOrAfter, std::span<const TelemetrySample> samples) {
    const auto it = std::partition_point(
        samples.begin(), samples.end(),
        [atOrAfter](const TelemetrySample& s) { return s.timestamp < atOrAfter; });
    return static_cast<std::size_t>(it - samples.begin());
}

std::span<const TelemetrySample> trendVisibleSamples(std::span<const TelemetrySample> samples,
                                                     Timestamp lower, Timestamp upper) {
    if (samples.empty()) return {};
    const auto endIt =
        std::partition_point(samples.begin(), samples.end(),
                             [upper](const TelemetrySample& s) { return s.timestamp <= upper; });
    const std::size_t end = static_cast<std::size_t>(endIt - samples.begin());
    if (end < 1) return {};
    const std::size_t first = std::min(firstTrendSampleIndex(lower, samples), end);
    const std::size_t start = first > 0 ? first - 1 : 0;
    if (start >= end) return {};
    if (start == 0 && end == samples.size()) return samples;
    return samples.subspan(start, end - start);
}

}  // namespace kelvo
