#include <gtest/gtest.h>

#include "foundation/telemetry/SystemTelemetryProvider.h"
#include "tests/foundation/LinuxFakeSysfs.h"

namespace kelvo {
namespace {

using test_support::FakeSysfs;

std::string procStat(std::uint64_t user, std::uint64_t system, std::uint64_t idle,
                     std::uint64_t iowait) {
    return "cpu  " + std::to_string(user) + " 0 " + std::to_string(system) + " " +
           std::to_string(idle) + " " + std::to_string(iowait) +
           " 0 0 0 0 0\n"
           "cpu0 1 2 3 4 5 6 7 8 0 0\n"
           "intr 12345\n";
}

void addCoretemp(const FakeSysfs& sys, int index) {
    const std::string hwmon = sys.addHwmon(index, "coretemp", "platform/coretemp.0");
    sys.write(hwmon + "/temp1_label", "Package id 0\n");
    sys.write(hwmon + "/temp1_input", "61000\n");
    sys.write(hwmon + "/temp2_label", "Core 0\n");
    sys.write(hwmon + "/temp2_input", "74000\n");
    sys.write(hwmon + "/temp3_label", "Core 1\n");
    sys.write(hwmon + "/temp3_input", "58000\n");
}

void addZone(const FakeSysfs& sys, int index, const std::string& type, int milliC) {
    const std::string zone = "sys/class/thermal/thermal_zone" + std::to_string(index);
    sys.write(zone + "/type", type + "\n");
    sys.write(zone + "/temp", std::to_string(milliC) + "\n");
}

void addTrip(const FakeSysfs& sys, int zoneIndex, int trip, const std::string& type, int milliC) {
    const std::string base = "sys/class/thermal/thermal_zone" + std::to_string(zoneIndex) +
                             "/trip_point_" + std::to_string(trip);
    sys.write(base + "_type", type + "\n");
    sys.write(base + "_temp", std::to_string(milliC) + "\n");
}

TEST(LinuxSystemTelemetry, UtilisationIsTheBusyShareBetweenSamples) {
    FakeSysfs sys;
    sys.write("proc/stat", procStat(1000, 500, 8000, 500));
    SystemTelemetryProvider provider(sys.root().string());

    const TelemetrySample first = provider.sample(100);
    EXPECT_EQ(first.timestamp, 100);
    EXPECT_FALSE(first.cpuUtilizationPct.has_value());

    // +150 busy (user 100, system 50), +450 idle (idle 400, iowait 50): 25 % busy.
    sys.write("proc/stat", procStat(1100, 550, 8400, 550));
    const auto second = provider.sample(101).cpuUtilizationPct;
    ASSERT_TRUE(second.has_value());
    EXPECT_DOUBLE_EQ(*second, 25.0);

    // Fully busy interval.
    sys.write("proc/stat", procStat(1300, 550, 8400, 550));
    EXPECT_EQ(provider.sample(102).cpuUtilizationPct, 100.0);
}

TEST(LinuxSystemTelemetry, UtilisationAbsentWhenCountersDoNotAdvance) {
    FakeSysfs sys;
    sys.write("proc/stat", procStat(1000, 500, 8000, 500));
    SystemTelemetryProvider provider(sys.root().string());
    provider.sample(1);
    EXPECT_FALSE(provider.sample(2).cpuUtilizationPct.has_value());
    sys.write("proc/stat", "garbage\n");
    EXPECT_FALSE(provider.sample(3).cpuUtilizationPct.has_value());
}

TEST(LinuxSystemTelemetry, ClockIsTheMeanOfTheCoresCurrentFrequency) {
    FakeSysfs sys;
    sys.write("sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq", "2000000\n");
    sys.write("sys/devices/system/cpu/cpu1/cpufreq/scaling_cur_freq", "3000000\n");
    sys.write("sys/devices/system/cpu/cpu10/cpufreq/scaling_cur_freq", "4000000\n");
    sys.mkdir("sys/devices/system/cpu/cpu2");  // offline core without cpufreq
    sys.write("sys/devices/system/cpu/cpufreq/policy0/scaling_cur_freq", "9000000\n");
    sys.mkdir("sys/devices/system/cpu/cpuidle");

    const TelemetrySample sample = SystemTelemetryProvider(sys.root().string()).sample(1);
    ASSERT_TRUE(sample.cpuClockMHz.has_value());
    EXPECT_DOUBLE_EQ(*sample.cpuClockMHz, 3000.0);
}

TEST(LinuxSystemTelemetry, CoretempPackageSensorWinsOverCoresAndZones) {
    FakeSysfs sys;
    addCoretemp(sys, 3);
    addZone(sys, 0, "x86_pkg_temp", 90000);

    const TelemetrySample sample = SystemTelemetryProvider(sys.root().string()).sample(1);
    EXPECT_EQ(sample.cpuTemperatureC, 61.0);
}

TEST(LinuxSystemTelemetry, K10tempPrefersTdieThenTctl) {
    FakeSysfs sys;
    const std::string hwmon = sys.addHwmon(0, "k10temp", "pci0000:00/0000:00:18.3");
    sys.write(hwmon + "/temp1_label", "Tctl\n");
    sys.write(hwmon + "/temp1_input", "77000\n");
    sys.write(hwmon + "/temp3_label", "Tccd1\n");
    sys.write(hwmon + "/temp3_input", "80000\n");
    EXPECT_EQ(SystemTelemetryProvider(sys.root().string()).sample(1).cpuTemperatureC, 77.0);

    sys.write(hwmon + "/temp2_label", "Tdie\n");
    sys.write(hwmon + "/temp2_input", "67000\n");
    EXPECT_EQ(SystemTelemetryProvider(sys.root().string()).sample(1).cpuTemperatureC, 67.0);
}

TEST(LinuxSystemTelemetry, ThermalZoneFallbackTakesTheHottestCpuZoneAndItsTrip) {
    FakeSysfs sys;
    addZone(sys, 0, "acpitz", 50000);
    addTrip(sys, 0, 0, "critical", 105000);
    addZone(sys, 1, "x86_pkg_temp", 66000);
    addTrip(sys, 1, 0, "passive", 0);  // unset writable trip
    addTrip(sys, 1, 1, "critical", 100000);
    addTrip(sys, 1, 2, "hot", 80000);
    addTrip(sys, 1, 3, "passive", 75000);
    addZone(sys, 2, "iwlwifi_1", 95000);  // not the CPU
    addTrip(sys, 2, 0, "passive", 60000);

    const TelemetrySample sample = SystemTelemetryProvider(sys.root().string()).sample(1);
    EXPECT_EQ(sample.cpuTemperatureC, 66.0);
    // 66 °C against the 75 °C passive trip: within 15 °C, more than 5 °C away.
    EXPECT_EQ(sample.thermalPressure, ThermalPressureLevel::fair);

    addZone(sys, 1, "x86_pkg_temp", 76000);
    EXPECT_EQ(SystemTelemetryProvider(sys.root().string()).sample(2).thermalPressure,
              ThermalPressureLevel::critical);
}

TEST(LinuxSystemTelemetry, PressureAbsentWithoutAPassiveOrHotTrip) {
    FakeSysfs sys;
    addZone(sys, 0, "acpitz", 50000);
    addTrip(sys, 0, 0, "critical", 105000);
    const TelemetrySample sample = SystemTelemetryProvider(sys.root().string()).sample(1);
    EXPECT_EQ(sample.cpuTemperatureC, 50.0);
    EXPECT_FALSE(sample.thermalPressure.has_value());
}

TEST(LinuxSystemTelemetry, HwmonTemperatureIsJudgedAgainstTheCpuZoneTrip) {
    FakeSysfs sys;
    addCoretemp(sys, 0);  // package 61 °C
    addZone(sys, 0, "x86_pkg_temp", 61000);
    addTrip(sys, 0, 0, "passive", 65000);
    EXPECT_EQ(SystemTelemetryProvider(sys.root().string()).sample(1).thermalPressure,
              ThermalPressureLevel::serious);
}

TEST(LinuxSystemTelemetry, PressureLevelBoundaries) {
    EXPECT_EQ(SystemTelemetryProvider::pressureLevel(84.9, 100), ThermalPressureLevel::nominal);
    EXPECT_EQ(SystemTelemetryProvider::pressureLevel(85, 100), ThermalPressureLevel::fair);
    EXPECT_EQ(SystemTelemetryProvider::pressureLevel(94.9, 100), ThermalPressureLevel::fair);
    EXPECT_EQ(SystemTelemetryProvider::pressureLevel(95, 100), ThermalPressureLevel::serious);
    EXPECT_EQ(SystemTelemetryProvider::pressureLevel(99.9, 100), ThermalPressureLevel::serious);
    EXPECT_EQ(SystemTelemetryProvider::pressureLevel(100, 100), ThermalPressureLevel::critical);
}

TEST(LinuxSystemTelemetry, AmdgpuEdgeTemperatureIsTheGpuTemperature) {
    FakeSysfs sys;
    const std::string gpu = sys.addHwmon(2, "amdgpu", "pci0000:00/0000:03:00.0");
    sys.write(gpu + "/temp1_label", "edge\n");
    sys.write(gpu + "/temp1_input", "52000\n");
    sys.write(gpu + "/temp2_label", "junction\n");
    sys.write(gpu + "/temp2_input", "70000\n");

    const TelemetrySample sample = SystemTelemetryProvider(sys.root().string()).sample(1);
    EXPECT_EQ(sample.gpuTemperatureC, 52.0);
    EXPECT_FALSE(sample.cpuTemperatureC.has_value());
}

TEST(LinuxSystemTelemetry, MissingEverythingLeavesEveryFieldAbsent) {
    FakeSysfs sys;
    for (const auto& root : {sys.root(), sys.root() / "does-not-exist"}) {
        SystemTelemetryProvider provider(root.string());
        provider.sample(1);
        const TelemetrySample sample = provider.sample(2);
        TelemetrySample expected;
        expected.timestamp = 2;
        EXPECT_EQ(sample, expected);
        EXPECT_FALSE(provider.highLoadPowerW().has_value());
    }
}

}  // namespace
}  // namespace kelvo
