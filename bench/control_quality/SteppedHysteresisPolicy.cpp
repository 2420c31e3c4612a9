#include "SteppedHysteresisPolicy.h"

#include <cstdio>

namespace kelvo::quality {

SteppedHysteresisPolicy::SteppedHysteresisPolicy(std::vector<FanLevel> levels)
    : levels_(std::move(levels)) {}

std::vector<FanLevel> SteppedHysteresisPolicy::defaultLevels() {
    return {{0.2, 55, 48}, {0.4, 65, 58}, {0.65, 75, 68}, {1.0, 83, 76}};
}

std::string SteppedHysteresisPolicy::parameters() const {
    std::string text = "hotter of CPU/GPU; levels (duty up/down C):";
    for (const auto& level : levels_) {
        char item[64];
        std::snprintf(item, sizeof item, " %.0f%% %.0f/%.0f", level.duty * 100, level.upC,
                      level.downC);
        text += item;
    }
    return text;
}

double SteppedHysteresisPolicy::duty(const TelemetrySample& sample, double) {
    auto temp = hottestTemperature(sample);
    if (!temp) return 1.0;
    const int top = static_cast<int>(levels_.size());
    while (level_ < top && *temp >= levels_[static_cast<std::size_t>(level_)].upC) ++level_;
    while (level_ > 0 && *temp < levels_[static_cast<std::size_t>(level_ - 1)].downC) --level_;
    return level_ == 0 ? 0.0 : levels_[static_cast<std::size_t>(level_ - 1)].duty;
}

}  // namespace kelvo::quality
