#include <gtest/gtest.h>

#include "foundation/telemetry/HwmonSnapshotSampler.h"
#include "tests/foundation/SamplerTestTrees.h"

namespace kelvo {
namespace {

using test_support::sysfsTree;
using test_support::TreeCopy;

std::vector<std::string> identities(const HwmonSnapshot& snapshot) {
    std::vector<std::string> result;
    for (const HwmonFan& fan : snapshot.fans) result.push_back(fan.identity);
    return result;
}

TEST(SamplerHwmon, IntelLaptopPackageSensorAndItsOneFan) {
    const HwmonSnapshot snapshot =
        HwmonSnapshotSampler(sysfsTree("intel-laptop").string()).sample();
    EXPECT_EQ(snapshot.cpuTemperatureC, 63.0);  // the package, not the hottest core (66)
    EXPECT_FALSE(snapshot.cpuTemperatureFromThermalZone);
    EXPECT_FALSE(snapshot.gpuTemperatureC.has_value());  // the NVMe drive is no GPU
    ASSERT_EQ(identities(snapshot),
              std::vector<std::string>{"ec_fan@/sys/devices/platform/ec_fan.0#fan1"});
    const HwmonFan& fan = snapshot.fans[0];
    EXPECT_EQ(fan.driver, "ec_fan");
    EXPECT_EQ(fan.channel, 1);
    EXPECT_TRUE(fan.controllable);
    EXPECT_EQ(fan.currentRPM, 2900);
    EXPECT_EQ(fan.minRPM, 0);
    EXPECT_EQ(fan.maxRPM, 5200);
    EXPECT_FALSE(fan.targetRPM.has_value());
    EXPECT_EQ(fan.pwm, 128);
    EXPECT_EQ(fan.pwmEnable, 2);
}

TEST(SamplerHwmon, AmdDesktopTdieBoardChannelsAndGpu) {
    const HwmonSnapshot snapshot = HwmonSnapshotSampler(sysfsTree("amd-desktop").string()).sample();
    EXPECT_EQ(snapshot.cpuTemperatureC, 61.25);  // Tdie, not Tctl (71.25) or Tccd1
    EXPECT_FALSE(snapshot.cpuTemperatureFromThermalZone);
    EXPECT_EQ(snapshot.gpuTemperatureC, 48.0);  // edge
    ASSERT_EQ(
        identities(snapshot),
        (std::vector<std::string>{"amdgpu@/sys/devices/pci0000:00/0000:00:03.1/0000:0a:00.0#fan1",
                                  "nct6798@/sys/devices/platform/nct6775.656#fan1",
                                  "nct6798@/sys/devices/platform/nct6775.656#fan2",
                                  "nct6798@/sys/devices/platform/nct6775.656#fan3",
                                  "nct6798@/sys/devices/platform/nct6775.656#fan4"}));

    const HwmonFan& gpuFan = snapshot.fans[0];
    EXPECT_EQ(gpuFan.currentRPM, 950);
    EXPECT_EQ(gpuFan.maxRPM, 3300);
    EXPECT_EQ(gpuFan.pwm, 64);
    EXPECT_EQ(gpuFan.pwmEnable, 2);

    const HwmonFan& cpuFan = snapshot.fans[1];
    EXPECT_TRUE(cpuFan.controllable);
    EXPECT_EQ(cpuFan.currentRPM, 1104);
    EXPECT_EQ(cpuFan.minRPM, 300);
    EXPECT_EQ(cpuFan.maxRPM, 0);
    EXPECT_EQ(cpuFan.pwm, 112);
    EXPECT_EQ(cpuFan.pwmEnable, 5);

    EXPECT_EQ(snapshot.fans[2].currentRPM, 836);
    EXPECT_EQ(snapshot.fans[2].pwm, 80);

    const HwmonFan& emptyHeader = snapshot.fans[3];
    EXPECT_EQ(emptyHeader.currentRPM, 0);
    EXPECT_EQ(emptyHeader.pwm, 255);
    EXPECT_EQ(emptyHeader.pwmEnable, 1);

    const HwmonFan& tachOnly = snapshot.fans[4];
    EXPECT_FALSE(tachOnly.controllable);
    EXPECT_EQ(tachOnly.currentRPM, 1530);
    EXPECT_FALSE(tachOnly.pwm.has_value());
    EXPECT_FALSE(tachOnly.pwmEnable.has_value());
}

TEST(SamplerHwmon, NoFansTreeFallsBackToTheHottestCpuZone) {
    const HwmonSnapshot snapshot = HwmonSnapshotSampler(sysfsTree("no-fans").string()).sample();
    EXPECT_EQ(snapshot.cpuTemperatureC, 47.0);  // x86_pkg_temp over acpitz (40)
    EXPECT_TRUE(snapshot.cpuTemperatureFromThermalZone);
    EXPECT_FALSE(snapshot.gpuTemperatureC.has_value());
    EXPECT_TRUE(snapshot.fans.empty());
}

TEST(SamplerHwmon, TctlStandsInWhenThereIsNoTdie) {
    TreeCopy tree("amd-desktop");
    tree.remove("sys/class/hwmon/hwmon0/temp2_label");
    tree.remove("sys/class/hwmon/hwmon0/temp2_input");
    EXPECT_EQ(HwmonSnapshotSampler(tree.rootString()).sample().cpuTemperatureC, 71.25);
}

TEST(SamplerHwmon, RenumberedHwmonDirectoriesKeepFanIdentitiesAndReadings) {
    for (const char* name : {"intel-laptop", "amd-desktop", "no-fans"}) {
        SCOPED_TRACE(name);
        TreeCopy tree(name);
        const HwmonSnapshot before = HwmonSnapshotSampler(tree.rootString()).sample();
        std::map<int, int> renumber;
        for (const auto& entry :
             std::filesystem::directory_iterator(tree.root() / "sys/class/hwmon")) {
            const int index = std::stoi(entry.path().filename().string().substr(5));
            renumber[index] = 20 - index;  // reverses the probe order
        }
        tree.renumberHwmon(renumber);
        ASSERT_FALSE(std::filesystem::exists(tree.root() / "sys/class/hwmon/hwmon0"));

        const HwmonSnapshot after = HwmonSnapshotSampler(tree.rootString()).sample();
        EXPECT_EQ(identities(after), identities(before));
        EXPECT_EQ(after.cpuTemperatureC, before.cpuTemperatureC);
        EXPECT_EQ(after.gpuTemperatureC, before.gpuTemperatureC);
        ASSERT_EQ(after.fans.size(), before.fans.size());
        for (std::size_t i = 0; i < after.fans.size(); ++i) {
            EXPECT_NE(after.fans[i].hwmonDir, before.fans[i].hwmonDir);
            EXPECT_EQ(after.fans[i].currentRPM, before.fans[i].currentRPM);
            EXPECT_EQ(after.fans[i].pwm, before.fans[i].pwm);
            EXPECT_EQ(after.fans[i].pwmEnable, before.fans[i].pwmEnable);
        }
    }
}

TEST(SamplerHwmon, MissingEverythingIsAbsent) {
    TreeCopy tree("intel-laptop");
    std::filesystem::remove_all(tree.root() / "sys");
    for (const std::string& root : {tree.rootString(), tree.rootString() + "/nowhere"}) {
        const HwmonSnapshot snapshot = HwmonSnapshotSampler(root).sample();
        EXPECT_FALSE(snapshot.cpuTemperatureC.has_value());
        EXPECT_FALSE(snapshot.cpuTemperatureFromThermalZone);
        EXPECT_FALSE(snapshot.gpuTemperatureC.has_value());
        EXPECT_TRUE(snapshot.fans.empty());
    }
}

}  // namespace
}  // namespace kelvo
