#include "PidLoop.h"

#include <algorithm>

namespace kelvo::quality {

double PidLoop::update(double error, double dt) {
    const double derivative = previousError_ && dt > 0 ? (error - *previousError_) / dt : 0.0;
    previousError_ = error;
    const double unclamped = kp_ * error + ki_ * (integral_ + error * dt) + kd_ * derivative;
    // Integrate only while the output is inside its range, or while the error pulls it back in.
    const bool saturatedHigh = unclamped > 1.0 && error > 0;
    const bool saturatedLow = unclamped < 0.0 && error < 0;
    if (!saturatedHigh && !saturatedLow) integral_ += error * dt;
    return std::clamp(kp_ * error + ki_ * integral_ + kd_ * derivative, 0.0, 1.0);
}

}  // namespace kelvo::quality
