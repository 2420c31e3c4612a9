// Fan stop, the restart kick and the calibration a user asks for, on the learner and on the
// local back-end over a fake hwmon tree.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "foundation/fans/FanCurveLearner.h"
#include "foundation/fans/LocalFanController.h"
#include "tests/foundation/LinuxFakeSysfs.h"
#include "tests/foundation/fans/FanRig.h"

namespace kelvo {
namespace {

using namespace std::chrono_literals;
using test_support::curvedFanSpeedAt;
using test_support::ManualClock;
using test_support::MemoryStore;
using test_support::Rig;

// Stops below 40 like curvedFanSpeedAt's fan, and needs 60 to start from rest.
Rig stoppingRig() {
    Rig rig;
    rig.fan.startDuty = 60;
    rig.learner.setStore(rig.memory.store());
    return rig;
}

}  // namespace

TEST(FanStop, AStopTargetWritesTheRestDutyAndARestartIsKickedUntilTheFanTurns) {
    Rig rig = stoppingRig();
    for (int i = 0; i < 10; ++i) rig.tick(1200);
    EXPECT_FALSE(rig.learner.report("fan").canStop);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(rig.tick(kFanStopRPM), 0);
    EXPECT_EQ(rig.speed, 0);
    EXPECT_TRUE(rig.learner.report("fan").canStop);

    // Nothing is known of its start: a conservative kick, held until the tach shows it turning.
    EXPECT_EQ(rig.tick(800), FanCurveLearner::kConservativeStartDuty);
    ASSERT_GT(*rig.speed, 0);
    const int mapped = rig.tick(800);
    EXPECT_LT(mapped, FanCurveLearner::kConservativeStartDuty);
    for (int i = 0; i < 10; ++i) {
        rig.tick(800);
        EXPECT_GT(*rig.speed, 0) << "tick " << i;
    }
    // The kick that worked is kept as the fan's start duty.
    EXPECT_EQ(FanKnowledge::fromCurve(*rig.learner.curve("fan")).startsAt,
              FanCurveLearner::kConservativeStartDuty);
}

TEST(FanStop, ALearnedStartDutyIsTheKickAndALearnedStopDutyTheRest) {
    Rig rig = stoppingRig();
    rig.memory.curves["fan"] = {
        {38, 0}, {51, curvedFanSpeedAt(51)}, {255, curvedFanSpeedAt(255)}, {62, kStartMarkerRPM}};
    rig.learner.setStore(rig.memory.store());
    rig.speed = curvedFanSpeedAt(100);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(rig.tick(kFanStopRPM), 38);
    EXPECT_EQ(rig.speed, 0);
    EXPECT_EQ(rig.tick(1000), 62);
    EXPECT_GT(*rig.speed, 0);
    EXPECT_LT(rig.tick(1000), 62);
}

TEST(FanStop, AFanThatWillNotStartIsKickedOnceAndThenReadsZero) {
    Rig rig = stoppingRig();
    rig.fan.stuck = true;
    rig.speed = 0;
    for (int i = 0; i < 30; ++i) rig.tick(800);
    const auto kicks =
        std::count(rig.duties.begin(), rig.duties.end(), FanCurveLearner::kConservativeStartDuty);
    // Three seconds of kick at most, then the mapped duty with the tach at 0 for the stall
    // check to see.
    EXPECT_GE(kicks, 1);
    EXPECT_LE(kicks, 3);
    EXPECT_EQ(rig.duties.back(), FanCurveLearner::linearDuty(800, 0, 2400));
    EXPECT_EQ(rig.speed, 0);
}

TEST(FanCalibration, RunsOnlyOnRequestReportsProgressAndStoresTheCurve) {
    Rig rig = stoppingRig();
    for (int i = 0; i < 30; ++i) rig.tick(800);
    EXPECT_EQ(rig.learner.calibrationStatus("fan"), std::nullopt);
    EXPECT_EQ(std::count(rig.duties.begin(), rig.duties.end(), 255), 0);
    const int savesBefore = rig.memory.saves;

    std::string why;
    ASSERT_TRUE(rig.learner.startCalibration("fan", 800, &why)) << why;
    EXPECT_FALSE(rig.learner.startCalibration("fan", 800, &why));
    EXPECT_NE(why.find("already running"), std::string::npos);
    rig.duties.clear();
    double lastProgress = -1;
    double firstSecondsLeft = 0;
    int ticks = 0;
    while (rig.learner.calibrating("fan")) {
        const FanCalibrationStatus status = *rig.learner.calibrationStatus("fan");
        EXPECT_TRUE(status.running);
        EXPECT_GE(status.progress, lastProgress);
        lastProgress = status.progress;
        if (ticks == 0) firstSecondsLeft = status.secondsLeft;
        rig.tick(800);
        ASSERT_LT(++ticks, 200);
    }
    EXPECT_GT(firstSecondsLeft, 20);
    EXPECT_GT(lastProgress, 0.5);
    // Full duty first, down to the step where the fan stood still, then up to its start.
    EXPECT_EQ(rig.duties.front(), 255);
    const auto lowest = std::min_element(rig.duties.begin(), rig.duties.end());
    EXPECT_EQ(*lowest, 38);
    EXPECT_TRUE(
        std::is_sorted(rig.duties.rbegin() + (rig.duties.end() - lowest), rig.duties.rend()));

    const FanCalibrationStatus done = *rig.learner.calibrationStatus("fan");
    EXPECT_FALSE(done.running);
    EXPECT_EQ(done.succeeded, true);
    EXPECT_NE(done.message.find("stops at duty 38"), std::string::npos) << done.message;
    EXPECT_GT(rig.memory.saves, savesBefore);
    const FanKnowledge stored = FanKnowledge::fromCurve(rig.memory.curves.at("fan"));
    EXPECT_EQ(stored.stopsAt, 38);
    EXPECT_EQ(stored.startsAt, 62);  // 44, 50, 56 left it at rest
    EXPECT_EQ(stored.turning.begin()->first, 51);
    EXPECT_NEAR(stored.turning.at(128), curvedFanSpeedAt(128), 1e-9);
    // Back to the loop's target, through the new curve.
    const int duty = rig.tick(1500);
    EXPECT_NEAR(curvedFanSpeedAt(duty), 1500, 1500 * 0.08);
}

TEST(FanCalibration, MoreAirThanItGivesAbandonsIt) {
    Rig rig = stoppingRig();
    for (int i = 0; i < 5; ++i) rig.tick(800);
    ASSERT_TRUE(rig.learner.startCalibration("fan", 800, nullptr));
    for (int i = 0; i < 12; ++i) rig.tick(800);
    ASSERT_TRUE(rig.learner.calibrating("fan"));
    // The loop asks for much more air: it gets it at once.
    const int duty = rig.tick(2200);
    EXPECT_FALSE(rig.learner.calibrating("fan"));
    EXPECT_NEAR(curvedFanSpeedAt(duty), 2200, 2200 * 0.1);
    const FanCalibrationStatus status = *rig.learner.calibrationStatus("fan");
    EXPECT_EQ(status.succeeded, false);
    EXPECT_NE(status.message.find("more air"), std::string::npos) << status.message;
}

// Asked for while the fan stands still, the calibration goes on when the loop then wants the
// fan turning at its slowest: only more air than that abandons it.
TEST(FanCalibration, AStoppedFanAskedToTurnAtItsSlowestKeepsCalibrating) {
    Rig rig = stoppingRig();
    for (double target : {800.0, 1200.0})
        for (int i = 0; i < 20; ++i) rig.tick(target);
    const auto slowest = rig.learner.report("fan").minRPM;
    ASSERT_TRUE(slowest.has_value());
    for (int i = 0; i < 10; ++i) rig.tick(kFanStopRPM);
    ASSERT_TRUE(rig.learner.startCalibration("fan", kFanStopRPM, nullptr));
    for (int i = 0; i < 5; ++i) rig.tick(kFanStopRPM);
    for (int i = 0; i < 5; ++i) rig.tick(*slowest);
    EXPECT_TRUE(rig.learner.calibrating("fan"));
    rig.tick(2200);
    EXPECT_FALSE(rig.learner.calibrating("fan"));
}

TEST(FanCalibration, AFanGivenBackAbandonsIt) {
    Rig rig = stoppingRig();
    rig.tick(800);
    ASSERT_TRUE(rig.learner.startCalibration("fan", 800, nullptr));
    rig.tick(800);
    rig.learner.released("fan");
    const FanCalibrationStatus status = *rig.learner.calibrationStatus("fan");
    EXPECT_FALSE(status.running);
    EXPECT_EQ(status.succeeded, false);
    EXPECT_NE(status.message.find("firmware"), std::string::npos) << status.message;
}

namespace {

constexpr const char* kIdentity = "nct6775@/sys/devices/platform/nct6775.656#fan1";

// A local back-end on a fake chip whose fan1 follows the duty written, stopping below 40 and
// starting again from 60.
struct LocalRig {
    test_support::FakeSysfs sys;
    std::string chip = sys.addHwmon(0, "nct6775", "platform/nct6775.656");
    ManualClock clock;
    MemoryStore memory;
    test_support::ModelFan fan;
    std::unique_ptr<LocalFanController> local;

