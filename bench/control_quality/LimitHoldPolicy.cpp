#include "LimitHoldPolicy.h"

#include <algorithm>
#include <cstdio>

namespace kelvo::quality {

std::string LimitHoldPolicy::parameters() const {
    char text[200];
    std::snprintf(
        text, sizeof text,
        "reference, not a baseline: the die closest to its limit (CPU %.0f C, GPU %.0f C) "
        "held %.1f C under it; kp %.2f/C, ki %.3f/(C s), kd %.2f s/C",
        settings_.cpuLimitC, settings_.gpuLimitC, settings_.marginC, settings_.kp, settings_.ki,
        settings_.kd);
    return text;
}

// Degrees over the hold point of whichever die is closest to its own limit.
std::optional<double> LimitHoldPolicy::error(const TelemetrySample& sample) const {
    std::optional<double> worst;
    auto consider = [&](const std::optional<double>& temp, double limit) {
        if (!temp) return;
        const double over = *temp - (limit - settings_.marginC);
        worst = worst ? std::max(*worst, over) : over;
    };
    consider(sample.cpuTemperatureC, settings_.cpuLimitC);
    consider(sample.gpuTemperatureC, settings_.gpuLimitC);
    return worst;
}

double LimitHoldPolicy::duty(const TelemetrySample& sample, double dt) {
    const auto e = error(sample);
    return e ? loop_.update(*e, dt) : 1.0;
}

}  // namespace kelvo::quality
