// Baseline: a stepped level table. Each level has a temperature to enter it (going up) and a
// lower one to leave it (going down), so the fan does not flip between two levels.
#pragma once

#include <vector>

#include "BaselinePolicy.h"

namespace kelvo::quality {

struct FanLevel {
    double duty = 0;
    double upC = 0;    // enter this level at or above
    double downC = 0;  // leave it for the level below under
};

class SteppedHysteresisPolicy : public BaselinePolicy {
public:
    // The table starts above level 0 (minimum speed); levels are in rising order.
    explicit SteppedHysteresisPolicy(std::vector<FanLevel> levels = defaultLevels());
    static std::vector<FanLevel> defaultLevels();

    std::string name() const override { return "stepped-hysteresis"; }
    std::string parameters() const override;
    double duty(const TelemetrySample& sample, double dt) override;

private:
    std::vector<FanLevel> levels_;
    int level_ = 0;  // 0: minimum; i: levels_[i - 1]
};

}  // namespace kelvo::quality
