#include <gtest/gtest.h>

#include <cmath>

#include "foundation/control/ControlPolicy.h"
#include "foundation/control/ThrottleAssessor.h"

using namespace kelvo;

namespace {
TelemetrySample temps(Timestamp t, double cpu, double gpu) {
    TelemetrySample s;
    s.timestamp = t;
    s.cpuTemperatureC = cpu;
    s.gpuTemperatureC = gpu;
    return s;
}

// The same, from a machine whose fans report their range (the widest spans 4000 rpm).
TelemetrySample withFans(TelemetrySample s) {
    s.fanMinRPM = {1000, 800};
    s.fanMaxRPM = {5000, 3000};
    return s;
}
constexpr double kQuietRampDuty = 120.0 / 4000.0;  // 120 rpm a second on the widest fan

// A die warming by half a degree a second from 80 °C: its trend says it will settle far over
// the quiet setpoint (86 °C) long before it gets there.
TelemetrySample warming(Timestamp t) {
    return temps(t, 80 + 0.5 * t, 50);
}
}  // namespace

TEST(ControlPolicy, QuietRisesAboveItsSetpointAndHoldsBeforeFalling) {
    ControlPolicy policy;
    policy.reset(0);
    // 88 °C limit, 2 °C margin: 86.9 °C is 0.9 °C over the quiet setpoint, still under the edge
    // a degree under the limit.
    PolicyOutput up;
    for (int i = -9; i <= 0; ++i)
        up = policy.decide(ControlMode::quiet, temps(i, 86.9, 50), 1.0, std::nullopt);
    EXPECT_GT(up.duty, 0.1);
    EXPECT_EQ(up.reason, "above setpoint");
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

TEST(ControlPolicy, QuietRampsNoFasterThanOneQuietStepASecondWherePerformanceDoesNot) {
    ControlPolicy quiet;
    ControlPolicy performance;
    double previous = 0;
    // Four readings give the trend; from then on every second climbs by the quiet ramp exactly.
    for (int i = 0; i < 10; ++i) {
        double duty =
            quiet.decide(ControlMode::quiet, withFans(warming(i)), 1.0, std::nullopt).duty;
        if (i < 3)
            EXPECT_DOUBLE_EQ(duty, 0.0) << i;
        else
            EXPECT_NEAR(duty - previous, kQuietRampDuty, 1e-9) << i;
        previous = duty;
    }
    // Half a second moves half as far.
    TelemetrySample later = withFans(temps(9.5, 85, 50));
    double half = quiet.decide(ControlMode::quiet, later, 0.5, std::nullopt).duty;
    EXPECT_NEAR(half - previous, kQuietRampDuty / 2, 1e-9);
    // Performance holds clocks: it rises as fast as its gain asks (3 °C over 70 °C and more).
    auto p = performance.decide(ControlMode::performance, withFans(temps(0, 76.5, 50)), 1.0,
                                std::nullopt);
    EXPECT_GT(p.duty, 3 * kQuietRampDuty);
}

TEST(ControlPolicy, QuietWithoutFanRangesRampsAtThreePercentASecond) {
    ControlPolicy policy;
    double duty = 0;
    for (int i = 0; i < 6; ++i)
        duty = policy.decide(ControlMode::quiet, warming(i), 1.0, std::nullopt).duty;
    EXPECT_NEAR(duty, 3 * 0.03, 1e-9);  // three seconds of rise once the trend is known
}

TEST(ControlPolicy, AnIdleMachineIsKeptFurtherUnderTheLimitThanABusyOne) {
    // 84 °C, steady: inside the busy machine's band (setpoint 86 °C), but over the idle machine's
    // setpoint (86 - 6 = 80 °C), because a burst from idle lifts the die faster than the fans
    // can answer. Half busy, the setpoint is half way (83 °C).
    auto at = [](Timestamp t, double cpuC, double utilisation) {
        TelemetrySample s = withFans(temps(t, cpuC, 50));
        s.cpuUtilizationPct = utilisation;
        return s;
    };
    ControlPolicy idle;
    ControlPolicy busy;
    ControlPolicy halfBusy;
    PolicyOutput i, b, h;
    // The reserve waits for the trend: a die that is cooling already needs no fans for it.
    for (Timestamp t = 0; t < 5; ++t) {
        i = idle.decide(ControlMode::quiet, at(t, 84, 0), 1.0, std::nullopt);
        b = busy.decide(ControlMode::quiet, at(t, 84, 100), 1.0, std::nullopt);
        h = halfBusy.decide(ControlMode::quiet, at(t, 84, 50), 1.0, std::nullopt);
    }
    EXPECT_EQ(i.reason, "above setpoint");
    EXPECT_EQ(b.reason, "holding");
    EXPECT_DOUBLE_EQ(b.duty, 0.0);
    EXPECT_EQ(h.reason, "above setpoint");
    EXPECT_GT(h.duty, 0.0);
    // Both rise by the quiet ramp there; at 81.5 °C, between the two setpoints, only the idle
    // machine's fans rise.
    ControlPolicy idleAt81;
    ControlPolicy halfBusyAt81;
    for (Timestamp t = 0; t < 5; ++t) {
        i = idleAt81.decide(ControlMode::quiet, at(t, 81.5, 0), 1.0, std::nullopt);
        h = halfBusyAt81.decide(ControlMode::quiet, at(t, 81.5, 50), 1.0, std::nullopt);
    }
    EXPECT_EQ(i.reason, "above setpoint");
    EXPECT_GT(i.duty, 0.0);
    EXPECT_EQ(h.reason, "holding");
    EXPECT_DOUBLE_EQ(h.duty, 0.0);
    // Without a utilisation reading no reserve is guessed.
    ControlPolicy unknown;
    PolicyOutput u;
    for (Timestamp t = 0; t < 5; ++t)
        u = unknown.decide(ControlMode::quiet, withFans(temps(t, 84, 50)), 1.0, std::nullopt);
    EXPECT_EQ(u.reason, "holding");
}

TEST(ControlPolicy, ADipInASustainedLoadKeepsNoBurstReserve) {
    // A build at 95 % with link steps at 20 %: the load that comes back is the one the heatsink
    // is carrying already, so 84 °C in a dip (over the idle setpoint of 86 - 0.8 * 6) is fine.
    ControlPolicy policy;
    auto at = [](Timestamp t, double util) {
        TelemetrySample s = withFans(temps(t, 84, 40));
        s.cpuUtilizationPct = util;
        s.gpuUtilizationPct = 100;
        return s;
    };
    PolicyOutput out;
    for (Timestamp t = 0; t < 10; ++t) out = policy.decide(ControlMode::quiet, at(t, 95), 1.0, {});
    for (Timestamp t = 10; t < 30; ++t) out = policy.decide(ControlMode::quiet, at(t, 20), 1.0, {});
    EXPECT_EQ(out.reason, "holding");
    EXPECT_DOUBLE_EQ(out.duty, 0.0);
    // A machine that has been at 20 % all along keeps the reserve and raises the fans.
    ControlPolicy light;
    for (Timestamp t = 0; t < 30; ++t) out = light.decide(ControlMode::quiet, at(t, 20), 1.0, {});
    EXPECT_EQ(out.reason, "above setpoint");
}

TEST(ControlPolicy, TheBurstReserveIsTheJumpThisDieWasSeenToMake) {
    // The CPU stepped from 10 % to 60 % load and its die went from 50 to 60 °C: a full load
    // from idle lifts it by 20 °C. At 60 % a burst can still bring 8 °C, so 79 °C is over the
    // setpoint (86 - 8 = 78 °C) while the GPU's guess is unchanged.
    ControlPolicy policy;
    auto at = [](Timestamp t, double cpuC, double cpuUtil) {
        TelemetrySample s = withFans(temps(t, cpuC, 40));
        s.cpuUtilizationPct = cpuUtil;
        s.gpuUtilizationPct = 100;
        return s;
    };
    for (Timestamp t = 0; t < 5; ++t) policy.decide(ControlMode::quiet, at(t, 50, 10), 1.0, {});
    for (Timestamp t = 5; t < 12; ++t) policy.decide(ControlMode::quiet, at(t, 60, 60), 1.0, {});
    PolicyOutput out;
    for (Timestamp t = 12; t < 20; ++t)
        out = policy.decide(ControlMode::quiet, at(t, 79, 60), 1.0, {});
    EXPECT_EQ(out.reason, "above setpoint");
    ControlPolicy cooler;
    for (Timestamp t = 0; t < 5; ++t) cooler.decide(ControlMode::quiet, at(t, 50, 10), 1.0, {});
    for (Timestamp t = 5; t < 12; ++t) cooler.decide(ControlMode::quiet, at(t, 60, 60), 1.0, {});
    for (Timestamp t = 12; t < 20; ++t)
        out = cooler.decide(ControlMode::quiet, at(t, 77, 60), 1.0, {});
    // Under its setpoint. (The jump to 77 °C looked, for its first seconds, like a die heading
    // for its limit, so the fans may be easing back from that.)
    EXPECT_LT(cooler.drive(), 0);
    EXPECT_NE(out.reason, "above setpoint");
}

TEST(ControlPolicy, NearTheHardLimitTheFansRiseSteeplyButContinuously) {
    // 88 °C limit, the edge a degree under it: past the edge the rise grows with the square of
    // the distance, so each step closer climbs much faster than the one before.
    auto rise = [](double cpuC) {
        ControlPolicy policy;
        return policy.decide(ControlMode::quiet, temps(0, cpuC, 40), 1.0, std::nullopt).duty;
    };
    EXPECT_EQ(
        ControlPolicy().decide(ControlMode::quiet, temps(0, 87.5, 40), 1.0, std::nullopt).reason,
        "near limit");
    EXPECT_GT(rise(87.5), 2 * rise(87.25));
    EXPECT_GT(rise(88.0), 3 * rise(87.5));
    EXPECT_GE(rise(90.0), 1.0);
    // No cliff at the edge: six millidegrees past it add next to nothing.
    EXPECT_LT(std::abs(rise(87.006) - rise(87.0)), 1e-3);
}

TEST(ControlPolicy, SixMillidegreesAtTheEdgeChangeTenSecondsOfControlByAlmostNothing) {
    auto tenSeconds = [](double cpuC) {
        ControlPolicy policy;
        double duty = 0;
        for (int i = 0; i < 10; ++i)
            duty = policy.decide(ControlMode::quiet, withFans(temps(i, cpuC, 40)), 1.0, {}).duty;
        return duty;
    };
    const double at = tenSeconds(87.0);
    const double over = tenSeconds(87.006);
    EXPECT_GT(at, 0.0);
    EXPECT_LT(over - at, 0.005);
}

TEST(ControlPolicy, ShortBurstsOnASteadyLoadDoNotSpendTheReserve) {
    // A video call: 25 % steady, a five-second burst to 80 % once a minute lifting the die by
    // 11 °C (20 °C for a full load). After a burst the next one must still find its reserve, so
    // 78 °C at 25 % is over the setpoint (86 - 0.55 * 20 = 75 °C) and the fans rise; with the
    // burst taken as the base load, as a minute's peak would, they would hold.
    ControlPolicy policy;
    auto at = [](Timestamp t, double cpuC, double util) {
        TelemetrySample s = withFans(temps(t, cpuC, 40));
        s.cpuUtilizationPct = util;
        s.gpuUtilizationPct = 100;
        return s;
    };
    PolicyOutput out;
    Timestamp t = 0;
    for (int minute = 0; minute < 2; ++minute) {
        for (int i = 0; i < 55; ++i, ++t)
            out = policy.decide(ControlMode::quiet, at(t, 60, 25), 1, {});
        for (int i = 0; i < 5; ++i, ++t)
            out = policy.decide(ControlMode::quiet, at(t, 71, 80), 1, {});
    }
    EXPECT_DOUBLE_EQ(out.duty, 0.0);
    for (int i = 0; i < 20; ++i, ++t) out = policy.decide(ControlMode::quiet, at(t, 78, 25), 1, {});
    EXPECT_EQ(out.reason, "above setpoint");
    EXPECT_GT(out.duty, 0.0);
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
    model.averageLeadMs = 60000;
    ControlPolicy withModel;
    ControlPolicy without;
    PolicyOutput a, b;
    bool anticipated = false;
    double previous = 0;
    // A sustained load warming the die by a quarter of a degree a second: with the lead model
    // the trend is extrapolated over the whole minute-long lead, so the fans start well before
    // the plain 30-second look ahead sees the setpoint coming.
    for (int i = 0; i < 40; ++i) {
        TelemetrySample s = withFans(temps(i, 65 + 0.25 * i, 50));
        s.cpuUtilizationPct = 95;
        s.totalPowerW = 10.0 + 15.0 * std::min(i, 4);  // rising by 15 W a second, then steady
        a = withModel.decide(ControlMode::quietHybrid, s, 1.0, model);
        b = without.decide(ControlMode::quietHybrid, s, 1.0, std::nullopt);
        anticipated = anticipated || a.anticipating;
        // The anticipation ramps the fans up like any quiet rise, without a step.
        EXPECT_LE(a.duty - previous, kQuietRampDuty + 1e-9) << i;
        previous = a.duty;
        EXPECT_FALSE(b.anticipating);
        EXPECT_DOUBLE_EQ(b.duty, 0.0) << i;
    }
    EXPECT_TRUE(anticipated);
    EXPECT_GT(a.duty, 3 * kQuietRampDuty);
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

TEST(ControlPolicy, QuietHybridLeavesABurstShorterThanEightSecondsAlone) {
    ControlPolicy policy;
    EXPECT_FALSE(hybridTick(policy, 0, false, 10).anticipating);
    for (Timestamp t = 1; t <= 7; ++t) EXPECT_FALSE(hybridTick(policy, t, true, 60).anticipating);
    for (Timestamp t = 8; t < 25; ++t) {
        auto out = hybridTick(policy, t, false, 10);
        EXPECT_FALSE(out.anticipating);
        EXPECT_DOUBLE_EQ(out.duty, 0.0);
    }
}

TEST(ControlPolicy, QuietHybridAnticipatesOncePerWorkloadAndAgainAfterALongPause) {
    ControlPolicy policy;
    hybridTick(policy, 0, false, 10);
    bool anticipated = false;
    for (Timestamp t = 1; t <= 9; ++t) anticipated = hybridTick(policy, t, true, 60).anticipating;
    ASSERT_TRUE(anticipated);
    // A two-second dip (shorter than the four-second lead) is the same workload going on.
    hybridTick(policy, 10, false, 10);
    hybridTick(policy, 11, false, 10);
    for (Timestamp t = 12; t <= 30; ++t)
        EXPECT_FALSE(hybridTick(policy, t, true, 60).anticipating) << t;
    // A pause longer than the lead ends it: the next load is new and is anticipated again.
    for (Timestamp t = 31; t <= 40; ++t) hybridTick(policy, t, false, 10);
    anticipated = false;
    for (Timestamp t = 41; t <= 49; ++t)
        anticipated = anticipated || hybridTick(policy, t, true, 60).anticipating;
    EXPECT_TRUE(anticipated);
}

TEST(ControlPolicy, QuietHybridAnticipationHoldsTheFansAndEndsWithoutADrop) {
    ControlPolicy policy;
    policy.reset(0.5);
    hybridTick(policy, 0, false, 10);
    PolicyOutput out;
    Timestamp t = 1;
    for (; t <= 9; ++t) out = hybridTick(policy, t, true, 60);
    ASSERT_TRUE(out.anticipating);
    const double held = out.duty;
    // While the load builds up the fans do not come down, cool as the die still is.
    for (; t <= 15; ++t) EXPECT_DOUBLE_EQ(hybridTick(policy, t, true, 60).duty, held) << t;
    // Lead plus five seconds of anticipation, then the ordinary hold and slow fall.
    double previous = held;
    for (; t <= 60; ++t) {
        out = hybridTick(policy, t, true, 60);
        EXPECT_LE(previous - out.duty, 0.02 + 1e-9) << t;
        previous = out.duty;
    }
    EXPECT_LT(previous, held);
}

TEST(ControlPolicy, QuietFallsFasterTheFurtherItIsUnderItsSetpoint) {
    // 86 °C setpoint, 3 °C band: 83.5 °C is inside the band, 83.1 just inside its lower edge,
    // 82.9 just under it, 82 a degree under it, 60 far under it.
    const std::vector<double> under{83.5, 83.1, 82.9, 82, 60};
    std::vector<ControlPolicy> policies(under.size());
    for (auto& policy : policies)
        for (int i = -9; i <= 0; ++i)
            policy.decide(ControlMode::quiet, temps(i, 86.9, 50), 1.0, std::nullopt);
    const double raised = policies.front().duty();
    ASSERT_GT(raised, 0.1);
    for (int i = 1; i <= 11; ++i)  // the twelve-second hold
        for (std::size_t p = 0; p < under.size(); ++p)
            EXPECT_DOUBLE_EQ(
                policies[p]
                    .decide(ControlMode::quiet, temps(i, under[p], 50), 1.0, std::nullopt)
                    .duty,
                raised);
    std::vector<double> fell;
    for (std::size_t p = 0; p < under.size(); ++p) {
        const auto out =
            policies[p].decide(ControlMode::quiet, temps(12, under[p], 50), 1.0, std::nullopt);
        EXPECT_EQ(out.reason, under[p] > 83 ? "settling" : "below setpoint") << under[p];
        fell.push_back(raised - out.duty);
    }
    // Inside the band a fifth of a percent a second per degree past the first half degree under
    // the setpoint; a fall under the band never slower than that creep at its edge; two percent a
    // second at most.
    EXPECT_NEAR(fell[0], 0.002 * 2.0, 1e-9);
    EXPECT_NEAR(fell[1], 0.002 * 2.4, 1e-9);
    EXPECT_GE(fell[2], fell[1]);
    EXPECT_NEAR(fell[3], 0.002 * 3.5, 1e-9);
    EXPECT_NEAR(fell[4], 0.02, 1e-9);
    for (std::size_t p = 1; p < fell.size(); ++p) EXPECT_GT(fell[p], fell[p - 1]) << under[p];
}

// The quiet ramp: each fan's own level at most this many dB a second.
constexpr double kQuietRampDb = 0.45;

// Each fan's own level (the fan law: 50·log10 of its speed) from one duty to the next.
double levelStepDb(const TelemetrySample& s, std::size_t fan, double from, double to) {
    const double span = s.fanMaxRPM[fan] - s.fanMinRPM[fan];
    return 50 * std::log10((s.fanMinRPM[fan] + to * span) / (s.fanMinRPM[fan] + from * span));
}

TEST(ControlPolicy, QuietMovesNoFansOwnLevelByMoreThanItsRampInDecibels) {
    // 84 °C and steady on an idle machine: over its setpoint (80 °C) but far from its limit, so
    // the fans have time to come up unheard. The fan at 1000 rpm is the one a listener would hear
    // first: 120 rpm is nearly 2.5 dB on it.
    ControlPolicy policy;
    double previous = 0;
    for (Timestamp t = 0; t < 60; ++t) {
        TelemetrySample s = withFans(temps(t, 84, 50));
        s.cpuUtilizationPct = 0;
        s.fanCurrentRPM = {1000 + previous * 4000, 800 + previous * 2200};
        const auto out = policy.decide(ControlMode::quiet, s, 1.0, std::nullopt);
        // The reserve waits for the trend's first seconds.
        if (t >= 6) {
            EXPECT_EQ(out.reason, "above setpoint") << t;
        }
        for (std::size_t fan = 0; fan < 2; ++fan)
            EXPECT_LE(levelStepDb(s, fan, previous, out.duty), kQuietRampDb + 1e-9) << t;
        previous = out.duty;
    }
    // Not held still: a minute later the fans are well up, about 30 dB on the slower one.
    EXPECT_GT(previous, 0.2);
    EXPECT_LT(previous, 60 * kQuietRampDuty);
}

TEST(ControlPolicy, AQuietRiseTakesMoreOfTheRampInRpmTheFurtherPastTheLimitTheDieIsHeading) {
    // Three dies past their setpoint (86 °C), their courses over the next 30 s ending under the
    // limit (88 °C), a little over it and far over it.
    struct Die {
        double from = 0;
        double perSecond = 0;
        ControlPolicy policy{};
        double before = 0;
        double after = 0;
        TelemetrySample last;
    };
    std::vector<Die> dies(3);
    const double from[] = {86.2, 84, 80};
    const double perSecond[] = {0.02, 0.15, 0.5};
    for (std::size_t d = 0; d < dies.size(); ++d) {
        Die& die = dies[d];
        die.from = from[d];
        die.perSecond = perSecond[d];
        for (Timestamp t = 0; t <= 9; ++t) {
            die.before = die.policy.duty();
            die.last = withFans(temps(t, die.from + die.perSecond * t, 50));
            die.after = die.policy.decide(ControlMode::quiet, die.last, 1.0, std::nullopt).duty;
        }
    }
    auto loudestStep = [](const Die& die) {
        return std::max(levelStepDb(die.last, 0, die.before, die.after),
                        levelStepDb(die.last, 1, die.before, die.after));
    };
    // Under the limit all along: the ramp in dB on the fan that moves most.
    EXPECT_NEAR(loudestStep(dies[0]), kQuietRampDb, 1e-6);
    // A little over it: more than that, less than the ramp in rpm.
    EXPECT_GT(loudestStep(dies[1]), kQuietRampDb + 1e-3);
    EXPECT_LT(dies[1].after - dies[1].before, kQuietRampDuty - 1e-3);
    // Far over it: the whole ramp in rpm.
    EXPECT_NEAR(dies[2].after - dies[2].before, kQuietRampDuty, 1e-9);
}

TEST(ControlPolicy, AFanStandingStillStartsByTheQuietRampInRpm) {
    // A fan the stop held still is heard when it starts however gently it is asked: a start
    // held back to the ramp in dB would only leave it still while the die warms.
    auto at = [](Timestamp t, double rpm) {
        TelemetrySample s = withFans(temps(t, 84, 50));
        s.cpuUtilizationPct = 0;
        s.fanCurrentRPM = {rpm, rpm};
        return s;
    };
    ControlPolicy stopped;
    ControlPolicy turning;
    for (Timestamp t = 0; t < 9; ++t) {
        stopped.decide(ControlMode::quiet, at(t, 0), 1.0, std::nullopt);
        turning.decide(ControlMode::quiet, at(t, 1000), 1.0, std::nullopt);
    }
    const double stillBefore = stopped.duty();
    const double slowBefore = turning.duty();
    const double still = stopped.decide(ControlMode::quiet, at(9, 0), 1.0, std::nullopt).duty;
    const double slow = turning.decide(ControlMode::quiet, at(9, 1000), 1.0, std::nullopt).duty;
    EXPECT_NEAR(still - stillBefore, kQuietRampDuty, 1e-9);
    EXPECT_GT(slow - slowBefore, 0.0);
    EXPECT_LT(slow - slowBefore, kQuietRampDuty / 2);
}

TEST(ControlPolicy, QuietFallsNoFasterThanItsRampInDecibelsOnAnyFan) {
    ControlPolicy policy;
    policy.reset(0.5);
    // 72 °C, far under the band (setpoint 86 °C, 3 °C band): the fall is the gentler of its own
    // rule (two percent a second) and the ramp in dB on each fan.
    double previous = 0.5;
    bool gentler = false;
    for (Timestamp t = 0; t < 60; ++t) {
        const auto s = withFans(temps(t, 72, 50));
        const auto out = policy.decide(ControlMode::quiet, s, 1.0, std::nullopt);
        EXPECT_EQ(out.reason, "below setpoint") << t;
        for (std::size_t fan = 0; fan < 2; ++fan)
            EXPECT_GE(levelStepDb(s, fan, previous, out.duty), -kQuietRampDb - 1e-9) << t;
        gentler = gentler || previous - out.duty < 0.02 - 1e-9;
        previous = out.duty;
    }
    // Low in the range the ramp in dB is the tighter of the two.
    EXPECT_TRUE(gentler);
    EXPECT_LT(previous, 0.2);
}

namespace {
// A quiet policy on an idle die at 80 °C that then jumps past the edge under its 88 °C limit for
// five seconds: the steep rise near the limit takes the fans well up.
double floodedNearTheLimit(ControlPolicy& policy) {
    for (Timestamp t = 0; t < 10; ++t)
        policy.decide(ControlMode::quiet, withFans(temps(t, 80, 50)), 1.0, std::nullopt);
    EXPECT_DOUBLE_EQ(policy.duty(), 0.0);
    bool nearLimit = false;
    for (Timestamp t = 10; t < 15; ++t)
        nearLimit =
            policy.decide(ControlMode::quiet, withFans(temps(t, 88.5, 50)), 1.0, std::nullopt)
                    .reason == "near limit" ||
            nearLimit;
    EXPECT_TRUE(nearLimit);
    return policy.duty();
}
}  // namespace

TEST(ControlPolicy, AfterTheLimitForcedARiseQuietEasesBackAtItsRampOnceTheDieIsUnderItsSetpoint) {
    ControlPolicy policy;
    const double flooded = floodedNearTheLimit(policy);
    ASSERT_GT(flooded, 0.3);
    // Back at 84.5 °C: inside the band under the setpoint (86 °C), where the policy's own rules
    // hold the fans or creep them down over minutes, and 3.5 °C under the limit.
    ControlPolicy crept;
    crept.reset(flooded);
    double previous = flooded;
    double creptDuty = flooded;
    for (Timestamp t = 15; t < 45; ++t) {
        const auto s = withFans(temps(t, 84.5, 50));
        const auto out = policy.decide(ControlMode::quiet, s, 1.0, std::nullopt);
        EXPECT_EQ(out.reason, "easing after the limit") << t;
        // Falling every second, and never faster than the quiet ramp on either fan.
        EXPECT_LT(out.duty, previous) << t;
        for (std::size_t fan = 0; fan < 2; ++fan)
            EXPECT_GE(levelStepDb(s, fan, previous, out.duty), -kQuietRampDb - 1e-9) << t;
        previous = out.duty;
        creptDuty = crept.decide(ControlMode::quiet, s, 1.0, std::nullopt).duty;
    }
    // Half a minute on, the same fans without the limit's rise behind them have barely moved.
    EXPECT_LT(previous, creptDuty - 0.2);
    // No lower than where the limit found them: from there the policy's own rules go on.
    for (Timestamp t = 45; t < 200; ++t)
        previous =
            policy.decide(ControlMode::quiet, withFans(temps(t, 84.5, 50)), 1.0, std::nullopt).duty;
    EXPECT_NEAR(previous, 0.0, 1e-9);
}

TEST(ControlPolicy, EasingAfterTheLimitWaitsForTheDieToClearTheLimitAndEndsWhereItClimbs) {
    ControlPolicy policy;
    floodedNearTheLimit(policy);
    // Falling a quarter of a degree a second: heading under the setpoint at once, but no easing
    // while it is still within 2 °C of the limit.
    bool eased = false;
    Timestamp t = 15;
    for (double c = 88.25; c > 84.5; c -= 0.25, ++t) {
        const auto out =
            policy.decide(ControlMode::quiet, withFans(temps(t, c, 50)), 1.0, std::nullopt);
        if (c > 86.05) {
            EXPECT_NE(out.reason, "easing after the limit") << c;
        }
        eased = eased || out.reason == "easing after the limit";
    }
    EXPECT_TRUE(eased);
    // Climbing gently over the setpoint, never near the limit: the fans are where the load needs
    // them, and the easing is over for good, even once the die is back under the setpoint.
    PolicyOutput out;
    for (int i = 0; i < 10; ++i, ++t)
        out = policy.decide(ControlMode::quiet, withFans(temps(t, 84.5 + 0.1 * i, 50)), 1.0,
                            std::nullopt);
    EXPECT_EQ(out.reason, "above setpoint");
    for (int i = 0; i < 30; ++i, ++t)
        EXPECT_NE(policy.decide(ControlMode::quiet, withFans(temps(t, 84.5, 50)), 1.0, std::nullopt)
                      .reason,
                  "easing after the limit")
            << t;
}

TEST(ControlPolicy, QuietHoldsStillWithinHalfADegreeOfItsSetpoint) {
    ControlPolicy policy;
    for (int i = -9; i <= 0; ++i)
        policy.decide(ControlMode::quiet, temps(i, 86.9, 50), 1.0, std::nullopt);
    const double raised = policy.duty();
    PolicyOutput out;
    for (int i = 1; i <= 40; ++i)
        out = policy.decide(ControlMode::quiet, temps(i, 85.7, 50), 1.0, std::nullopt);
    EXPECT_EQ(out.reason, "holding");
    EXPECT_DOUBLE_EQ(out.duty, raised);
}

// A die whose device already runs flat out and whose course has levelled off has no burst to come
// and moves only as its heatsink does: quiet holds it a degree under its limit instead of two. A
// device with headroom, a die still heading up, or a load that cannot be read keep the whole
// margin.
TEST(ControlPolicy, AFlatOutDieThatHasLevelledOffIsHeldCloserToItsLimit) {
    struct Settled {
        double drive = 0;
        std::string reason;
        // The steep rise near the limit took over at some tick once the course was known.
        bool nearLimit = false;
    };
    auto settle = [](std::optional<double> util, double cpuC, double perSecond = 0) {
        ControlPolicy policy;
        Settled settled;
        for (int t = 0; t < 30; ++t) {
            TelemetrySample s = temps(t, cpuC + perSecond * t, 60);
            s.cpuUtilizationPct = util;
            s.gpuUtilizationPct = util;
            settled.reason = policy.decide(ControlMode::quiet, s, 1.0, std::nullopt).reason;
            settled.nearLimit = settled.nearLimit || (t >= 10 && settled.reason == "near limit");
        }
        settled.drive = policy.drive();
        return settled;
    };
    // 88 °C limit: flat out and level at 86.5 °C, half a degree under its setpoint of 87.
    const Settled flatOut = settle(100.0, 86.5);
    EXPECT_NEAR(flatOut.drive, -0.5, 0.05);
    EXPECT_NE(flatOut.reason, "above setpoint");
    // Half the device idle: the whole margin and the burst reserve (6 °C × half, no jump seen
    // yet) under the limit, a setpoint of 83.
    EXPECT_NEAR(settle(50.0, 86.5).drive, 3.5, 0.05);
    // Its load unread: the whole margin, a setpoint of 86.
    const Settled unread = settle(std::nullopt, 86.5);
    EXPECT_NEAR(unread.drive, 0.5, 0.05);
    EXPECT_EQ(unread.reason, "above setpoint");
    // Still heading up by a tenth of a degree a second, 3 °C over the trend's 30 s: the whole
    // margin, against where the course leads.
    const double last = 80 + 0.1 * 29;
    EXPECT_NEAR(settle(100.0, 80, 0.1).drive, last + 3 - 86, 0.1);
    // The steep rise near the limit starts inside the margin the die is held at: at 87.2 °C a
    // flat-out die held a degree under its limit rises gently, one held two degrees under is
    // past the edge.
    EXPECT_FALSE(settle(100.0, 87.2).nearLimit);
    EXPECT_TRUE(settle(std::nullopt, 87.2).nearLimit);
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
