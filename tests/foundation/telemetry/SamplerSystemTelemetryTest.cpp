#include <gtest/gtest.h>

#include <map>

#include "foundation/telemetry/SystemTelemetryProvider.h"
#include "tests/foundation/SamplerTestTrees.h"

namespace kelvo {
namespace {

using test_support::procStat;
using test_support::sysfsTree;
using test_support::TreeCopy;

TEST(SamplerSystemTelemetry, IntelLaptopFullSample) {
    TreeCopy tree("intel-laptop");
    SystemTelemetryProvider provider(tree.rootString());
    EXPECT_FALSE(provider.nvmlAvailable());  // a fake tree never loads the real NVML

    TelemetrySample expected;
    expected.timestamp = 100;
    expected.cpuTemperatureC = 63;
    expected.cpuClockMHz = 3100;
    expected.thermalPressure = ThermalPressureLevel::fair;
    expected.gpuClockMHz = 1050;
    expected.gpuReferenceMaxClockMHz = 1300;
    expected.fanCurrentRPM = {2900};
    expected.fanTargetRPM = {0};
    expected.fanMaxRPM = {5200};
    expected.fanMinRPM = {0};
    expected.fanNames = {"ec_fan@/sys/devices/platform/ec_fan.0#fan1"};
    EXPECT_EQ(provider.sample(100), expected);
    EXPECT_DOUBLE_EQ(provider.highLoadPowerW().value_or(0), 0.45 * 28);

    // One second later: the load sits on the efficiency cores and 12 J went through.
    tree.write("proc/stat",
               "cpu  42300 300 9100 180550 1250 0 500 0 0 0\n"
               "cpu0 14010 100 3000 40090 300 0 200 0 0 0\n"
               "cpu1 14010 100 2800 42090 300 0 150 0 0 0\n"
               "cpu2 8140 50 1750 49010 300 0 80 0 0 0\n"
               "cpu3 7140 50 1550 49010 300 0 70 0 0 0");
    tree.write("sys/class/powercap/intel-rapl:0/energy_uj", 51234567890 + 11'000'000);
    tree.write("sys/class/powercap/intel-rapl:0:2/energy_uj", 3500000000 + 1'000'000);
    tree.write("sys/devices/system/cpu/cpu3/thermal_throttle/core_throttle_count", 5);
    const TelemetrySample second = provider.sample(101);
    EXPECT_EQ(second.cpuUtilizationPct, 40.0);  // +400 busy, +600 idle (50 of it iowait)
    EXPECT_EQ(second.cpuClockMHz, 2200);
    EXPECT_EQ(second.totalPowerW, 12.0);
    EXPECT_EQ(second.thermalPressure, ThermalPressureLevel::serious);
}

TEST(SamplerSystemTelemetry, AmdDesktopFullSample) {
    SystemTelemetryProvider provider(sysfsTree("amd-desktop").string());
    TelemetrySample expected;
    expected.timestamp = 5;
    expected.cpuTemperatureC = 61.25;
    expected.cpuClockMHz = 3650;
    expected.gpuTemperatureC = 48;
    expected.gpuClockMHz = 1850;
    expected.gpuReferenceMaxClockMHz = 2615;
    expected.gpuUtilizationPct = 37;
    expected.fanCurrentRPM = {950, 1104, 836, 0, 1530};
    expected.fanTargetRPM = {0, 0, 0, 0, 0};
    expected.fanMaxRPM = {3300, 0, 0, 0, 0};
    expected.fanMinRPM = {0, 300, 200, 0, 0};
    expected.fanNames = {"amdgpu@/sys/devices/pci0000:00/0000:00:03.1/0000:0a:00.0#fan1",
                         "nct6798@/sys/devices/platform/nct6775.656#fan1",
                         "nct6798@/sys/devices/platform/nct6775.656#fan2",
                         "nct6798@/sys/devices/platform/nct6775.656#fan3",
                         "nct6798@/sys/devices/platform/nct6775.656#fan4"};
    EXPECT_EQ(provider.sample(5), expected);
    EXPECT_FALSE(provider.highLoadPowerW().has_value());  // no power limit on this package
}

TEST(SamplerSystemTelemetry, NoFansFullSample) {
    SystemTelemetryProvider provider(sysfsTree("no-fans").string());
    TelemetrySample expected;
    expected.timestamp = 7;
    expected.cpuTemperatureC = 47;
    expected.cpuClockMHz = 2000;
    expected.thermalPressure = ThermalPressureLevel::nominal;
    EXPECT_EQ(provider.sample(7), expected);
    EXPECT_FALSE(provider.highLoadPowerW().has_value());
}

TEST(SamplerSystemTelemetry, FanTargetIsReportedWhereTheDriverHasOne) {
    TreeCopy tree("intel-laptop");
    tree.write("sys/class/hwmon/hwmon1/fan1_target", 3400);
    tree.remove("sys/class/hwmon/hwmon1/fan1_max");
    const TelemetrySample sample = SystemTelemetryProvider(tree.rootString()).sample(1);
    EXPECT_EQ(sample.fanTargetRPM, std::vector<double>{3400});
    EXPECT_EQ(sample.fanMaxRPM, std::vector<double>{0});
}

TEST(SamplerSystemTelemetry, FanWhoseSpeedCannotBeReadIsAbsentNotZero) {
    TreeCopy tree("amd-desktop");
    tree.replaceWithDirectory("sys/class/hwmon/hwmon1/fan2_input");
    const TelemetrySample sample = SystemTelemetryProvider(tree.rootString()).sample(1);
    ASSERT_EQ(sample.fanCurrentRPM.size(), 5u);
    EXPECT_EQ(sample.fanCurrentRPM[0], 950);
    EXPECT_EQ(sample.fanCurrentRPM[1], 1104);
    EXPECT_FALSE(isReadableRPM(sample.fanCurrentRPM[2])) << "absent, where a 0 would say stopped";
    EXPECT_EQ(sample.fanCurrentRPM[3], 0) << "a fan that reads 0 has stopped";
    EXPECT_EQ(sample.fanCurrentRPM[4], 1530);
    EXPECT_EQ(sample.fanNames.size(), 5u);
    EXPECT_EQ(sample.fanMinRPM.size(), 5u);
}

TEST(SamplerSystemTelemetry, RaplCountersThroughThePrivilegedReader) {
    TreeCopy tree("intel-laptop");
    tree.replaceWithDirectory("sys/class/powercap/intel-rapl:0/energy_uj");
    tree.replaceWithDirectory("sys/class/powercap/intel-rapl:0:2/energy_uj");
    std::map<std::string, std::uint64_t> counters = {
        {"/sys/class/powercap/intel-rapl:0/energy_uj", 500},
        {"/sys/class/powercap/intel-rapl:0:2/energy_uj", 900}};
    SystemTelemetryOptions options;
    options.sysRoot = tree.rootString();
    options.privilegedRead = [&counters](const std::string& path) -> std::optional<std::uint64_t> {
        const auto found = counters.find(path);
        if (found == counters.end()) return std::nullopt;
        return found->second;
    };
    SystemTelemetryProvider provider(options);
    EXPECT_FALSE(provider.sample(10).totalPowerW.has_value());
    counters["/sys/class/powercap/intel-rapl:0/energy_uj"] += 9'000'000;
    counters["/sys/class/powercap/intel-rapl:0:2/energy_uj"] += 1'000'000;
    EXPECT_EQ(provider.sample(12).totalPowerW, 5.0);

    SystemTelemetryOptions withoutReader;
    withoutReader.sysRoot = tree.rootString();
    SystemTelemetryProvider unprivileged(withoutReader);
    unprivileged.sample(10);
    EXPECT_FALSE(unprivileged.sample(12).totalPowerW.has_value());
}

TEST(SamplerSystemTelemetry, MissingNvmlLibraryLeavesTheSysfsGpu) {
    SystemTelemetryOptions options;
    options.sysRoot = sysfsTree("intel-laptop").string();
    options.nvmlLibraryPath = "/nonexistent/libnvidia-ml.so.1";
    SystemTelemetryProvider provider(options);
    EXPECT_FALSE(provider.nvmlAvailable());
    const TelemetrySample sample = provider.sample(1);
    EXPECT_EQ(sample.gpuClockMHz, 1050);
    EXPECT_FALSE(sample.gpuUtilizationPct.has_value());
    EXPECT_FALSE(sample.gpuGrantedPState.has_value());
    EXPECT_FALSE(sample.gpuRequestedPState.has_value());
    EXPECT_EQ(sample.gpuThrottleReasons, gpuThrottleNone);
}

TEST(SamplerSystemTelemetry, RenumberedTreeGivesTheSameSample) {
    TreeCopy tree("amd-desktop");
    const TelemetrySample before = SystemTelemetryProvider(tree.rootString()).sample(3);
    tree.renumberHwmon({{0, 7}, {1, 5}, {2, 4}});
    EXPECT_EQ(SystemTelemetryProvider(tree.rootString()).sample(3), before);
}

TEST(SamplerSystemTelemetry, MissingEverythingLeavesEveryFieldAbsent) {
    TreeCopy tree("intel-laptop");
    std::filesystem::remove_all(tree.root() / "sys");
    std::filesystem::remove_all(tree.root() / "proc");
    SystemTelemetryOptions options;
    options.sysRoot = tree.rootString();
    options.nvmlLibraryPath = "/nonexistent/libnvidia-ml.so.1";
    options.privilegedRead = [](const std::string&) -> std::optional<std::uint64_t> {
        return std::nullopt;
    };
    SystemTelemetryProvider provider(options);
    provider.sample(1);
    TelemetrySample expected;
    expected.timestamp = 2;
    EXPECT_EQ(provider.sample(2), expected);
    EXPECT_FALSE(provider.highLoadPowerW().has_value());
}

}  // namespace
}  // namespace kelvo
