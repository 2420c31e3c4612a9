#include "foundation/fans/FanCurveLearner.h"

#include <gtest/gtest.h>

#include <cmath>

#include "foundation/fans/LocalFanController.h"
#include "tests/foundation/LinuxFakeSysfs.h"

namespace kelvo {
namespace {

using namespace std::chrono_literals;
using Clock = FanCurveLearner::Clock;

// A fan that stalls below duty 40 and flattens out near the top, like most case fans: nothing
// like the straight line the linear map assumes.
double fanSpeedAt(int duty) {
    if (duty < 40) return 0;
    return 2400.0 * std::sqrt((duty - 40) / 215.0) + 450.0 * (1.0 - (duty - 40) / 215.0);
}

struct ManualClock {
    Clock::time_point now{};
    FanCurveLearner::Now function() {
        return [this] { return now; };
    }
};

struct MemoryStore {
    std::map<std::string, FanCurve> curves;
    int saves = 0;
    FanCurveStore store() {
        return {[this](const std::string& id) -> std::optional<FanCurve> {
                    const auto it = curves.find(id);
                    if (it == curves.end()) return std::nullopt;
                    return it->second;
                },
                [this](const std::string& id, const FanCurve& curve) {
                    curves[id] = curve;
                    ++saves;
                    return true;
                }};
    }
};

// Drives one fan once a second: the fan follows its last duty with a one-second lag.
struct Rig {
    ManualClock clock;
    MemoryStore memory;
    FanCurveLearner learner{clock.function()};
    std::optional<double> speed = 900;
    int duty = 0;
    std::vector<int> duties;

