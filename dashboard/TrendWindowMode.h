// How much history the trend chart shows, persisted by its raw value.
#pragma once

#include <string>
#include <string_view>

namespace kelvo {

enum class TrendWindowMode { oneMinute, fiveMinutes };

struct TrendWindowShape {
    double windowSeconds = 0;
    double tickStrideSeconds = 0;
    int reducerBucketCount = 0;  // about as many points per series as the chart can show
};

// Anything but "oneMinute" (an old or hand-edited setting included) is the five-minute window.
TrendWindowMode trendWindowModeFromRaw(std::string_view raw);
std::string rawValue(TrendWindowMode mode);
TrendWindowShape trendWindowShape(TrendWindowMode mode);

}  // namespace kelvo
