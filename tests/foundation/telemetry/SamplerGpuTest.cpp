#include <gtest/gtest.h>

#include "foundation/telemetry/AmdGpuSampler.h"
#include "foundation/telemetry/IntelGpuSampler.h"
#include "tests/foundation/LinuxFakeSysfs.h"
#include "tests/foundation/SamplerTestTrees.h"

namespace kelvo {
namespace {

using test_support::FakeSysfs;
using test_support::sysfsTree;
using test_support::TreeCopy;

constexpr const char* kAmdDevice = "sys/class/drm/card0/device";
constexpr const char* kAmdHwmon = "sys/class/drm/card0/device/hwmon/hwmon2";

TEST(SamplerAmdGpu, AmdDesktopCardClockBusyPowerAndTemperature) {
    const auto reading = AmdGpuSampler(sysfsTree("amd-desktop").string()).sample();
    ASSERT_TRUE(reading.has_value());
    GpuReading expected;
    expected.clockMHz = 1850;     // the level marked "*"
    expected.maxClockMHz = 2615;  // the highest level
    expected.utilizationPct = 37;
    expected.powerW = 38;
    expected.temperatureC = 48;
    EXPECT_EQ(*reading, expected);
}

TEST(SamplerAmdGpu, NoAmdCardIsAbsent) {
    EXPECT_FALSE(AmdGpuSampler(sysfsTree("intel-laptop").string()).sample().has_value());
    EXPECT_FALSE(AmdGpuSampler(sysfsTree("no-fans").string()).sample().has_value());
}

TEST(SamplerAmdGpu, FollowsTheCurrentLevelAndNewerPowerAttribute) {
    TreeCopy tree("amd-desktop");
    tree.write(std::string(kAmdDevice) + "/pp_dpm_sclk", "0: 500Mhz *\n1: 1850Mhz\n2: 2615Mhz");
    tree.write(std::string(kAmdDevice) + "/gpu_busy_percent", "0");
    tree.remove(std::string(kAmdHwmon) + "/power1_average");
    tree.write(std::string(kAmdHwmon) + "/power1_input", "41500000");
    const auto reading = AmdGpuSampler(tree.rootString()).sample();
    ASSERT_TRUE(reading.has_value());
    EXPECT_EQ(reading->clockMHz, 500);
    EXPECT_EQ(reading->maxClockMHz, 2615);
    EXPECT_EQ(reading->utilizationPct, 0);
    EXPECT_EQ(reading->powerW, 41.5);
}

TEST(SamplerAmdGpu, MissingAttributesStayAbsent) {
    TreeCopy tree("amd-desktop");
    tree.remove(std::string(kAmdDevice) + "/gpu_busy_percent");
    tree.remove(std::string(kAmdHwmon) + "/power1_average");
    tree.remove(std::string(kAmdHwmon) + "/temp1_input");
    const auto reading = AmdGpuSampler(tree.rootString()).sample();
    ASSERT_TRUE(reading.has_value());
    EXPECT_EQ(reading->clockMHz, 1850);
    EXPECT_FALSE(reading->utilizationPct.has_value());
    EXPECT_FALSE(reading->powerW.has_value());
    EXPECT_FALSE(reading->temperatureC.has_value());
}

TEST(SamplerAmdGpu, DpmLevelParsing) {
    const AmdDpmLevels apu = AmdGpuSampler::parseDpmLevels("0: 400Mhz\nS: 19Mhz *\n1: 2200Mhz\n");
    EXPECT_EQ(apu.currentMHz, 19);
    EXPECT_EQ(apu.maxMHz, 2200);

    const AmdDpmLevels unmarked = AmdGpuSampler::parseDpmLevels("0: 300Mhz\n1: 1200Mhz\n");
    EXPECT_FALSE(unmarked.currentMHz.has_value());
    EXPECT_EQ(unmarked.maxMHz, 1200);

    const AmdDpmLevels garbage = AmdGpuSampler::parseDpmLevels("no levels here\n\n");
    EXPECT_FALSE(garbage.currentMHz.has_value());
    EXPECT_FALSE(garbage.maxMHz.has_value());
}

TEST(SamplerIntelGpu, I915ActualAndMaximumFrequency) {
    const auto reading = IntelGpuSampler(sysfsTree("intel-laptop").string()).sample();
    ASSERT_TRUE(reading.has_value());
    GpuReading expected;
    expected.clockMHz = 1050;
    expected.maxClockMHz = 1300;
    EXPECT_EQ(*reading, expected);  // no busy percentage, power or temperature from i915
}

TEST(SamplerIntelGpu, RequestedFrequencyStandsInForAMissingActualOne) {
    TreeCopy tree("intel-laptop");
    tree.remove("sys/class/drm/card0/gt_act_freq_mhz");
    const auto reading = IntelGpuSampler(tree.rootString()).sample();
    ASSERT_TRUE(reading.has_value());
    EXPECT_EQ(reading->clockMHz, 1100);
    EXPECT_EQ(reading->maxClockMHz, 1300);
}

TEST(SamplerIntelGpu, XeTileFrequencies) {
    FakeSysfs sys;
    sys.mkdir("sys/devices/pci0000:00/0000:03:00.0/drm/card1");
    sys.symlink("../../../0000:03:00.0", "sys/devices/pci0000:00/0000:03:00.0/drm/card1/device");
    sys.symlink("../../devices/pci0000:00/0000:03:00.0/drm/card1", "sys/class/drm/card1");
    const std::string freq = "sys/devices/pci0000:00/0000:03:00.0/tile0/gt0/freq0/";
    sys.write(freq + "act_freq", "2050\n");
    sys.write(freq + "cur_freq", "2100\n");
    sys.write(freq + "max_freq", "2450\n");
    const auto reading = IntelGpuSampler(sys.root().string()).sample();
    ASSERT_TRUE(reading.has_value());
    EXPECT_EQ(reading->clockMHz, 2050);
    EXPECT_EQ(reading->maxClockMHz, 2450);
    EXPECT_FALSE(reading->utilizationPct.has_value());
}

TEST(SamplerIntelGpu, NoIntelCardIsAbsent) {
    EXPECT_FALSE(IntelGpuSampler(sysfsTree("amd-desktop").string()).sample().has_value());
    EXPECT_FALSE(IntelGpuSampler(sysfsTree("no-fans").string()).sample().has_value());
}

}  // namespace
}  // namespace kelvo
