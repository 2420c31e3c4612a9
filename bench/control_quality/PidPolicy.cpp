#include "PidPolicy.h"

#include <cstdio>

namespace kelvo::quality {

std::string PidPolicy::parameters() const {
    char text[160];
    std::snprintf(text, sizeof text,
                  "CPU temperature to %.0f C; kp %.3f/C, ki %.4f/(C s), kd %.3f s/C",
                  gains_.setpointC, gains_.kp, gains_.ki, gains_.kd);
    return text;
}

double PidPolicy::duty(const TelemetrySample& sample, double dt) {
    if (!sample.cpuTemperatureC) return 1.0;
    return loop_.update(*sample.cpuTemperatureC - gains_.setpointC, dt);
}

}  // namespace kelvo::quality
