#include <gtest/gtest.h>

#include "foundation/ControlPolicy.h"
#include "foundation/ThrottleAssessor.h"

using namespace kelvo;

namespace {
TelemetrySample temps(Timestamp t, double cpu, double gpu) {
    TelemetrySample s;
    s.timestamp = t;
    s.cpuTemperatureC = cpu;
    s.gpuTemperatureC = gpu;
    return s;
}
}  // namespace

TEST(ControlPolicy, QuietRisesAboveItsSetpointAndHoldsBeforeFalling) {
    ControlPolicy policy;
    policy.reset(0);
    // 88 °C limit, 5 °C margin: 87 °C is 4 °C over the quiet setpoint.
    auto up = policy.decide(ControlMode::quiet, temps(0, 87, 50), 1.0, std::nullopt);
    EXPECT_GT(up.duty, 0.1);
    double raised = up.duty;
    // Cooler, but inside the hold time: no decrease.
    for (int i = 1; i <= 5; ++i)
        EXPECT_DOUBLE_EQ(
            policy.decide(ControlMode::quiet, temps(i, 60, 50), 1.0, std::nullopt).duty, raised);
    // After the hold the fans come down slowly, never faster than 2 % a second.
    double previous = raised;
    for (int i = 6; i <= 40; ++i) {
        double duty = policy.decide(ControlMode::quiet, temps(i, 60, 50), 1.0, std::nullopt).duty;
        EXPECT_LE(previous - duty, 0.02 + 1e-9);
        previous = duty;
    }
    EXPECT_LT(previous, raised);
}

TEST(ControlPolicy, NearTheHardLimitJumpsToHighDuty) {
    ControlPolicy policy;
    auto out = policy.decide(ControlMode::quiet, temps(0, 87.5, 40), 0.25, std::nullopt);
    EXPECT_GE(out.duty, 0.85);
    EXPECT_EQ(out.reason, "at limit");
}

TEST(ControlPolicy, PerformanceReactsWhereQuietStillHolds) {
    ControlPolicy quiet;
    ControlPolicy performance;
    auto q = quiet.decide(ControlMode::quiet, temps(0, 75, 60), 1.0, std::nullopt);
    auto p = performance.decide(ControlMode::performance, temps(0, 75, 60), 1.0, std::nullopt);
    EXPECT_DOUBLE_EQ(q.duty, 0.0);
    EXPECT_GT(p.duty, 0.2);
}

TEST(ControlPolicy, QuietHybridAnticipatesARisingLoadOnlyWithALeadModel) {
    AdaptiveLeadModel model;
    model.utilizationThresholdPct = 70;
    model.averageLeadMs = 4000;
    ControlPolicy withModel;
    ControlPolicy without;
    PolicyOutput a, b;
    for (int i = 0; i < 4; ++i) {
        TelemetrySample s = temps(i, 55, 50);
        s.cpuUtilizationPct = 95;
        s.totalPowerW = 10.0 + 15.0 * i;  // rising by 15 W a second
        a = withModel.decide(ControlMode::quietHybrid, s, 1.0, model);
        b = without.decide(ControlMode::quietHybrid, s, 1.0, std::nullopt);
    }
    EXPECT_TRUE(a.anticipating);
    EXPECT_GE(a.duty, 0.55);
    EXPECT_FALSE(b.anticipating);
    EXPECT_DOUBLE_EQ(b.duty, 0.0);
}

namespace {
AdaptiveLeadModel fourSecondLead() {
    AdaptiveLeadModel model;
    model.utilizationThresholdPct = 70;
    model.averageLeadMs = 4000;
    return model;
}

// One second of quietHybrid at a cool temperature: busy (95 %) at `power` watts, or idle.
PolicyOutput hybridTick(ControlPolicy& policy, Timestamp t, bool busy, double power) {
    TelemetrySample s = temps(t, 55, 50);
    s.cpuUtilizationPct = busy ? 95 : 5;
    s.totalPowerW = power;
    return policy.decide(ControlMode::quietHybrid, s, 1.0, fourSecondLead());
}
}  // namespace

TEST(ControlPolicy, QuietHybridLeavesABurstShorterThanThreeSecondsAlone) {
    ControlPolicy policy;
    EXPECT_FALSE(hybridTick(policy, 0, false, 10).anticipating);
    EXPECT_FALSE(hybridTick(policy, 1, true, 60).anticipating);
    EXPECT_FALSE(hybridTick(policy, 2, true, 60).anticipating);
    for (Timestamp t = 3; t < 20; ++t) {
        auto out = hybridTick(policy, t, false, 10);
        EXPECT_FALSE(out.anticipating);
        EXPECT_DOUBLE_EQ(out.duty, 0.0);
    }
}

TEST(ControlPolicy, QuietHybridAnticipatesOncePerWorkloadAndAgainAfterALongPause) {
    ControlPolicy policy;
    hybridTick(policy, 0, false, 10);
    bool anticipated = false;
    for (Timestamp t = 1; t <= 4; ++t) anticipated = hybridTick(policy, t, true, 60).anticipating;
    ASSERT_TRUE(anticipated);
    // A two-second dip (shorter than the four-second lead) is the same workload going on.
    hybridTick(policy, 5, false, 10);
    hybridTick(policy, 6, false, 10);
    for (Timestamp t = 7; t <= 12; ++t)
        EXPECT_FALSE(hybridTick(policy, t, true, 60).anticipating) << t;
    // A pause longer than the lead ends it: the next load is new and is anticipated again.
    for (Timestamp t = 13; t <= 22; ++t) hybridTick(policy, t, false, 10);
    anticipated = false;
    for (Timestamp t = 23; t <= 26; ++t)
        anticipated = anticipated || hybridTick(policy, t, true, 60).anticipating;
    EXPECT_TRUE(anticipated);
}

