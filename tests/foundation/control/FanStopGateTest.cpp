#include <gtest/gtest.h>

#include "foundation/control/FanStopGate.h"

using namespace kelvo;

namespace {
std::vector<FanStopGate::Die> cpuAt(double c) {
    return {{c, 88}};
}
}  // namespace

TEST(FanStopGate, StopsOnlyAtTheBottomOfTheRangeWithEveryDieCool) {
    FanStopGate gate;
    FanStopGate::Change change;
    EXPECT_FALSE(gate.decide("f", true, 0.2, cpuAt(50), 0, &change));
    EXPECT_EQ(change, FanStopGate::Change::none);
    EXPECT_FALSE(gate.decide("f", true, 0, {{50, 88}, {80, 85}}, 1, &change));  // a warm GPU
    EXPECT_FALSE(gate.decide("f", true, 0, cpuAt(80), 2, &change));             // 8 °C under
    EXPECT_FALSE(gate.decide("f", false, 0, cpuAt(50), 3, &change));            // not allowed
    EXPECT_FALSE(gate.decide("f", true, 0, {}, 4, &change));                    // nothing seen
    EXPECT_TRUE(gate.decide("f", true, 0, cpuAt(50), 5, &change));
    EXPECT_EQ(change, FanStopGate::Change::stopped);
    EXPECT_TRUE(gate.isStopped("f"));
    EXPECT_EQ(gate.stoppedFans(), std::set<std::string>{"f"});
}

TEST(FanStopGate, AWobbleAroundTheStopLineNeitherRestartsNorStopsAgainAtOnce) {
    FanStopGate gate;
    const double line = 88 - gate.config().coolMarginC;
    int changes = 0;
    // Ten minutes of a die wobbling ±2 °C around the stop line with the policy at the bottom.
    for (int t = 0; t < 600; ++t) {
        FanStopGate::Change change;
        gate.decide("f", true, 0, cpuAt(line + (t % 2 == 0 ? -2 : 2)), t, &change);
        if (change != FanStopGate::Change::none) ++changes;
    }
    EXPECT_EQ(changes, 1);  // it stopped once and stayed stopped
    EXPECT_TRUE(gate.isStopped("f"));
}

TEST(FanStopGate, RestartsWhenADieWarmsButNotBeforeTheMinimumStop) {
    FanStopGate gate;
    const double line = 88 - gate.config().coolMarginC;
    ASSERT_TRUE(gate.decide("f", true, 0, cpuAt(line - 5), 100));
    const double warm = line + gate.config().warmingC + 0.5;  // warmed, not urgent
    ASSERT_LT(warm, 88 - gate.config().urgentMarginC);
    EXPECT_TRUE(gate.decide("f", true, 0, cpuAt(warm), 110));
    FanStopGate::Change change;
    EXPECT_FALSE(
        gate.decide("f", true, 0, cpuAt(warm), 100 + gate.config().minimumStopSeconds, &change));
    EXPECT_EQ(change, FanStopGate::Change::restarted);
    EXPECT_EQ(gate.restartedAt("f"), 100 + gate.config().minimumStopSeconds);
    // Cool again at once: it runs its minimum before stopping again.
    EXPECT_FALSE(gate.decide("f", true, 0, cpuAt(line - 5), 170));
    EXPECT_TRUE(
        gate.decide("f", true, 0, cpuAt(line - 5),
                    100 + gate.config().minimumStopSeconds + gate.config().minimumRunSeconds));
}

// Held still while the policy's duty climbs, the fan would start loud: it starts as soon as the
// policy asks for air, even inside its minimum stop.
TEST(FanStopGate, RestartsAsSoonAsThePolicyAsksForSpeed) {
    FanStopGate gate;
    ASSERT_TRUE(gate.decide("f", true, 0, cpuAt(50), 0));
    EXPECT_TRUE(gate.decide("f", true, 0.03, cpuAt(50), 10));  // under the restart duty
    FanStopGate::Change change;
    EXPECT_FALSE(gate.decide("f", true, 0.06, cpuAt(50), 11, &change));
    EXPECT_EQ(change, FanStopGate::Change::restarted);
}

// Stopped again at the warmth the policy asked for air at, the fan would only start again.
TEST(FanStopGate, AFanThePolicyStartedStopsAgainOnlyWithMoreHeadroomThanThen) {
    FanStopGate gate;
    const double more = gate.config().stopBelowRestartC;
    ASSERT_TRUE(gate.decide("f", true, 0, cpuAt(72), 0));
    ASSERT_FALSE(gate.decide("f", true, 0.06, cpuAt(72), 10));  // 16 °C of headroom
    const double run = 10 + gate.config().minimumRunSeconds;
    EXPECT_FALSE(gate.decide("f", true, 0, cpuAt(71), run));
    EXPECT_FALSE(gate.decide("f", true, 0, cpuAt(72 - more + 0.1), run + 1));
    FanStopGate::Change change;
    EXPECT_TRUE(gate.decide("f", true, 0, cpuAt(72 - more), run + 2, &change));
    EXPECT_EQ(change, FanStopGate::Change::stopped);
    // Started next by a die that warmed, not by the policy: the cool line alone holds again.
    const double line = 88 - gate.config().coolMarginC;
    const double warm = line + gate.config().warmingC + 0.5;
    const double back = run + 2 + gate.config().minimumStopSeconds;
    ASSERT_FALSE(gate.decide("f", true, 0, cpuAt(warm), back));
    EXPECT_TRUE(gate.decide("f", true, 0, cpuAt(line), back + gate.config().minimumRunSeconds));
}

// Started for a burst's steep rise far under the limit, the fan stops again at idle warmth.
TEST(FanStopGate, AFanStartedFarUnderTheLimitStopsAgainOnceTheMachineIsBackAtIdle) {
    FanStopGate gate;
    ASSERT_TRUE(gate.decide("f", true, 0, cpuAt(45), 0));
    ASSERT_FALSE(gate.decide("f", true, 0.2, cpuAt(45), 10));  // 43 °C under the limit
    const double run = 10 + gate.config().minimumRunSeconds;
    const double idle = 88 - gate.config().stopHeadroomAtMostC;
    EXPECT_FALSE(gate.decide("f", true, 0, cpuAt(idle + 0.1), run));
    EXPECT_TRUE(gate.decide("f", true, 0, cpuAt(idle), run + 1));
}

TEST(FanStopGate, AnUrgentNeedOrAWithdrawnPermissionRestartsAtOnce) {
    FanStopGate gate;
    ASSERT_TRUE(gate.decide("a", true, 0, cpuAt(50), 0));
    ASSERT_TRUE(gate.decide("b", true, 0, cpuAt(50), 0));
    ASSERT_TRUE(gate.decide("c", true, 0, cpuAt(50), 0));
    EXPECT_FALSE(gate.decide("a", true, 0, cpuAt(87), 1));    // close to the limit
    EXPECT_FALSE(gate.decide("b", true, 1.0, cpuAt(50), 1));  // cooldown, full speed
    EXPECT_FALSE(gate.decide("c", false, 0, cpuAt(50), 1));   // the user said stop off
}

TEST(FanStopGate, AForgottenFanStartsAfresh) {
    FanStopGate gate;
    ASSERT_TRUE(gate.decide("f", true, 0, cpuAt(50), 0));
    gate.forgetAll();
    EXPECT_FALSE(gate.isStopped("f"));
    EXPECT_TRUE(gate.decide("f", true, 0, cpuAt(50), 1));
}
