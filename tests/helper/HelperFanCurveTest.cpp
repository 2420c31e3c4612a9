#include <gtest/gtest.h>

#include "foundation/fans/HelperFanController.h"
#include "tests/helper/HelperTestSupport.h"

namespace {

using namespace kelvo;
using namespace kelvo::test_support;

}  // namespace

// Kelvo maps speeds to duty cycles itself: with a learned curve the helper is sent the curve's
// duty, not its own linear guess.
TEST(HelperFanCurve, TargetsGoThroughTheLearnedCurve) {
    FakeSysfs board;
    buildHelperBoard(board);
    const auto runtime = makeTempDir("kelvo-curve-run");
    HelperDaemon helper(board.root().string(), runtime);
    ASSERT_TRUE(helper.start()) << helper.log();

    HelperFanController controller(helper.socketPath());
    const FanCurve curve{{51, 700}, {128, 1500}, {255, 4000}};
    int loads = 0;
    controller.attachCurveStore({[&](const std::string& identity) -> std::optional<FanCurve> {
                                     ++loads;
                                     if (identity == kFan1) return curve;
                                     return std::nullopt;
                                 },
                                 {}});
    // Discovery order: acpi fan, it87 fan1, fan2, fan3.
    ASSERT_TRUE(controller.setTargets({0, 1500, 1500, 0}).ok);
    EXPECT_EQ(board.read(std::string(kChip) + "pwm1"), "128");
    // fan2 has no curve (and no store to learn into): the linear map between its 500-2500 RPM.
    EXPECT_EQ(board.read(std::string(kChip) + "pwm2"),
              std::to_string(FanCurveLearner::linearDuty(1500, 500, 2500)));
    EXPECT_EQ(controller.learnedCurve(kFan1), curve);
    EXPECT_GE(loads, 2);
    ASSERT_TRUE(controller.releaseToAutomatic().ok);
    EXPECT_TRUE(boardRestored(board));
}

// Fan stop through the helper: the stop duty is sent while Kelvo keeps the fan, a fan at rest
// is kicked to start, and a calibration runs only on a fan Kelvo holds.
TEST(HelperFanCurve, AStopIsHeldAtRestARestartIsKickedAndCalibrationNeedsTheFanHeld) {
    FakeSysfs board;
    buildHelperBoard(board);
    const auto runtime = makeTempDir("kelvo-stop-run");
    HelperDaemon helper(board.root().string(), runtime);
    ASSERT_TRUE(helper.start()) << helper.log();
    FanCurveLearner::Clock::time_point now{std::chrono::hours(1)};
    HelperFanController controller(helper.socketPath(), 250, [&] { return now; });
    const std::string fan1 = std::string(kChip) + "pwm1";

    std::string why;
    EXPECT_FALSE(controller.requestCalibration(kFan1, &why));
    EXPECT_NE(why.find("firmware"), std::string::npos) << why;
    EXPECT_EQ(controller.calibrationStatus(kFan1), std::nullopt);

    // Discovery order: acpi fan, it87 fan1, fan2, fan3.
    ASSERT_TRUE(controller.setTargets({0, kFanStopRPM, 0, 0}).ok);
    EXPECT_EQ(board.read(fan1), "0");
    EXPECT_EQ(board.read(std::string(kChip) + "pwm1_enable"), "1");
    board.write(std::string(kChip) + "fan1_input", "0\n");
    for (int i = 0; i < 4; ++i) {
        now += std::chrono::seconds(1);
        ASSERT_TRUE(controller.setTargets({0, kFanStopRPM, 0, 0}).ok);
    }
    FanReadResult read = controller.readFans();
    ASSERT_TRUE(read.ok) << read.error;
    EXPECT_EQ(read.fans[1].targetRPM, kFanStopRPM);
    EXPECT_TRUE(read.fans[1].stopCommanded);
    EXPECT_TRUE(read.fans[1].canStop);
    EXPECT_FALSE(read.fans[2].stopCommanded);

    // A speed asked of it at rest: the start kick.
    ASSERT_TRUE(controller.setTargets({0, 1500, 0, 0}).ok);
    EXPECT_EQ(board.read(fan1), std::to_string(FanCurveLearner::kConservativeStartDuty));
    board.write(std::string(kChip) + "fan1_input", "1400\n");

    // Held now: a calibration may start, and runs from full duty on the next round.
    ASSERT_TRUE(controller.requestCalibration(kFan1, &why)) << why;
    now += std::chrono::seconds(1);
    ASSERT_TRUE(controller.setTargets({0, 1500, 0, 0}).ok);
    EXPECT_EQ(board.read(fan1), "255");
    ASSERT_TRUE(controller.calibrationStatus(kFan1).has_value());
    EXPECT_TRUE(controller.calibrationStatus(kFan1)->running);
    EXPECT_GT(controller.calibrationStatus(kFan1)->secondsLeft, 0);

    // Given back, it ends with a message that says why.
    ASSERT_TRUE(controller.releaseToAutomatic().ok);
    const FanCalibrationStatus ended = *controller.calibrationStatus(kFan1);
    EXPECT_FALSE(ended.running);
    EXPECT_EQ(ended.succeeded, false);
    EXPECT_NE(ended.message.find("firmware"), std::string::npos) << ended.message;
    EXPECT_TRUE(boardRestored(board));
}
