#include "foundation/fans/FanCurveLearner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "tests/foundation/fans/FanRig.h"

namespace kelvo {
namespace {

using namespace std::chrono_literals;
using test_support::curvedFanSpeedAt;
using test_support::ManualClock;
using test_support::MemoryStore;
using test_support::Rig;

// A fan that never stops: 2000 rpm at duty 0 up to 5400 at full duty.
double linearFanSpeedAt(int duty) {
    return 2000.0 + 3400.0 * duty / 255.0;
}

}  // namespace

TEST(FanCurve, InterpolatesBetweenLearnedPoints) {
    const FanCurve curve{{26, 0}, {51, 700}, {128, 1500}, {255, 2000}};
    EXPECT_EQ(dutyForRPMOnCurve(curve, 1100), 90);  // halfway between 51 and 128, rounded up
    EXPECT_EQ(dutyForRPMOnCurve(curve, 1500), 128);
    EXPECT_EQ(dutyForRPMOnCurve(curve, 1750), 192);
}

TEST(FanCurve, BelowTheSlowestTurningSpeedGivesTheLowestTurningDuty) {
    const FanCurve curve{{26, 0}, {51, 700}, {128, 1500}, {255, 2000}};
    EXPECT_EQ(dutyForRPMOnCurve(curve, 200), 51);
    EXPECT_EQ(dutyForRPMOnCurve(curve, 1), 51);
}

TEST(FanCurve, AboveTheTopSpeedGivesFullDuty) {
    const FanCurve curve{{51, 700}, {255, 2000}};
    EXPECT_EQ(dutyForRPMOnCurve(curve, 2000), 255);
    EXPECT_EQ(dutyForRPMOnCurve(curve, 5000), 255);
}

TEST(FanCurve, UnusableCurvesGiveNothing) {
    EXPECT_EQ(dutyForRPMOnCurve({}, 1000), std::nullopt);
    EXPECT_EQ(dutyForRPMOnCurve({{255, 2000}}, 1000), std::nullopt);
    EXPECT_EQ(dutyForRPMOnCurve({{26, 0}, {255, 2000}}, 1000), std::nullopt);
    // A tach that ignores the duty cycle.
    EXPECT_EQ(dutyForRPMOnCurve({{51, 1980}, {128, 2000}, {255, 2010}}, 1000), std::nullopt);
    EXPECT_EQ(dutyForRPMOnCurve({{51, 700}, {255, 2000}}, std::nan("")), std::nullopt);
}

TEST(FanCurve, ANoisyDipIsFlattenedSoDutyNeverFallsAsTheTargetRises) {
    const FanCurve curve{{51, 700}, {102, 1300}, {128, 1250}, {166, 1600}, {255, 2000}};
    int previous = 0;
    for (double target = 700; target <= 2000; target += 25) {
        const int duty = *dutyForRPMOnCurve(curve, target);
        EXPECT_GE(duty, previous) << target;
        previous = duty;
    }
}

TEST(FanCurve, StopAndStartDutiesTravelInTheCurveAndStartMarkersAreNoSpeed) {
    FanKnowledge knowledge;
    knowledge.noteTurning(51, 700);
    knowledge.noteTurning(255, 2000);
    knowledge.noteStopped(38);
    knowledge.noteStarted(77);
    const FanCurve curve = knowledge.toCurve();
    EXPECT_EQ(FanKnowledge::fromCurve(curve), knowledge);
    // The markers never count as speeds: the mapping sees two turning points.
    EXPECT_EQ(dutyForRPMOnCurve(curve, 700), 51);
    EXPECT_EQ(dutyForRPMOnCurve(curve, 2000), 255);
}

TEST(FanCurveLearner, NothingIsSweptOnFirstUse) {
    Rig rig;
    rig.learner.setStore(rig.memory.store());
    const int mapped = FanCurveLearner::linearDuty(1000, 0, 2400);
    for (int i = 0; i < 60; ++i) rig.tick(1000);
    // Never more than the target maps to: no full-duty step, no step up at all.
    EXPECT_EQ(rig.duties.front(), mapped);
    EXPECT_LE(*std::max_element(rig.duties.begin(), rig.duties.end()), mapped);
    EXPECT_FALSE(rig.learner.calibrating("fan"));
    // The fan ran faster than asked at the linear map's duty: the duty came down to where it
    // gives the target, a step at a time, and stayed there.
    EXPECT_NEAR(curvedFanSpeedAt(rig.duty), 1000, 1000 * 0.08);
}

TEST(FanCurveLearner, LearnsTheCurveFromOperationAndStoresIt) {
    Rig rig;
    rig.learner.setStore(rig.memory.store());
    // An ordinary few minutes: the loop asks for one speed, then another.
    for (double target : {1200.0, 1800.0, 2300.0, 1500.0, 900.0})
        for (int i = 0; i < 20; ++i) rig.tick(target);
    rig.clock.now += 1min;
    rig.tick(900);
    ASSERT_GE(rig.memory.saves, 1);
    const FanCurve stored = rig.memory.curves.at("fan");
    EXPECT_EQ(rig.learner.curve("fan"), stored);
    const FanKnowledge knowledge = FanKnowledge::fromCurve(stored);
    ASSERT_GE(knowledge.turning.size(), 4u);
    for (const auto& [duty, rpm] : knowledge.turning)
        EXPECT_NEAR(rpm, curvedFanSpeedAt(duty), 1e-9) << duty;
    // Targets now map through it: the fan reaches them closely.
    for (double target : {1100.0, 1600.0, 2000.0}) {
        rig.tick(target);
        const int duty = rig.tick(target);
        EXPECT_NEAR(curvedFanSpeedAt(duty), target, target * 0.08) << target;
    }
}

// Learned while working, the curve ends where the fan has run so far. A target a little above
// that is a little more duty, never full speed.
TEST(FanCurveLearner, ATargetJustAboveTheFastestLearnedSpeedIsNoJumpToFullSpeed) {
    Rig rig;
    for (double target : {1200.0, 1500.0, 1800.0})
        for (int i = 0; i < 20; ++i) rig.tick(target);
    const FanKnowledge knowledge = FanKnowledge::fromCurve(*rig.learner.curve("fan"));
    ASSERT_GE(knowledge.turning.size(), 2u);
    const auto [topDuty, topRPM] = *knowledge.turning.rbegin();
    const int duty = rig.tick(topRPM + 50);
    EXPECT_GT(duty, topDuty);
    EXPECT_LT(curvedFanSpeedAt(duty), topRPM + 200) << duty;
    EXPECT_EQ(rig.tick(rig.maxRPM), 255);
}

TEST(FanCurveLearner, LearnsFromTheFirmwareDrivingTheFan) {
    ManualClock clock;
    MemoryStore memory;
    FanCurveLearner learner(clock.function());
    learner.setStore(memory.store());
    // The firmware holds duty 80 a while, then 160: pwmN reads its duty.
    for (int duty : {80, 160})
        for (int i = 0; i < 5; ++i) {
            learner.observeFirmware("fan", duty, curvedFanSpeedAt(duty));
            clock.now += 1s;
        }
    const auto curve = learner.curve("fan");
    ASSERT_TRUE(curve.has_value());
    EXPECT_EQ(FanKnowledge::fromCurve(*curve).turning,
              (std::map<int, double>{{80, curvedFanSpeedAt(80)}, {160, curvedFanSpeedAt(160)}}));
    EXPECT_EQ(memory.curves.count("fan"), 1u);
    // The firmware stops it (duty 0, the tach settles at 0): a fan the firmware stops.
    EXPECT_FALSE(learner.report("fan").firmwareStops);
    for (int i = 0; i < 5; ++i) {
        learner.observeFirmware("fan", 0, 0.0);
        clock.now += 1s;
    }
    EXPECT_TRUE(learner.report("fan").canStop);
    EXPECT_TRUE(learner.report("fan").firmwareStops);
}

// At launch on a cool machine the firmware already has the fan at rest: the first reading says
// so, before Kelvo's first write could spin it up.
TEST(FanCurveLearner, AFanTheFirmwareHoldsAtRestIsKnownAtTheFirstReading) {
    ManualClock clock;
    FanCurveLearner learner(clock.function());
    learner.observeFirmware("fan", 0, 0.0);
    EXPECT_TRUE(learner.report("fan").firmwareStops);
    EXPECT_TRUE(learner.report("fan").canStop);
    // A fan at rest at a high firmware duty is a stall, not a stop.
    learner.observeFirmware("stuck", 200, 0.0);
    EXPECT_FALSE(learner.report("stuck").firmwareStops);
}

TEST(FanCurveLearner, AStillMovingSpeedIsNotTaken) {
    ManualClock clock;
    FanCurveLearner learner(clock.function());
    double speed = 900;
    for (int i = 0; i < 20; ++i) {
        learner.observeFirmware("fan", 120, speed);
        speed += 200;
        clock.now += 1s;
    }
    EXPECT_EQ(learner.curve("fan"), std::nullopt);
}

// The old start-up sweep's lowest step (duty 26 here) became a floor: every target under its
// speed was sent as duty 26. Now the low end is walked down while the loop asks for the fan's
// minimum, and the lowest stable duty serves it.
TEST(FanCurveLearner, TheLowestSweptStepIsNoFloor) {
    Rig rig;
    rig.fan.speedAt = linearFanSpeedAt;
    rig.fan.stopBelow = 0;
    rig.fan.startDuty = 0;
    rig.maxRPM = 5400;
    FanCurve swept;
    for (int duty : {255, 204, 166, 128, 102, 77, 51, 38, 26})
        swept.emplace_back(duty, linearFanSpeedAt(duty));
    rig.memory.curves["fan"] = swept;
    rig.learner.setStore(rig.memory.store());
    rig.speed = linearFanSpeedAt(26);
    EXPECT_NEAR(*rig.learner.report("fan").minRPM, linearFanSpeedAt(26), 1e-9);
    int previous = 255;
    for (int i = 0; i < 60; ++i) {
        const int duty = rig.tickAtMinimum();
        // Probing the low end only ever goes down: quieter, never louder.
        EXPECT_LE(duty, previous) << "tick " << i;
        previous = duty;
    }
    EXPECT_EQ(rig.duty, 0);
    EXPECT_NEAR(*rig.learner.report("fan").minRPM, 2000, 1e-9);
    // A 2100 rpm request runs at 2100 rpm, not at the old floor's 2347.
    rig.tick(2100);
    EXPECT_NEAR(linearFanSpeedAt(rig.tick(2100)), 2100, 20);
}

TEST(FanCurveLearner, TheWalkDownEndsAtTheStopDutyOfAnOldSweep) {
    Rig rig;
    rig.fan.startDuty = 60;
    // The old sweep ended where the fan stood still (38): that is kept as its stop duty.
    rig.memory.curves["fan"] = {{38, 0},
                                {51, curvedFanSpeedAt(51)},
                                {128, curvedFanSpeedAt(128)},
                                {255, curvedFanSpeedAt(255)}};
    rig.learner.setStore(rig.memory.store());
    // It loads as it was stored.
    EXPECT_EQ(rig.learner.curve("fan"), rig.memory.curves.at("fan"));
    EXPECT_TRUE(rig.learner.report("fan").canStop);
    rig.speed = curvedFanSpeedAt(51);
    for (int i = 0; i < 40; ++i) rig.tickAtMinimum();
    // 51 is 13 over the stop duty: one step down to 43 still turns, and that is close enough.
    EXPECT_EQ(std::count(rig.duties.begin(), rig.duties.end(), 43), 37);
    EXPECT_EQ(*std::min_element(rig.duties.begin(), rig.duties.end()), 43);
    EXPECT_EQ(rig.duty, 43);
    EXPECT_GT(*rig.speed, 0);
}

TEST(FanCurveLearner, AMinimumAboveTheLowestSpeedIsNeverUndercut) {
    Rig rig;
    rig.memory.curves["fan"] = {{51, 700}, {128, 1500}, {255, 2000}};
    rig.learner.setStore(rig.memory.store());
    rig.fan.speedAt = [](int duty) {
        // The stored curve, as the fan really turns.
        if (duty <= 51) return 700.0;
        if (duty <= 128) return 700.0 + 800.0 * (duty - 51) / 77.0;
        return 1500.0 + 500.0 * (duty - 128) / 127.0;
    };
    // The user's minimum puts the target at 1100 rpm: duty 90 holds, and nothing probes below.
    for (int i = 0; i < 120; ++i) EXPECT_EQ(rig.tick(1100), 90) << "tick " << i;
}

TEST(FanCurveLearner, AStoredCurveIsUsedAtOnce) {
    Rig rig;
    rig.memory.curves["fan"] = {{51, 700}, {128, 1500}, {255, 2000}};
    rig.learner.setStore(rig.memory.store());
    EXPECT_EQ(rig.tick(1500), 128);
    EXPECT_EQ(rig.memory.saves, 0);
    const auto report = rig.learner.report("fan");
    EXPECT_EQ(report.minRPM, 700);
    EXPECT_EQ(report.maxRPM, 2000);
    EXPECT_FALSE(report.canStop);
}

TEST(FanCurveLearner, AFanWithoutASpeedReadingKeepsTheLinearMap) {
    Rig rig;
    rig.learner.setStore(rig.memory.store());
    rig.speed.reset();
    for (int i = 0; i < 40; ++i)
        EXPECT_EQ(rig.tick(800), FanCurveLearner::linearDuty(800, 0, 2400));
    EXPECT_EQ(rig.memory.saves, 0);
}

TEST(FanCurveLearner, ATachThatIgnoresTheDutyKeepsTheLinearMap) {
    ManualClock clock;
    MemoryStore memory;
    FanCurveLearner learner(clock.function());
    learner.setStore(memory.store());
    for (int i = 0; i < 120; ++i) {
        EXPECT_EQ(learner.dutyFor("fan", 2000, 2000.0, 0, 2400),
                  FanCurveLearner::linearDuty(2000, 0, 2400));
        clock.now += 1s;
    }
    EXPECT_EQ(learner.report("fan").minRPM, std::nullopt);
}

}  // namespace kelvo