TEST(ControlPolicy, QuietHybridAnticipationEndsWithoutADrop) {
    ControlPolicy policy;
    hybridTick(policy, 0, false, 10);
    PolicyOutput out;
    Timestamp t = 1;
    for (; t <= 4; ++t) out = hybridTick(policy, t, true, 60);
    ASSERT_TRUE(out.anticipating);
    double previous = out.duty;
    // Lead plus five seconds of anticipation, then the ordinary hold and slow fall.
    for (; t <= 60; ++t) {
        out = hybridTick(policy, t, true, 60);
        EXPECT_LE(previous - out.duty, 0.02 + 1e-9) << t;
        previous = out.duty;
    }
    EXPECT_LT(previous, 0.55);
}

TEST(ControlPolicy, QuietFallsFasterTheFurtherItIsUnderTheHysteresisBand) {
    ControlPolicy nearBand;
    ControlPolicy farBelow;
    for (auto* policy : {&nearBand, &farBelow})
        policy->decide(ControlMode::quiet, temps(0, 87, 50), 1.0, std::nullopt);
    const double raised = nearBand.duty();
    for (int i = 1; i <= 11; ++i) {  // the twelve-second hold
        nearBand.decide(ControlMode::quiet, temps(i, 79, 50), 1.0, std::nullopt);
        farBelow.decide(ControlMode::quiet, temps(i, 60, 50), 1.0, std::nullopt);
    }
    // 83 °C setpoint, 3 °C band: 79 °C is one degree under the band's lower edge.
    double near = nearBand.decide(ControlMode::quiet, temps(12, 79, 50), 1.0, std::nullopt).duty;
    double far = farBelow.decide(ControlMode::quiet, temps(12, 60, 50), 1.0, std::nullopt).duty;
    EXPECT_NEAR(raised - near, 0.004, 1e-9);
    EXPECT_NEAR(raised - far, 0.02, 1e-9);
    // Inside the band nothing moves.
    EXPECT_DOUBLE_EQ(nearBand.decide(ControlMode::quiet, temps(13, 81, 50), 1.0, std::nullopt).duty,
                     near);
}

TEST(ControlPolicy, NoTemperatureRunsAtASafeMiddleSpeed) {
    ControlPolicy policy;
    TelemetrySample s;
    EXPECT_GE(policy.decide(ControlMode::quiet, s, 1.0, std::nullopt).duty, 0.6);
}

namespace {
TelemetrySample loaded(Timestamp t, double cpuClock, double util = 90, double power = 60) {
    TelemetrySample s;
    s.timestamp = t;
    s.cpuUtilizationPct = util;
    s.totalPowerW = power;
    s.cpuClockMHz = cpuClock;
    s.thermalPressure = ThermalPressureLevel::nominal;
    return s;
}
}  // namespace

TEST(ThrottleAssessor, HighLoadNeedsUtilisationAndPower) {
    ThrottleAssessor assessor;
    EXPECT_TRUE(assessor.isHighLoad(loaded(0, 4000, 70, 45)));
    EXPECT_FALSE(assessor.isHighLoad(loaded(0, 4000, 69, 80)));
    EXPECT_FALSE(assessor.isHighLoad(loaded(0, 4000, 90, 44)));
    assessor.setMachineHighLoadPowerW(20);
    EXPECT_TRUE(assessor.isHighLoad(loaded(0, 4000, 90, 25)));
}

TEST(ThrottleAssessor, ClockDeficitWarnsOnlyAfterThreeSeconds) {
    ThrottleAssessor assessor;
    EXPECT_FALSE(assessor.assess(loaded(0, 4000)).isWarning);  // learns 4000 MHz
    EXPECT_FALSE(assessor.assess(loaded(1, 3800)).isWarning);  // 5 % under: fine
    EXPECT_FALSE(assessor.assess(loaded(2, 3600)).isWarning);  // 10 % under, starts
    EXPECT_FALSE(assessor.assess(loaded(4, 3600)).isWarning);
    auto warned = assessor.assess(loaded(5, 3600));
    EXPECT_TRUE(warned.isWarning);
    EXPECT_TRUE(warned.cpuClockDeficit);
    ASSERT_TRUE(warned.reason);
    EXPECT_NE(warned.reason->find("CPU clock 3600 MHz"), std::string::npos);
    EXPECT_FALSE(assessor.assess(loaded(6, 3990)).isWarning);  // recovered
}

TEST(ThrottleAssessor, SeriousThermalPressureWarnsAtOnce) {
    ThrottleAssessor assessor;
    auto s = loaded(0, 4000, 10, 5);
    s.thermalPressure = ThermalPressureLevel::serious;
    auto result = assessor.assess(s);
    EXPECT_TRUE(result.isWarning);
    EXPECT_TRUE(result.thermalPressureElevated);
    EXPECT_EQ(result.reason, "Thermal pressure serious");
}

TEST(ThrottleAssessor, LearnedModelReferenceWinsOverOnlineLearning) {
    ThrottleAssessor assessor;
    LearnedModel model;
    model.cpuReferenceClockMHz = 5000;
    assessor.setLearnedModel(model);
    assessor.assess(loaded(0, 4000));
    EXPECT_EQ(assessor.cpuReferenceMHz(), 5000);
    assessor.setLearnedModel(std::nullopt);
    EXPECT_EQ(assessor.cpuReferenceMHz(), 4000);
}
