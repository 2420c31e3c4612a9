#include <gtest/gtest.h>

#include "foundation/control/UserLimits.h"
#include "foundation/telemetry/DieCriticalTemperatures.h"
#include "tests/foundation/LinuxFakeSysfs.h"

using namespace kelvo;
using kelvo::test_support::FakeSysfs;

TEST(UserLimits, AcceptsValuesFromFiftyToTheCapWhenNoTripPointIsKnown) {
    const DieCriticalTemperatures none;
    EXPECT_TRUE(userLimitRefusal(UserLimitKind::cpuQuiet, 50, none).empty());
    EXPECT_TRUE(userLimitRefusal(UserLimitKind::gpuQuiet, kUserLimitCapC, none).empty());
    EXPECT_FALSE(userLimitRefusal(UserLimitKind::cpuQuiet, 49.5, none).empty());
    EXPECT_FALSE(userLimitRefusal(UserLimitKind::performanceTarget, 106, none).empty());
}

TEST(UserLimits, RefusesAValueAboveTheDiesCriticalTripPoint) {
    DieCriticalTemperatures critical;
    critical.cpuC = 95;
    critical.gpuC = 90;
    const std::string message = userLimitRefusal(UserLimitKind::cpuQuiet, 96, critical);
    EXPECT_NE(message.find("CPU quiet limit"), std::string::npos) << message;
    EXPECT_NE(message.find("95"), std::string::npos) << message;
    EXPECT_TRUE(userLimitRefusal(UserLimitKind::cpuQuiet, 95, critical).empty());
    EXPECT_TRUE(userLimitRefusal(UserLimitKind::gpuQuiet, 90, critical).empty());
    EXPECT_FALSE(userLimitRefusal(UserLimitKind::gpuQuiet, 91, critical).empty());
    // The performance target holds for both dies: the lower trip point bounds it.
    EXPECT_FALSE(userLimitRefusal(UserLimitKind::performanceTarget, 92, critical).empty());
}

TEST(UserLimits, DefaultsAreTheControlLimitsDefaults) {
    const UserLimits limits;
    const ControlLimits control;
    EXPECT_EQ(limits.cpuQuietC, control.quietCpuLimitC);
    EXPECT_EQ(limits.gpuQuietC, control.quietGpuLimitC);
    EXPECT_EQ(limits.performanceTargetC, control.performanceTargetC);
}

TEST(DieCriticalTemperatures, ReadsTheCpuZonesCriticalTripAndTheGpuHwmonCrit) {
    FakeSysfs sys;
    sys.write("sys/class/thermal/thermal_zone0/type", "x86_pkg_temp\n");
    sys.write("sys/class/thermal/thermal_zone0/temp", "50000\n");
    sys.write("sys/class/thermal/thermal_zone0/trip_point_0_type", "passive\n");
    sys.write("sys/class/thermal/thermal_zone0/trip_point_0_temp", "90000\n");
    sys.write("sys/class/thermal/thermal_zone0/trip_point_1_type", "critical\n");
    sys.write("sys/class/thermal/thermal_zone0/trip_point_1_temp", "100000\n");
    sys.write("sys/class/thermal/thermal_zone1/type", "iwlwifi_1\n");
    sys.write("sys/class/thermal/thermal_zone1/trip_point_0_type", "critical\n");
    sys.write("sys/class/thermal/thermal_zone1/trip_point_0_temp", "60000\n");
    const std::string gpu = sys.addHwmon(3, "amdgpu", "pci0000:00/0000:03:00.0");
    sys.write(gpu + "/temp1_crit", "94000\n");
    sys.write(gpu + "/temp2_crit", "110000\n");
    const auto critical = readDieCriticalTemperatures(sys.root());
    ASSERT_TRUE(critical.cpuC);
    EXPECT_DOUBLE_EQ(*critical.cpuC, 100);
    ASSERT_TRUE(critical.gpuC);
    EXPECT_DOUBLE_EQ(*critical.gpuC, 94);
}

TEST(DieCriticalTemperatures, FallsBackToTheCpuHwmonAndIsEmptyOnABareTree) {
    FakeSysfs sys;
    EXPECT_FALSE(readDieCriticalTemperatures(sys.root()).cpuC);
    EXPECT_FALSE(readDieCriticalTemperatures(sys.root()).gpuC);
    const std::string cpu = sys.addHwmon(0, "coretemp", "platform/coretemp.0");
    sys.write(cpu + "/temp1_crit", "100000\n");
    sys.write(cpu + "/temp2_crit", "98000\n");
    EXPECT_EQ(readDieCriticalTemperatures(sys.root()).cpuC, 98);
}
