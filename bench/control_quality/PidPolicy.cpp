#include "PidPolicy.h"

#include <algorithm>
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
    const double error = *sample.cpuTemperatureC - gains_.setpointC;
    const double derivative = previousError_ && dt > 0 ? (error - *previousError_) / dt : 0.0;
    previousError_ = error;
    const double unclamped =
        gains_.kp * error + gains_.ki * (integral_ + error * dt) + gains_.kd * derivative;
    // Integrate only while the output is inside its range, or while the error pulls it back in.
    const bool saturatedHigh = unclamped > 1.0 && error > 0;
    const bool saturatedLow = unclamped < 0.0 && error < 0;
    if (!saturatedHigh && !saturatedLow) integral_ += error * dt;
    return std::clamp(gains_.kp * error + gains_.ki * integral_ + gains_.kd * derivative, 0.0, 1.0);
}

}  // namespace kelvo::quality
