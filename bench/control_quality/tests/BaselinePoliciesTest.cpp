#include <gtest/gtest.h>

#include "LimitHoldPolicy.h"
#include "LinearCurvePolicy.h"
#include "PidPolicy.h"
#include "SteppedHysteresisPolicy.h"

using namespace kelvo;
using namespace kelvo::quality;

namespace {
TelemetrySample temps(std::optional<double> cpu, std::optional<double> gpu) {
    TelemetrySample s;
    s.cpuTemperatureC = cpu;
    s.gpuTemperatureC = gpu;
    return s;
}
}  // namespace

TEST(LinearCurvePolicy, FollowsTheHotterDieBetweenItsTwoTemperatures) {
    LinearCurvePolicy curve(50, 80);
    EXPECT_DOUBLE_EQ(curve.duty(temps(40, 45), 1), 0.0);
    EXPECT_DOUBLE_EQ(curve.duty(temps(50, 65), 1), 0.5);
    EXPECT_DOUBLE_EQ(curve.duty(temps(90, 50), 1), 1.0);
    EXPECT_DOUBLE_EQ(curve.duty(temps(std::nullopt, std::nullopt), 1), 1.0);
}

TEST(SteppedHysteresisPolicy, EntersALevelAtItsUpperAndLeavesItUnderItsLowerTemperature) {
    SteppedHysteresisPolicy steps({{0.3, 60, 50}, {1.0, 80, 70}});
    EXPECT_DOUBLE_EQ(steps.duty(temps(59, 40), 1), 0.0);
    EXPECT_DOUBLE_EQ(steps.duty(temps(60, 40), 1), 0.3);
    EXPECT_DOUBLE_EQ(steps.duty(temps(51, 40), 1), 0.3);  // between: stays
    EXPECT_DOUBLE_EQ(steps.duty(temps(40, 85), 1), 1.0);  // the GPU counts too
    EXPECT_DOUBLE_EQ(steps.duty(temps(72, 40), 1), 1.0);
    EXPECT_DOUBLE_EQ(steps.duty(temps(69, 40), 1), 0.3);
    EXPECT_DOUBLE_EQ(steps.duty(temps(49, 40), 1), 0.0);
}

TEST(PidPolicy, ProportionalIntegralAndDerivativeOnTheCpuTemperature) {
    PidPolicy pid(PidGains{70, 0.1, 0.01, 0.05});
    // First reading: no derivative yet. 5 °C over: 0.5 + 0.05.
    EXPECT_NEAR(pid.duty(temps(75, 99), 1), 0.55, 1e-12);
    // Steady 5 °C over: the integral grows, the derivative is zero.
    EXPECT_NEAR(pid.duty(temps(75, 99), 1), 0.6, 1e-12);
    // Falling by 2 °C a second: the derivative pulls back. 0.3 + 0.13 - 0.1.
    EXPECT_NEAR(pid.duty(temps(73, 99), 1), 0.33, 1e-12);
}

TEST(PidPolicy, TheIntegralDoesNotWindUpWhileTheOutputIsSaturated) {
    PidPolicy pid(PidGains{70, 0.1, 0.01, 0});
    for (int i = 0; i < 100; ++i) EXPECT_DOUBLE_EQ(pid.duty(temps(95, 40), 1), 1.0);
    // Back under the setpoint, the fans come off at once instead of paying back a huge integral.
    EXPECT_LT(pid.duty(temps(60, 40), 1), 0.5);
}

TEST(LimitHoldPolicy, HoldsWhicheverDieIsClosestToItsOwnLimit) {
    LimitHoldPolicy hold(LimitHoldSettings{88, 85, 0.5, 0.1, 0.01, 0});
    // The GPU at 84.5 °C sits on its hold point (85 - 0.5); the CPU at 86 °C is 1.5 °C under its
    // own: the GPU decides, with nothing to correct.
    EXPECT_NEAR(hold.duty(temps(86, 84.5), 1), 0.0, 1e-12);
    // Two degrees over the GPU's hold point: 0.2 + 0.02.
    EXPECT_NEAR(hold.duty(temps(70, 86.5), 1), 0.22, 1e-12);
    // The CPU 3 °C over its hold point while the GPU is cool: the CPU decides (0.3, plus the
    // integral of both seconds over: 0.05).
    EXPECT_NEAR(hold.duty(temps(90.5, 60), 1), 0.35, 1e-12);
    EXPECT_DOUBLE_EQ(LimitHoldPolicy().duty(temps(std::nullopt, std::nullopt), 1), 1.0);
}