    LocalRig() {
        fan.startDuty = 60;
        sys.write(chip + "/fan1_input", "900\n");
        sys.write(chip + "/fan1_max", "2400\n");
        sys.write(chip + "/pwm1", "90\n");
        sys.write(chip + "/pwm1_enable", "5\n");
        local = std::make_unique<LocalFanController>(
            std::make_shared<HwmonFanService>(sys.root().string()), clock.function());
        local->attachCurveStore(memory.store());
    }
    int duty() const { return std::stoi(sys.read(chip + "/pwm1").value()); }
    // One control tick: read, set, a second passes and the fan answers the duty written.
    FanState tick(double target) {
        const FanReadResult read = local->readFans();
        EXPECT_TRUE(read.ok);
        EXPECT_TRUE(local->setTargets({target}).ok);
        clock.now += 1s;
        sys.write(chip + "/fan1_input", std::to_string(std::lround(fan.respond(duty()))) + "\n");
        return read.fans.at(0);
    }
};

}  // namespace

TEST(FanStop, LocalBackEndStopsAFanInManualModeAndRestartsIt) {
    LocalRig rig;
    for (int i = 0; i < 10; ++i) rig.tick(1200);
    for (int i = 0; i < 6; ++i) rig.tick(kFanStopRPM);
    EXPECT_EQ(rig.sys.read(rig.chip + "/pwm1_enable"), "1") << "Kelvo keeps the fan";
    EXPECT_EQ(rig.duty(), 0);
    FanState state = rig.tick(kFanStopRPM);
    EXPECT_EQ(state.currentRPM, 0);
    EXPECT_EQ(state.targetRPM, kFanStopRPM);
    EXPECT_TRUE(state.stopCommanded);
    EXPECT_TRUE(state.canStop);
    EXPECT_FALSE(state.firmwareStops);

    rig.tick(1000);
    EXPECT_EQ(rig.duty(), FanCurveLearner::kConservativeStartDuty);
    state = rig.tick(1000);
    EXPECT_GT(state.currentRPM, 0);
    EXPECT_FALSE(state.stopCommanded);
    EXPECT_LT(rig.duty(), FanCurveLearner::kConservativeStartDuty);
    ASSERT_TRUE(rig.local->releaseToAutomatic().ok);
    EXPECT_EQ(rig.sys.read(rig.chip + "/pwm1_enable"), "5");
}

TEST(FanLearning, LocalBackEndLearnsWhileTheFirmwareDrivesAndReportsTheLearnedRange) {
    LocalRig rig;
    rig.sys.write(rig.chip + "/pwm1_enable", "2\n");
    for (int duty : {90, 255, 60}) {
        rig.sys.write(rig.chip + "/pwm1", std::to_string(duty) + "\n");
        rig.sys.write(rig.chip + "/fan1_input",
                      std::to_string(std::lround(curvedFanSpeedAt(duty))) + "\n");
        for (int i = 0; i < 4; ++i) {
            ASSERT_TRUE(rig.local->readFans().ok);
            rig.clock.now += 1s;
        }
    }
    const FanState state = rig.local->readFans().fans.at(0);
    EXPECT_EQ(state.targetRPM, 0);
    EXPECT_EQ(state.minRPM, std::lround(curvedFanSpeedAt(60)));
    EXPECT_EQ(state.maxRPM, std::lround(curvedFanSpeedAt(255)));
    const auto curve = rig.local->learnedCurve(kIdentity);
    ASSERT_TRUE(curve.has_value());
    EXPECT_EQ(FanKnowledge::fromCurve(*curve).turning.size(), 3u);
    EXPECT_EQ(rig.memory.curves.count(kIdentity), 1u);
}

TEST(FanCalibration, LocalBackEndCalibratesOnlyAFanItHolds) {
    LocalRig rig;
    std::string why;
    EXPECT_FALSE(rig.local->requestCalibration(kIdentity, &why));
    EXPECT_NE(why.find("firmware"), std::string::npos) << why;
    EXPECT_FALSE(rig.local->requestCalibration("nct6775@/nowhere#fan9", &why));
    EXPECT_EQ(rig.local->calibrationStatus(kIdentity), std::nullopt);

    rig.tick(800);
    ASSERT_TRUE(rig.local->requestCalibration(kIdentity, &why)) << why;
    int ticks = 0;
    std::vector<int> duties;
    while (rig.local->calibrating(kIdentity)) {
        rig.tick(800);
        duties.push_back(rig.duty());
        ASSERT_LT(++ticks, 200);
    }
    EXPECT_EQ(duties.front(), 255);
    const FanCalibrationStatus status = *rig.local->calibrationStatus(kIdentity);
    EXPECT_EQ(status.succeeded, true) << status.message;
    const FanKnowledge stored = FanKnowledge::fromCurve(rig.memory.curves.at(kIdentity));
    EXPECT_EQ(stored.stopsAt, 38);
    EXPECT_EQ(stored.startsAt, 62);
    EXPECT_EQ(rig.local->learnedCurve(kIdentity), rig.memory.curves.at(kIdentity));
    // Given back, the fan returns to the mode it had.
    ASSERT_TRUE(rig.local->releaseToAutomatic().ok);
    EXPECT_EQ(rig.sys.read(rig.chip + "/pwm1_enable"), "5");
}

}  // namespace kelvo
