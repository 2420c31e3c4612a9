#include <gtest/gtest.h>

#include "foundation/telemetry/ThermalPressureSampler.h"
#include "tests/foundation/SamplerTestTrees.h"

namespace kelvo {
namespace {

using test_support::sysfsTree;
using test_support::TreeCopy;

constexpr const char* kCpu2CoreCount =
    "sys/devices/system/cpu/cpu2/thermal_throttle/core_throttle_count";
constexpr const char* kCpu0PackageCount =
    "sys/devices/system/cpu/cpu0/thermal_throttle/package_throttle_count";

TEST(SamplerThermalPressure, LaptopPackageTemperatureAgainstTheLowestCpuTrip) {
    ThermalPressureSampler sampler(sysfsTree("intel-laptop").string());
    // 63 °C against acpitz's 75 °C passive trip (the Wi-Fi zone's 50 °C is not the CPU's).
    EXPECT_EQ(sampler.sample(63.0), ThermalPressureLevel::fair);
    EXPECT_EQ(sampler.sample(56.0), ThermalPressureLevel::nominal);
    EXPECT_EQ(sampler.sample(71.0), ThermalPressureLevel::serious);
    EXPECT_EQ(sampler.sample(75.0), ThermalPressureLevel::critical);
}

TEST(SamplerThermalPressure, RisingThrottleCounterRaisesToSerious) {
    TreeCopy tree("intel-laptop");
    ThermalPressureSampler sampler(tree.rootString());
    EXPECT_EQ(sampler.sample(50.0), ThermalPressureLevel::nominal);
    tree.write(kCpu2CoreCount, 4);  // was 3
    EXPECT_EQ(sampler.sample(50.0), ThermalPressureLevel::serious);
    EXPECT_EQ(sampler.sample(50.0), ThermalPressureLevel::nominal);  // no further rise
    tree.write(kCpu0PackageCount, 41);                               // was 40
    EXPECT_EQ(sampler.sample(50.0), ThermalPressureLevel::serious);
    tree.write(kCpu0PackageCount, 42);
    EXPECT_EQ(sampler.sample(80.0), ThermalPressureLevel::critical);  // never lowered
}

TEST(SamplerThermalPressure, CountersAloneGiveALevelOnceThereIsABaseline) {
    TreeCopy tree("intel-laptop");
    tree.remove("sys/class/thermal/thermal_zone0/trip_point_1_type");  // no passive trip left
    ThermalPressureSampler sampler(tree.rootString());
    EXPECT_FALSE(sampler.sample(63.0).has_value());
    EXPECT_EQ(sampler.sample(63.0), ThermalPressureLevel::nominal);
    tree.write(kCpu2CoreCount, 10);
    EXPECT_EQ(sampler.sample(63.0), ThermalPressureLevel::serious);
}

TEST(SamplerThermalPressure, ACounterThatWentBackDoesNotRaise) {
    TreeCopy tree("intel-laptop");
    ThermalPressureSampler sampler(tree.rootString());
    sampler.sample(50.0);
    tree.write(kCpu2CoreCount, 0);  // counters restart when a core comes back online
    EXPECT_EQ(sampler.sample(50.0), ThermalPressureLevel::nominal);
}

TEST(SamplerThermalPressure, DesktopWithoutTripsOrCountersHasNoLevel) {
    ThermalPressureSampler sampler(sysfsTree("amd-desktop").string());
    EXPECT_FALSE(sampler.sample(61.25).has_value());
    EXPECT_FALSE(sampler.sample(61.25).has_value());
}

TEST(SamplerThermalPressure, WithoutASensorTheHottestZoneIsJudgedAgainstItsOwnTrip) {
    TreeCopy tree("no-fans");  // x86_pkg_temp 47 °C, passive trip 85 °C; acpitz critical only
    ThermalPressureSampler sampler(tree.rootString());
    EXPECT_EQ(sampler.sample(std::nullopt), ThermalPressureLevel::nominal);
    tree.write("sys/class/thermal/thermal_zone1/temp", 81000);
    EXPECT_EQ(sampler.sample(std::nullopt), ThermalPressureLevel::serious);
    // A hotter zone without trips of its own says nothing.
    tree.write("sys/class/thermal/thermal_zone0/temp", 99000);
    EXPECT_FALSE(sampler.sample(std::nullopt).has_value());
}

TEST(SamplerThermalPressure, MissingEverythingIsAbsent) {
    TreeCopy tree("intel-laptop");
    std::filesystem::remove_all(tree.root() / "sys");
    for (const std::string& root : {tree.rootString(), tree.rootString() + "/nowhere"}) {
        ThermalPressureSampler sampler(root);
        EXPECT_FALSE(sampler.sample(90.0).has_value());
        EXPECT_FALSE(sampler.sample(std::nullopt).has_value());
    }
}

}  // namespace
}  // namespace kelvo
