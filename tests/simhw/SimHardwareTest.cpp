// The simulated machine's sysfs behaviour, called directly: what each attribute reads, what a
// write does, and each fault.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <string>
#include <vector>

#include "simhw/SimHardware.h"
#include "tests/simhw/TwoFanMachine.h"

namespace {

using namespace kelvo;
using namespace kelvo::simhw;

using kelvo::simhw::test_support::twoFans;

std::string read(const SimHardware& hw, const std::string& path) {
    const auto resolved = hw.tree().resolve(path);
    if (!resolved) return "<missing>";
    const Node* node = hw.tree().find(*resolved);
    if (!node || node->kind != NodeKind::file) return "<not a file>";
    return node->read();
}

int write(SimHardware& hw, const std::string& path, std::string_view text) {
    const auto resolved = hw.tree().resolve(path);
    if (!resolved) return -ENOENT;
    const Node* node = hw.tree().find(*resolved);
    if (!node || !node->write) return -EACCES;
    return node->write(text);
}

constexpr const char* kPwm1 = "sys/class/hwmon/hwmon2/pwm1";
constexpr const char* kEnable1 = "sys/class/hwmon/hwmon2/pwm1_enable";

void run(SimHardware& hw, int seconds, double cpu = 0.03) {
    for (int step = 0; step < seconds * 10; ++step) hw.step(0.1, cpu, 0.02);
}

TEST(SimHardware, LaysOutTheChipsAndCountersKelvoReads) {
    SimHardware hw("box", twoFans());
    EXPECT_EQ(read(hw, "sys/class/hwmon/hwmon0/name"), "coretemp\n");
    EXPECT_EQ(read(hw, "sys/class/hwmon/hwmon1/name"), "amdgpu\n");
    EXPECT_EQ(read(hw, "sys/class/hwmon/hwmon2/name"), "nct6798\n");
    EXPECT_EQ(read(hw, "sys/class/hwmon/hwmon2/fan1_max"), "4000\n");
    EXPECT_EQ(read(hw, "sys/class/hwmon/hwmon2/fan2_min"), "600\n");
    EXPECT_EQ(read(hw, "sys/class/hwmon/hwmon2/fan2_label"), "Case fan\n");
    EXPECT_EQ(read(hw, "sys/devices/system/cpu/cpu1/cpufreq/cpuinfo_max_freq"), "4200000\n");
    EXPECT_EQ(read(hw, "sys/devices/system/cpu/cpu2/cpufreq/cpuinfo_max_freq"), "<missing>");
    EXPECT_EQ(read(hw, "sys/class/powercap/intel-rapl:0/name"), "package-0\n");
    EXPECT_EQ(read(hw, "sys/class/thermal/thermal_zone0/type"), "x86_pkg_temp\n");
    EXPECT_EQ(read(hw, "sys/class/drm/card0/device/gpu_busy_percent").empty(), false);
    // The hwmon directory's device link leads back to the chip's device.
    EXPECT_EQ(hw.tree().resolve("sys/class/hwmon/hwmon2/device"),
              "sys/devices/platform/nct6775.656");
    const std::string temp = read(hw, "sys/class/hwmon/hwmon0/temp1_input");
    EXPECT_GT(std::stoi(temp), 24000);
}

// A sensor that reads whole degrees (coretemp, the graphics drivers) is served so: every
// temperature Kelvo reads is the model's to the nearest step, and a step of 0 serves it as it is.
TEST(SimHardware, TemperaturesAreServedInTheStepsTheirSensorsReportIn) {
    const std::vector<std::string> sensors{
        "sys/class/hwmon/hwmon0/temp1_input", "sys/class/hwmon/hwmon1/temp1_input",
        "sys/class/hwmon/hwmon2/temp1_input", "sys/class/thermal/thermal_zone0/temp"};
    for (double step : {0.0, 1.0, 0.125}) {
        sim::PlantConfig config = twoFans();
        config.temperatureStepC = step;
        SimHardware hw("box", config);
        bool between = false;  // some reading fell between two steps of a whole degree
        for (int second = 0; second < 60; ++second) {
            run(hw, 1, 1.0);
            const double model[] = {hw.state().cpuTemperatureC, hw.state().gpuTemperatureC,
                                    hw.state().sinkTemperatureC, hw.state().cpuTemperatureC};
            for (std::size_t i = 0; i < sensors.size(); ++i) {
                const long long milli = std::stoll(read(hw, sensors[i]));
                if (step > 0) {
                    const long long stepMilli = std::llround(step * 1000);
                    EXPECT_EQ(milli % stepMilli, 0) << sensors[i] << " at step " << step;
                    EXPECT_LE(std::abs(milli / 1000.0 - model[i]), step / 2 + 1e-9) << sensors[i];
                } else {
                    EXPECT_EQ(milli, std::llround(model[i] * 1000)) << sensors[i];
                }
                between = between || milli % 1000 != 0;
            }
        }
        // Under full load the dies climb through many degrees: an exact or an eighth-degree
        // sensor shows fractions on the way, a whole-degree one never does.
        EXPECT_EQ(between, step != 1.0) << "step " << step;
    }
}

TEST(SimHardware, ProcStatCountersAdvanceWithTheLoad) {
    SimHardware hw("box", twoFans());
    auto busyOf = [](const std::string& stat) {
        unsigned long long user = 0, nice = 0, system = 0, idle = 0;
        std::sscanf(stat.c_str(), "cpu %llu %llu %llu %llu", &user, &nice, &system, &idle);
        return std::pair{user + nice + system, idle};
    };
    const auto before = busyOf(read(hw, "proc/stat"));
    run(hw, 10, 0.9);
    const auto after = busyOf(read(hw, "proc/stat"));
    const double busy = static_cast<double>(after.first - before.first);
    const double idle = static_cast<double>(after.second - before.second);
    // Two CPUs at 100 ticks a second for ten seconds, about 90 % of them busy.
    EXPECT_NEAR(busy + idle, 2000, 5);
    EXPECT_NEAR(busy / (busy + idle), 0.9, 0.03);
    EXPECT_NE(read(hw, "proc/stat").find("\ncpu1 "), std::string::npos);
}

TEST(SimHardware, EnergyCounterIntegratesThePackagePower) {
    SimHardware hw("box", twoFans());
    const auto before = std::stoull(read(hw, "sys/class/powercap/intel-rapl:0/energy_uj"));
    run(hw, 5, 1.0);
    const auto after = std::stoull(read(hw, "sys/class/powercap/intel-rapl:0/energy_uj"));
    const double watts = static_cast<double>(after - before) / 5e6;
    EXPECT_GT(watts, 30);
    EXPECT_LE(watts, 65.5);
}

TEST(SimHardware, ManualDutyDrivesTheFanAndFirmwareModeFollowsTheCurve) {
    SimHardware hw("box", twoFans());
    EXPECT_EQ(read(hw, kEnable1), "2\n");
    ASSERT_EQ(write(hw, kEnable1, "1\n"), 0);
    ASSERT_EQ(write(hw, kPwm1, "255"), 0);
    run(hw, 8);
    EXPECT_EQ(read(hw, kPwm1), "255\n");
    EXPECT_NEAR(std::stoi(read(hw, "sys/class/hwmon/hwmon2/fan1_input")), 4000, 40);
    ASSERT_EQ(write(hw, kPwm1, "0\n"), 0);
    run(hw, 8);
    EXPECT_NEAR(std::stoi(read(hw, "sys/class/hwmon/hwmon2/fan1_input")), 800, 40);
    // Back to the firmware: an idle machine's curve sits at the minimum.
    ASSERT_EQ(write(hw, kEnable1, "2"), 0);
    run(hw, 8);
    EXPECT_NEAR(std::stoi(read(hw, "sys/class/hwmon/hwmon2/fan1_input")), 800, 40);
    // Full speed.
    ASSERT_EQ(write(hw, kEnable1, "0"), 0);
    run(hw, 8);
    EXPECT_EQ(read(hw, kPwm1), "255\n");
    EXPECT_NEAR(std::stoi(read(hw, "sys/class/hwmon/hwmon2/fan1_input")), 4000, 40);
}

// A machine file's coupling matrix reaches the dies that sysfs shows: with fan 1 coupled to the
// CPU's sink and fan 2 to the GPU's, the GPU's temperature follows pwm2, not pwm1.
TEST(SimHardware, EachPwmCoolsTheDieItsFanIsCoupledTo) {
    auto gpuAfter = [](const char* pwm1, const char* pwm2) {
        sim::PlantConfig config = twoFans();
        config.fans[0].cpuCooling = 1;
        config.fans[0].gpuCooling = 0;
        config.fans[1].cpuCooling = 0;
        config.fans[1].gpuCooling = 1;
        SimHardware hw("coupled", config);
        for (const char* enable : {kEnable1, "sys/class/hwmon/hwmon2/pwm2_enable"})
            EXPECT_EQ(write(hw, enable, "1"), 0);
        EXPECT_EQ(write(hw, kPwm1, pwm1), 0);
        EXPECT_EQ(write(hw, "sys/class/hwmon/hwmon2/pwm2", pwm2), 0);
        for (int step = 0; step < 6000; ++step) hw.step(0.1, 0.03, 0.25);
        return std::stoi(read(hw, "sys/class/hwmon/hwmon1/temp1_input"));
    };
    const int cardFanFast = gpuAfter("0", "255");
    const int coolerFanFast = gpuAfter("255", "0");
    const int bothSlow = gpuAfter("0", "0");
    EXPECT_LT(cardFanFast, coolerFanFast - 10000);
    EXPECT_EQ(coolerFanFast, bothSlow);
}

// Fan 1 stops below duty 51 and needs 77 to start from rest.
sim::PlantConfig fanStop() {
    sim::PlantConfig config = twoFans();
    config.fans[0].stopBelowDuty = 51;
    config.fans[0].startDuty = 77;
    return config;
}

int fan1RPM(const SimHardware& hw) {
    return std::stoi(read(hw, "sys/class/hwmon/hwmon2/fan1_input"));
}

TEST(SimHardware, AFanThatCanStopRestsUnderItsStopDutyUntilGivenItsStartDuty) {
    SimHardware hw("box", fanStop());
    ASSERT_EQ(write(hw, kEnable1, "1"), 0);
    // Turning, it runs from its minimum at the stop duty to its maximum at full duty.
    ASSERT_EQ(write(hw, kPwm1, "51"), 0);
    run(hw, 8);
    EXPECT_NEAR(fan1RPM(hw), 800, 40);
    ASSERT_EQ(write(hw, kPwm1, "153"), 0);
    run(hw, 8);
    EXPECT_NEAR(fan1RPM(hw), 800 + 3200 * (153 - 51) / 204.0, 40);
    // Under the stop duty it comes to rest: no pulses, 0 rpm.
    ASSERT_EQ(write(hw, kPwm1, "40"), 0);
    run(hw, 8);
    EXPECT_EQ(read(hw, "sys/class/hwmon/hwmon2/fan1_input"), "0\n");
    EXPECT_EQ(read(hw, kPwm1), "40\n");
    // At rest, a duty between the two does not start it...
    ASSERT_EQ(write(hw, kPwm1, "70"), 0);
    run(hw, 8);
    EXPECT_EQ(fan1RPM(hw), 0);
    // ...the start duty does, and then it keeps turning down to its stop duty.
    ASSERT_EQ(write(hw, kPwm1, "77"), 0);
    run(hw, 8);
    EXPECT_GT(fan1RPM(hw), 800);
    ASSERT_EQ(write(hw, kPwm1, "55"), 0);
    run(hw, 8);
    EXPECT_GE(fan1RPM(hw), 800 - 5);
    // A fan without the fields never stops: duty 0 is its minimum, as always.
    ASSERT_EQ(write(hw, "sys/class/hwmon/hwmon2/pwm2_enable", "1"), 0);
    ASSERT_EQ(write(hw, "sys/class/hwmon/hwmon2/pwm2", "0"), 0);
    run(hw, 8);
    EXPECT_NEAR(std::stoi(read(hw, "sys/class/hwmon/hwmon2/fan2_input")), 600, 30);
}

TEST(SimHardware, TheFirmwareStopsFansThatCanStopWhenCoolAndPwmReadsItsDuty) {
    sim::PlantConfig config = fanStop();
    config.firmwareStopBelowC = 60;
    config.firmwareStopHysteresisC = 6;
    SimHardware hw("box", config);
    run(hw, 5);
    ASSERT_LT(hw.state().cpuTemperatureC, 60);
    // Automatic mode: the firmware has the fan at rest and pwm1 reads the 0 it gives it.
    EXPECT_EQ(read(hw, kEnable1), "2\n");
    EXPECT_EQ(read(hw, kPwm1), "0\n");
    EXPECT_EQ(fan1RPM(hw), 0);
    // The fan that cannot stop is on the curve's floor.
    EXPECT_EQ(read(hw, "sys/class/hwmon/hwmon2/pwm2"), "0\n");
    EXPECT_NEAR(std::stoi(read(hw, "sys/class/hwmon/hwmon2/fan2_input")), 600, 30);

    // Taken into manual mode at rest, a duty under the start duty leaves it there.
    ASSERT_EQ(write(hw, kEnable1, "1"), 0);
    ASSERT_EQ(write(hw, kPwm1, "60"), 0);
    run(hw, 5);
    EXPECT_EQ(fan1RPM(hw), 0);
    ASSERT_EQ(write(hw, kEnable1, "2"), 0);

    // Loaded, the firmware starts it past the hysteresis, and pwm1 follows its curve.
    run(hw, 300, 1.0);
    ASSERT_GT(hw.state().cpuTemperatureC, 66);
    EXPECT_GE(std::stoi(read(hw, kPwm1)), 51);
    EXPECT_GT(fan1RPM(hw), 800);
}

TEST(SimHardware, AnInvalidValueIsRefusedAndChangesNothing) {
    SimHardware hw("box", twoFans());
    ASSERT_EQ(write(hw, kEnable1, "1"), 0);
    ASSERT_EQ(write(hw, kPwm1, "100"), 0);
    for (const char* bad : {"256", "-1", "abc", "", "12 34", "0x10", "99999999999999999999999"})
        EXPECT_EQ(write(hw, kPwm1, bad), -EINVAL) << bad;
    for (const char* bad : {"3", "7", "-1", "one"}) EXPECT_EQ(write(hw, kEnable1, bad), -EINVAL);
    EXPECT_EQ(read(hw, kPwm1), "100\n");
    EXPECT_EQ(read(hw, kEnable1), "1\n");
}

TEST(SimHardware, TakebackHandsTheFanToTheFirmware) {
    SimHardware hw("box", twoFans());
    ASSERT_EQ(write(hw, kEnable1, "1"), 0);
    ASSERT_EQ(write(hw, kPwm1, "255"), 0);
    EXPECT_EQ(hw.applyFault("takeback sys/class/hwmon/hwmon2/pwm1"), "");
    EXPECT_EQ(read(hw, kEnable1), "2\n");
    run(hw, 8);
    EXPECT_NEAR(std::stoi(read(hw, "sys/class/hwmon/hwmon2/fan1_input")), 800, 40);
}

TEST(SimHardware, EioFailsDutyWritesUntilCleared) {
    SimHardware hw("box", twoFans());
    EXPECT_EQ(hw.applyFault("eio sys/class/hwmon/hwmon2/pwm2"), "");
    EXPECT_EQ(write(hw, "sys/class/hwmon/hwmon2/pwm2", "50"), -EIO);
    EXPECT_EQ(write(hw, kPwm1, "50"), 0);
    // Giving the fan back still works: the enable file is not affected.
    EXPECT_EQ(write(hw, "sys/class/hwmon/hwmon2/pwm2_enable", "2"), 0);
    EXPECT_EQ(hw.applyFault("clear"), "");
    EXPECT_EQ(write(hw, "sys/class/hwmon/hwmon2/pwm2", "50"), 0);
}

TEST(SimHardware, AStalledFanStopsWhateverItIsTold) {
    SimHardware hw("box", twoFans());
    ASSERT_EQ(write(hw, kEnable1, "1"), 0);
    ASSERT_EQ(write(hw, kPwm1, "255"), 0);
    EXPECT_EQ(hw.applyFault("stall sys/class/hwmon/hwmon2/pwm1"), "");
    run(hw, 10);
    EXPECT_EQ(read(hw, "sys/class/hwmon/hwmon2/fan1_input"), "0\n");
    EXPECT_EQ(read(hw, kPwm1), "255\n");
    EXPECT_EQ(hw.applyFault("clear"), "");
    run(hw, 10);
    EXPECT_NEAR(std::stoi(read(hw, "sys/class/hwmon/hwmon2/fan1_input")), 4000, 60);
}

TEST(SimHardware, AVanishedSensorIsGoneUntilCleared) {
    SimHardware hw("box", twoFans());
    EXPECT_EQ(hw.applyFault("vanish sys/class/hwmon/hwmon0/temp1_input"), "");
    EXPECT_EQ(read(hw, "sys/class/hwmon/hwmon0/temp1_input"), "<missing>");
    EXPECT_EQ(read(hw, "sys/class/hwmon/hwmon0/name"), "coretemp\n");
    EXPECT_EQ(hw.applyFault("clear"), "");
    EXPECT_NE(read(hw, "sys/class/hwmon/hwmon0/temp1_input"), "<missing>");
}

TEST(SimHardware, ARebindBringsTheChipBackUnderANewNumberOnFirmwareControl) {
    SimHardware hw("box", twoFans());
    ASSERT_EQ(write(hw, kEnable1, "1"), 0);
    EXPECT_EQ(hw.applyFault("rebind sys/class/hwmon/hwmon2"), "");
    EXPECT_EQ(read(hw, kEnable1), "<missing>");
    EXPECT_EQ(hw.fanChipPath(), "sys/class/hwmon/hwmon3");
    EXPECT_EQ(read(hw, "sys/class/hwmon/hwmon3/name"), "nct6798\n");
    EXPECT_EQ(read(hw, "sys/class/hwmon/hwmon3/pwm1_enable"), "2\n");
    // Same device behind the new number: what identifies the fan stays the same.
    EXPECT_EQ(hw.tree().resolve("sys/class/hwmon/hwmon3/device"),
              "sys/devices/platform/nct6775.656");
}

TEST(SimHardware, FaultsThatMakeNoSenseAreRefusedWithAReason) {
    SimHardware hw("box", twoFans());
    EXPECT_NE(hw.applyFault("explode sys/class/hwmon/hwmon2/pwm1"), "");
    EXPECT_NE(hw.applyFault("takeback"), "");
    EXPECT_NE(hw.applyFault("takeback sys/class/hwmon/hwmon2/pwm9"), "");
    EXPECT_NE(hw.applyFault("eio sys/class/hwmon/hwmon0/temp1_input"), "");
    EXPECT_NE(hw.applyFault("vanish sys/class/hwmon/hwmon7/temp1_input"), "");
    EXPECT_NE(hw.applyFault("rebind sys/class/powercap"), "");
    EXPECT_NE(hw.applyFault("clear now"), "");
    EXPECT_EQ(read(hw, kEnable1), "2\n");
}

TEST(SimHardware, CountsEveryAcceptedFanWrite) {
    SimHardware hw("box", twoFans());
    EXPECT_EQ(hw.writeCounts(), "fan1 pwm 0\nfan1 enable 0\nfan2 pwm 0\nfan2 enable 0\n");
    ASSERT_EQ(write(hw, kEnable1, "1"), 0);
    ASSERT_EQ(write(hw, kPwm1, "10"), 0);
    ASSERT_EQ(write(hw, kPwm1, "20"), 0);
    EXPECT_EQ(write(hw, kPwm1, "999"), -EINVAL);  // refused: not counted
    EXPECT_EQ(hw.writeCounts(), "fan1 pwm 2\nfan1 enable 1\nfan2 pwm 0\nfan2 enable 0\n");
}

TEST(SimHardware, ParsesWritesTheWayTheKernelDoes) {
    EXPECT_EQ(parseSysfsInteger("128\n"), 128);
    EXPECT_EQ(parseSysfsInteger(" 7 "), 7);
    EXPECT_EQ(parseSysfsInteger("-3"), -3);
    EXPECT_FALSE(parseSysfsInteger("\n"));
    EXPECT_FALSE(parseSysfsInteger("1.5"));
    EXPECT_FALSE(parseSysfsInteger("1 2"));
    // A fixed-size buffer after the digits, as some programs write it: the kernel stops at the
    // first NUL.
    EXPECT_EQ(parseSysfsInteger(std::string_view("2\0\0\0garbage", 11)), 2);
    EXPECT_FALSE(
        parseSysfsInteger(std::string_view("\0"
                                           "2",
                                           2)));
}

}  // namespace
