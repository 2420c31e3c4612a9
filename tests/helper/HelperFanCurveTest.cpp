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
