// Kelvo through a helper whose configuration floors one fan, on the simulated machine, in real
// time: the floored fan runs at its floor and the other stays Kelvo's, with no fallback.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/simhw_e2e/SimhwRig.h"

namespace {

using namespace kelvo::test_support;

const char* kIdleTrace = R"({"name": "idle", "segments": [
  {"seconds": 600, "cpu": 0.03, "gpu": 0.02}]})";

}  // namespace

TEST(PerFanLimitsOnSimhw, AFloorOnOneFanCostsTheOtherNothingOverAMinute) {
    SKIP_WITHOUT_FUSE();
    SimhwRig rig;
    ASSERT_TRUE(rig.mount(kTestMachine, kIdleTrace)) << rig.sim().log();
    ASSERT_TRUE(rig.startHelper(std::string("floor ") + kSimFan1 + " 60%\n"))  // duty 153
        << rig.helper()->log();
    // Idle and quiet: Kelvo's own duty for both fans is far below the floor.
    rig.startKelvo(QStringLiteral("quiet"));
    ASSERT_TRUE(rig.saw(QStringLiteral(" status="))) << rig.transcript();
    const std::size_t from = rig.logColumn("fan1_enable").size();
    std::this_thread::sleep_for(60s);
    const auto enable1 = rig.logColumn("fan1_enable");
    const auto pwm1 = rig.logColumn("fan1_pwm");
    const auto enable2 = rig.logColumn("fan2_enable");
    ASSERT_GT(enable2.size(), from + 50);
    int everyFanOnFirmware = 0;
    int fan2Firmware = 0;
    int fan1BelowFloor = 0;
    // From ten seconds in, past the first moments of taking the fans.
    for (std::size_t i = from + 10; i < enable2.size() && i < pwm1.size(); ++i) {
        if (enable1[i] != 1 && enable2[i] != 1) ++everyFanOnFirmware;
        if (enable2[i] != 1) ++fan2Firmware;
        if (enable1[i] == 1 && pwm1[i] < 153) ++fan1BelowFloor;
    }
    const int seconds = static_cast<int>(std::min(enable2.size(), pwm1.size()) - from - 10);
    std::printf(
        "[ figure ] floor on fan1: every fan with the firmware (fallback) %d of %d s, "
        "fan2 with the firmware %d s, fan1 below its floor %d s\n",
        everyFanOnFirmware, seconds, fan2Firmware, fan1BelowFloor);
    EXPECT_EQ(everyFanOnFirmware, 0);
    EXPECT_EQ(fan2Firmware, 0);
    EXPECT_EQ(fan1BelowFloor, 0);
    EXPECT_FALSE(rig.saw(QStringLiteral("Entered monitor+alert fallback"), 2000))
        << rig.transcript() << rig.helper()->log();
    EXPECT_EQ(rig.chipFile("pwm1_enable"), "1");
    EXPECT_GE(std::stoi(rig.chipFile("pwm1")), 153);
}