    int tick(double target, double maxRPM = 2400) {
        duty = learner.dutyFor("fan", target, speed, 0, maxRPM);
        duties.push_back(duty);
        clock.now += 1s;
        if (speed) speed = fanSpeedAt(duty);
        return duty;
    }
};

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

TEST(FanCurveLearner, WithoutAStoreTheLinearMapStandsAndNothingIsSwept) {
    ManualClock clock;
    FanCurveLearner learner(clock.function());
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(learner.dutyFor("fan", 1200, 1000.0, 0, 2400), 128);
        clock.now += 1s;
    }
    EXPECT_FALSE(learner.sweeping("fan"));
    EXPECT_EQ(learner.curve("fan"), std::nullopt);
}

TEST(FanCurveLearner, SweepsDownFromFullDutyUntilTheFanStopsThenStoresTheCurve) {
    Rig rig;
    rig.learner.setStore(rig.memory.store());
    for (int i = 0; i < 120 && rig.memory.saves == 0; ++i) rig.tick(800);
    ASSERT_EQ(rig.memory.saves, 1);
    // Full duty first, then never up again until the sweep ends (the last duty is the curve's).
    EXPECT_EQ(rig.duties.front(), 255);
    EXPECT_TRUE(std::is_sorted(rig.duties.rbegin() + 1, rig.duties.rend()));
    // Each step is held at least two seconds.
    EXPECT_GE(std::count(rig.duties.begin(), rig.duties.end(), 128), 2);

    const FanCurve curve = rig.memory.curves.at("fan");
    EXPECT_EQ(rig.learner.curve("fan"), curve);
    // It ended at the first step where the fan stood still (38 < 40), and went no lower.
    EXPECT_EQ(curve.front(), (std::pair<double, double>{38, 0}));
    EXPECT_EQ(std::count(rig.duties.begin(), rig.duties.end(), 26), 0);
    for (const auto& [duty, rpm] : curve)
        EXPECT_NEAR(rpm, fanSpeedAt(static_cast<int>(duty)), 1e-9) << duty;

    // From now on targets map through the curve: the fan reaches them, close to exactly.
    for (double target : {1000.0, 1500.0, 2000.0, 2300.0}) {
        const int duty = rig.tick(target);
        EXPECT_GE(fanSpeedAt(duty), target * 0.97) << target;
        EXPECT_LE(fanSpeedAt(duty), target * 1.08) << target;
    }
    // Below the slowest speed the fan turns at, the slowest turning step: never a stop.
    EXPECT_EQ(rig.tick(300), 51);
}

TEST(FanCurveLearner, WaitsForACalmMomentBeforeSweeping) {
    Rig rig;
    rig.learner.setStore(rig.memory.store());
    // 2000 of 2400 RPM: the machine needs air, the linear map serves it.
    for (int i = 0; i < 20; ++i) EXPECT_EQ(rig.tick(2000), 213);
    EXPECT_FALSE(rig.learner.sweeping("fan"));
    EXPECT_EQ(rig.tick(1000), 255);
    EXPECT_TRUE(rig.learner.sweeping("fan"));
}

TEST(FanCurveLearner, ARisingTargetAbandonsTheSweepAndItIsRetriedLater) {
    Rig rig;
    rig.learner.setStore(rig.memory.store());
    for (int i = 0; i < 12; ++i) rig.tick(800);
    ASSERT_TRUE(rig.learner.sweeping("fan"));
    ASSERT_LT(rig.duty, 255);
    // The loop asks for much more air: it gets it at once.
    EXPECT_EQ(rig.tick(1600), FanCurveLearner::linearDuty(1600, 0, 2400));
    EXPECT_FALSE(rig.learner.sweeping("fan"));
    // Calm again, but the retry waits five minutes.
    rig.clock.now += 4min;
    EXPECT_EQ(rig.tick(800), FanCurveLearner::linearDuty(800, 0, 2400));
    EXPECT_FALSE(rig.learner.sweeping("fan"));
    rig.clock.now += 1min;
    EXPECT_EQ(rig.tick(800), 255);
    EXPECT_TRUE(rig.learner.sweeping("fan"));
    EXPECT_EQ(rig.memory.saves, 0);
}

TEST(FanCurveLearner, AStoredCurveIsUsedWithoutSweeping) {
    Rig rig;
    rig.memory.curves["fan"] = {{51, 700}, {128, 1500}, {255, 2000}};
    rig.learner.setStore(rig.memory.store());
    EXPECT_EQ(rig.tick(1500), 128);
    EXPECT_FALSE(rig.learner.sweeping("fan"));
    EXPECT_EQ(rig.memory.saves, 0);
}

TEST(FanCurveLearner, AnUnusableStoredCurveIsLearnedAgain) {
    Rig rig;
    rig.memory.curves["fan"] = {{255, 2000}};
    rig.learner.setStore(rig.memory.store());
    EXPECT_EQ(rig.tick(800), 255);
    EXPECT_TRUE(rig.learner.sweeping("fan"));
}

TEST(FanCurveLearner, ReleasingTheFanMidSweepStartsOverNextTime) {
    Rig rig;
    rig.learner.setStore(rig.memory.store());
    for (int i = 0; i < 8; ++i) rig.tick(800);
    ASSERT_LT(rig.duty, 255);
    rig.learner.released("fan");
    EXPECT_FALSE(rig.learner.sweeping("fan"));
    EXPECT_EQ(rig.tick(800), 255);
}

TEST(FanCurveLearner, AFanWithoutASpeedReadingKeepsTheLinearMap) {
    Rig rig;
    rig.learner.setStore(rig.memory.store());
    rig.speed.reset();
    rig.tick(800);
    for (int i = 0; i < 40; ++i)
        EXPECT_EQ(rig.tick(800), FanCurveLearner::linearDuty(800, 0, 2400));
    EXPECT_EQ(rig.memory.saves, 0);
}

TEST(FanCurveLearner, ATachThatIgnoresTheDutyIsNotLearned) {
    ManualClock clock;
    MemoryStore memory;
    FanCurveLearner learner(clock.function());
    learner.setStore(memory.store());
    for (int i = 0; i < 120; ++i) {
        learner.dutyFor("fan", 800, 2000.0, 0, 2400);
        clock.now += 1s;
    }
    EXPECT_FALSE(learner.sweeping("fan"));
    EXPECT_EQ(memory.saves, 0);
    EXPECT_EQ(learner.dutyFor("fan", 800, 2000.0, 0, 2400),
              FanCurveLearner::linearDuty(800, 0, 2400));
}

TEST(FanCurveLearner, ASpeedStillMovingIsWaitedForUpToTheLongestSettle) {
    ManualClock clock;
    MemoryStore memory;
    FanCurveLearner learner(clock.function());
    learner.setStore(memory.store());
    EXPECT_EQ(learner.dutyFor("fan", 800, 900.0, 0, 2400), 255);
    // The speed keeps climbing by 200 RPM a second: the step is held for the full 8 s.
    double speed = 900;
    int heldAtFull = 0;
    while (learner.dutyFor("fan", 800, speed, 0, 2400) == 255) {
        ++heldAtFull;
        speed += 200;
        clock.now += 1s;
        ASSERT_LT(heldAtFull, 20);
    }
    EXPECT_EQ(heldAtFull, 8);
}

// The local back-end learns on a real hwmon tree; the fake fan follows the duty written.
TEST(FanCurveLearner, LocalBackEndLearnsStoresAndThenMapsThroughTheCurve) {
    test_support::FakeSysfs sys;
    const std::string chip = sys.addHwmon(0, "nct6775", "platform/nct6775.656");
    sys.write(chip + "/fan1_input", "900\n");
    sys.write(chip + "/fan1_max", "2400\n");
    sys.write(chip + "/pwm1", "90\n");
    sys.write(chip + "/pwm1_enable", "5\n");
    ManualClock clock;
    MemoryStore memory;
    LocalFanController local(std::make_shared<HwmonFanService>(sys.root().string()),
                             clock.function());
    local.attachCurveStore(memory.store());
    const std::string identity = "nct6775@/sys/devices/platform/nct6775.656#fan1";
    for (int i = 0; i < 120 && memory.saves == 0; ++i) {
        ASSERT_TRUE(local.setTargets({800}).ok);
        clock.now += 1s;
        const int duty = std::stoi(sys.read(chip + "/pwm1").value());
        sys.write(chip + "/fan1_input", std::to_string(std::lround(fanSpeedAt(duty))) + "\n");
    }
    ASSERT_EQ(memory.saves, 1);
    EXPECT_EQ(local.learnedCurve(identity), memory.curves.at(identity));
    ASSERT_TRUE(local.setTargets({1500}).ok);
    const int duty = std::stoi(sys.read(chip + "/pwm1").value());
    EXPECT_NEAR(fanSpeedAt(duty), 1500, 1500 * 0.08);
    // The linear map would have run this fan a third faster than asked.
    EXPECT_GT(fanSpeedAt(FanCurveLearner::linearDuty(1500, 0, 2400)), 1500 * 1.3);
    // Given back, the fan returns to the mode it had.
    ASSERT_TRUE(local.releaseToAutomatic().ok);
    EXPECT_EQ(sys.read(chip + "/pwm1_enable"), "5");
}

}  // namespace kelvo
