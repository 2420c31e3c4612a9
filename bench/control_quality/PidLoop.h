// Proportional, integral and derivative terms on an error in degrees, the output clamped to the
// fan range (0..1) and the integral frozen while the output is saturated (anti-windup).
#pragma once

#include <optional>

namespace kelvo::quality {

class PidLoop {
public:
    PidLoop(double kp, double ki, double kd) : kp_(kp), ki_(ki), kd_(kd) {}
    double update(double error, double dt);

private:
    double kp_;
    double ki_;
    double kd_;
    double integral_ = 0;
    std::optional<double> previousError_;
};

}  // namespace kelvo::quality
