// Baseline: the classic linear curve. Fans at minimum up to a low temperature, at maximum from a
// high temperature, a straight line in between; no memory from one reading to the next.
#pragma once

#include "BaselinePolicy.h"

namespace kelvo::quality {

class LinearCurvePolicy : public BaselinePolicy {
public:
    LinearCurvePolicy(double minTempC = 50, double maxTempC = 85)
        : minTempC_(minTempC), maxTempC_(maxTempC) {}
    std::string name() const override { return "linear-curve"; }
    std::string parameters() const override;
    double duty(const TelemetrySample& sample, double dt) override;

private:
    double minTempC_;
    double maxTempC_;
};

}  // namespace kelvo::quality
