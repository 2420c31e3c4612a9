#include <gtest/gtest.h>

#include "foundation/core/FanChoices.h"
#include "foundation/fans/HwmonFanService.h"
#include "foundation/fans/LocalFanController.h"
#include "tests/foundation/LinuxFakeSysfs.h"

using namespace kelvo;
using kelvo::test_support::FakeSysfs;

TEST(HwmonFanLabel, TheChannelLabelIsReadAndCarriedToTheFanState) {
    FakeSysfs sys;
    const std::string board = sys.addHwmon(0, "nct6798", "platform/nct6775.656");
    sys.write(board + "/fan1_input", "900\n");
    sys.write(board + "/fan2_input", "2400\n");
    sys.write(board + "/fan2_label", "AIO Pump\n");
    auto service = std::make_shared<HwmonFanService>(sys.root().string());
    const auto fans = service->discover();
    ASSERT_EQ(fans.size(), 2u);
    EXPECT_EQ(fans[0].label, "");
    EXPECT_EQ(fans[1].label, "AIO Pump");

    LocalFanController controller(service);
    const auto read = controller.readFans();
    ASSERT_EQ(read.fans.size(), 2u);
    EXPECT_EQ(read.fans[1].label, "AIO Pump");
    EXPECT_EQ(effectiveFanChoice(read.fans[1], {}).kind, FanChoiceKind::fixed);
    EXPECT_EQ(effectiveFanChoice(read.fans[0], {}).kind, FanChoiceKind::automatic);
}
