#include "dashboard/TrendWindowMode.h"

namespace kelvo {

TrendWindowMode trendWindowModeFromRaw(std::string_view raw) {
    return raw == "oneMinute" ? TrendWindowMode::oneMinute : TrendWindowMode::fiveMinutes;
}

std::string rawValue(TrendWindowMode mode) {
    return mode == TrendWindowMode::oneMinute ? "oneMinute" : "fiveMinutes";
}

TrendWindowShape trendWindowShape(TrendWindowMode mode) {
    if (mode == TrendWindowMode::oneMinute) return {60, 15, 180};
    return {300, 60, 1200};
}

}  // namespace kelvo