namespace kelvo {
TEST(FanCurveLearner, AStepThatStopsTheFanEndsTheWalkAtOnce) {
    // Nothing known of the low end but the slowest duty seen turning (64). The walk down steps to
    // 56 and 48, turning, then to 40 ... where this fan stops, and needs 60 to start again.
    test_support::Rig rig;
    rig.fan.stopBelow = 44;
    rig.fan.startDuty = 60;
    rig.memory.curves["fan"] = {{64, test_support::curvedFanSpeedAt(64)},
                                {128, test_support::curvedFanSpeedAt(128)},
                                {255, test_support::curvedFanSpeedAt(255)}};
    rig.learner.setStore(rig.memory.store());
    rig.speed = test_support::curvedFanSpeedAt(64);
    int stops = 0;
    bool turning = true;
    for (int i = 0; i < 120; ++i) {
        rig.tickAtMinimum();
        if (turning && rig.speed && *rig.speed <= 0) ++stops;
        turning = rig.speed && *rig.speed > 0;
    }
    // Stopped once, and known from then on: a rotor that reads still has stopped, so the walk
    // does not step there again, and the fan turns at the lowest duty that kept it turning.
    EXPECT_EQ(stops, 1);
    EXPECT_TRUE(rig.learner.report("fan").canStop);
    EXPECT_GT(*rig.speed, 0);
    EXPECT_GE(rig.duty, 44);
}

// A fan started from rest by a kick turns well above what was asked; the walk down to the asked
// speed then slows it a step at a time. Faster than the walk's pace, that fall is heard (3 dB
// within 5 s), on every first start.
TEST(FanCurveLearner, AFanWalkedDownFromItsStartKickIsNotHeardSlowing) {
    test_support::Rig rig;
    // A slow case fan: 200 rpm at duty 0, 12 rpm more a step of duty, never stopping.
    rig.fan.speedAt = [](int duty) { return 200.0 + 12.0 * duty; };
    rig.fan.stopBelow = 0;
    rig.fan.startDuty = 0;
    rig.maxRPM = 3260;
    rig.speed = 0;
    std::vector<double> levels;  // the fan's own level, dB on an arbitrary scale
    for (int i = 0; i < 120; ++i) {
        rig.tick(900);
        if (*rig.speed > 0) levels.push_back(50 * std::log10(*rig.speed));
    }
    ASSERT_FALSE(levels.empty());
    // The kick ran it far faster than asked...
    EXPECT_GT(*std::max_element(levels.begin(), levels.end()) - levels.back(), 6);
    // ...and it came down to the speed asked for, unheard.
    EXPECT_NEAR(*rig.speed, 900, 60);
    for (std::size_t t = 5; t < levels.size(); ++t)
        EXPECT_LT(levels[t - 5] - levels[t], 3) << "second " << t;
}
}  // namespace kelvo
