#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "foundation/fans/HwmonFanService.h"
#include "tests/foundation/LinuxFakeSysfs.h"

namespace kelvo {
namespace {

using test_support::FakeSysfs;

// A Super I/O chip with two PWM fans and an ACPI fan that only reports its speed.
void buildBoard(const FakeSysfs& sys, int superIoIndex, int acpiIndex) {
    const std::string superIo = sys.addHwmon(superIoIndex, "it87", "platform/it87.656");
    sys.write(superIo + "/fan1_input", "1200\n");
    sys.write(superIo + "/fan1_min", "300\n");
    sys.write(superIo + "/fan1_max", "4000\n");
    sys.write(superIo + "/fan1_target", "1250\n");
    sys.write(superIo + "/pwm1", "90\n");
    sys.write(superIo + "/pwm1_enable", "2\n");
    sys.write(superIo + "/fan2_input", "800\n");
    sys.write(superIo + "/pwm2", "60\n");
    sys.write(superIo + "/pwm2_enable", "5\n");
    sys.write(superIo + "/temp1_input", "45000\n");  // not a fan

    const std::string acpi = sys.addHwmon(acpiIndex, "acpi_fan", "platform/PNP0C0B:00");
    sys.write(acpi + "/fan1_input", "2100\n");
}

std::vector<std::string> identities(const std::vector<HwmonFan>& fans) {
    std::vector<std::string> result;
    for (const auto& fan : fans) result.push_back(fan.identity);
    return result;
}

const HwmonFan& fanNamed(const std::vector<HwmonFan>& fans, const std::string& identity) {
    for (const auto& fan : fans) {
        if (fan.identity == identity) return fan;
    }
    throw std::runtime_error("no fan " + identity);
}

TEST(HwmonFanService, DiscoversFansWithDriverDeviceAndChannelIdentity) {
    FakeSysfs sys;
    buildBoard(sys, 0, 1);
    HwmonFanService service(sys.root().string());

    const auto fans = service.discover();
    EXPECT_EQ(identities(fans),
              (std::vector<std::string>{"acpi_fan@/sys/devices/platform/PNP0C0B:00#fan1",
                                        "it87@/sys/devices/platform/it87.656#fan1",
                                        "it87@/sys/devices/platform/it87.656#fan2"}));

    const HwmonFan& fan1 = fanNamed(fans, "it87@/sys/devices/platform/it87.656#fan1");
    EXPECT_EQ(fan1.driver, "it87");
    EXPECT_EQ(fan1.devicePath, "/sys/devices/platform/it87.656");
    EXPECT_EQ(fan1.channel, 1);
    EXPECT_TRUE(fan1.controllable);
    EXPECT_EQ(fan1.currentRPM, 1200);
    EXPECT_EQ(fan1.minRPM, 300);
    EXPECT_EQ(fan1.maxRPM, 4000);
    EXPECT_EQ(fan1.targetRPM, 1250);
    EXPECT_EQ(fan1.pwm, 90);
    EXPECT_EQ(fan1.pwmEnable, 2);

    const HwmonFan& fan2 = fanNamed(fans, "it87@/sys/devices/platform/it87.656#fan2");
    EXPECT_TRUE(fan2.controllable);
    EXPECT_EQ(fan2.minRPM, 0);
    EXPECT_EQ(fan2.maxRPM, 0);
    EXPECT_FALSE(fan2.targetRPM.has_value());
    EXPECT_EQ(fan2.pwmEnable, 5);

    const HwmonFan& acpi = fanNamed(fans, "acpi_fan@/sys/devices/platform/PNP0C0B:00#fan1");
    EXPECT_FALSE(acpi.controllable);
    EXPECT_EQ(acpi.currentRPM, 2100);
    EXPECT_FALSE(acpi.pwm.has_value());
}

TEST(HwmonFanService, IdentityAndOrderSurviveHwmonRenumbering) {
    FakeSysfs first;
    buildBoard(first, 0, 1);
    FakeSysfs renumbered;
    buildBoard(renumbered, 4, 2);

    const auto before = HwmonFanService(first.root().string()).discover();
    const auto after = HwmonFanService(renumbered.root().string()).discover();
    ASSERT_EQ(before.size(), 3u);
    EXPECT_EQ(identities(before), identities(after));
    for (const auto& fan : after) EXPECT_EQ(fan.identity.find("hwmon"), std::string::npos);
    EXPECT_NE(before[1].hwmonDir.filename(), after[1].hwmonDir.filename());
}

TEST(HwmonFanService, HwmonWithoutDeviceIsVirtual) {
    FakeSysfs sys;
    const std::string hwmon = sys.addHwmon(0, "acpi_fan", std::nullopt);
    sys.write(hwmon + "/fan1_input", "3100\n");
    const auto fans = HwmonFanService(sys.root().string()).discover();
    EXPECT_EQ(identities(fans), std::vector<std::string>{"acpi_fan@virtual#fan1"});
}

TEST(HwmonFanService, MissingOrFanlessTreeHasNoFans) {
    FakeSysfs sys;
    EXPECT_TRUE(HwmonFanService(sys.root().string()).discover().empty());
    const std::string cpu = sys.addHwmon(0, "coretemp", "platform/coretemp.0");
    sys.write(cpu + "/temp1_input", "50000\n");
    EXPECT_TRUE(HwmonFanService(sys.root().string()).discover().empty());
    EXPECT_TRUE(HwmonFanService((sys.root() / "nowhere").string()).discover().empty());
}

TEST(HwmonFanService, ReadRPMFollowsTheInputFile) {
    FakeSysfs sys;
    buildBoard(sys, 0, 1);
    HwmonFanService service(sys.root().string());
    const HwmonFan fan = fanNamed(service.discover(), "it87@/sys/devices/platform/it87.656#fan1");

    EXPECT_EQ(service.readRPM(fan), 1200);
    sys.write("sys/class/hwmon/hwmon0/fan1_input", "1875\n");
    EXPECT_EQ(service.readRPM(fan), 1875);
    std::filesystem::remove(sys.path("sys/class/hwmon/hwmon0/fan1_input"));
    EXPECT_FALSE(service.readRPM(fan).has_value());
}

TEST(HwmonFanService, WritePWMSwitchesToManualAndRestoreGivesOriginalModeBack) {
    FakeSysfs sys;
    buildBoard(sys, 0, 1);
    HwmonFanService service(sys.root().string());
    const auto fans = service.discover();
    const HwmonFan& fan1 = fanNamed(fans, "it87@/sys/devices/platform/it87.656#fan1");
    const HwmonFan& fan2 = fanNamed(fans, "it87@/sys/devices/platform/it87.656#fan2");

    std::string error;
    ASSERT_TRUE(service.writePWM(fan1, 128, &error)) << error;
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1_enable"), "1");
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1"), "128");
    EXPECT_EQ(service.originalEnable(fan1), 2);

    // The second write must not mistake Kelvo's own manual mode for the original one.
    ASSERT_TRUE(service.writePWM(fan1, 200, &error)) << error;
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1"), "200");
    EXPECT_EQ(service.originalEnable(fan1), 2);

    ASSERT_TRUE(service.writePWM(fan2, 10, &error)) << error;
    EXPECT_EQ(service.originalEnable(fan2), 5);

    ASSERT_TRUE(service.restore(fan1, &error)) << error;
    ASSERT_TRUE(service.restore(fan2, &error)) << error;
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1_enable"), "2");
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm2_enable"), "5");
    EXPECT_FALSE(service.originalEnable(fan1).has_value());
}

TEST(HwmonFanService, RestoreWithoutAnEarlierWriteSelectsAutomatic) {
    FakeSysfs sys;
    buildBoard(sys, 0, 1);
    sys.write("sys/class/hwmon/hwmon0/pwm1_enable", "1\n");
    HwmonFanService service(sys.root().string());
    const HwmonFan fan = fanNamed(service.discover(), "it87@/sys/devices/platform/it87.656#fan1");

    std::string error;
    ASSERT_TRUE(service.restore(fan, &error)) << error;
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1_enable"), "2");
}

TEST(HwmonFanService, RestoreOfAChannelThatWasManualPutsItsDutyCycleBack) {
    FakeSysfs sys;
    buildBoard(sys, 0, 1);
    sys.write("sys/class/hwmon/hwmon0/pwm1_enable", "1\n");
    HwmonFanService service(sys.root().string());
    const HwmonFan fan = fanNamed(service.discover(), "it87@/sys/devices/platform/it87.656#fan1");

    std::string error;
    ASSERT_TRUE(service.writePWM(fan, 250, &error)) << error;
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1"), "250");
    ASSERT_TRUE(service.restore(fan, &error)) << error;
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1_enable"), "1");
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1"), "90");
}

TEST(HwmonFanService, WritePWMClampsToTheDutyCycleRange) {
    FakeSysfs sys;
    buildBoard(sys, 0, 1);
    HwmonFanService service(sys.root().string());
    const HwmonFan fan = fanNamed(service.discover(), "it87@/sys/devices/platform/it87.656#fan1");

    std::string error;
    ASSERT_TRUE(service.writePWM(fan, 300, &error)) << error;
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1"), "255");
    ASSERT_TRUE(service.writePWM(fan, -4, &error)) << error;
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1"), "0");
}

TEST(HwmonFanService, FailedWriteNamesPathAndReasonAndLeavesModeAlone) {
    FakeSysfs sys;
    buildBoard(sys, 0, 1);
    std::filesystem::remove(sys.path("sys/class/hwmon/hwmon0/pwm1"));
    sys.mkdir("sys/class/hwmon/hwmon0/pwm1");
    HwmonFanService service(sys.root().string());
    const HwmonFan fan = fanNamed(service.discover(), "it87@/sys/devices/platform/it87.656#fan1");

    std::string error;
    int errorNumber = 0;
    EXPECT_FALSE(service.writePWM(fan, 128, &error, &errorNumber));
    EXPECT_EQ(errorNumber, EISDIR);
    EXPECT_NE(error.find(fan.pwmPath().string()), std::string::npos) << error;
    EXPECT_NE(error.find(std::strerror(EISDIR)), std::string::npos) << error;
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1_enable"), "2");
    EXPECT_FALSE(service.originalEnable(fan).has_value());
}

TEST(HwmonFanService, WritePWMRefusesAFanWithoutControl) {
    FakeSysfs sys;
    buildBoard(sys, 0, 1);
    HwmonFanService service(sys.root().string());
    const HwmonFan fan =
        fanNamed(service.discover(), "acpi_fan@/sys/devices/platform/PNP0C0B:00#fan1");

    std::string error;
    EXPECT_FALSE(service.writePWM(fan, 128, &error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(std::filesystem::exists(sys.path("sys/class/hwmon/hwmon1/pwm1")));
}

}  // namespace
}  // namespace kelvo
