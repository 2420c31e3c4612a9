// The simulated machine mounted in-process: Kelvo's own hwmon back-end and telemetry provider
// read and write its tree as they would the kernel's, and see what the machine's state holds.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <memory>
#include <mutex>

#include "foundation/core/SysfsMounts.h"
#include "foundation/fans/HwmonFanService.h"
#include "foundation/fans/LocalFanController.h"
#include "foundation/fans/SysfsText.h"
#include "foundation/telemetry/SystemTelemetryProvider.h"
#include "simhw/SimHardware.h"
#include "simhw/SimTreeSource.h"
#include "tests/simhw/TwoFanMachine.h"

namespace {

using namespace kelvo;
using namespace kelvo::simhw;

using kelvo::simhw::test_support::twoFans;

constexpr const char* kRoot = "/kelvo-simtree-test/machine";

struct Mounted {
    std::mutex mutex;
    std::shared_ptr<SimHardware> hw = std::make_shared<SimHardware>("box", twoFans());
    sysfs::ScopedMount mount{kRoot, std::make_shared<SimTreeSource>(hw, mutex)};

    void run(int seconds, double cpu) {
        std::lock_guard lock(mutex);
        for (int i = 0; i < seconds; ++i) hw->step(1.0, cpu, 0.4);
    }
};

SystemTelemetryOptions onMount() {
    return {kRoot, std::string(), {}};
}

TEST(SimTreeSource, TheHwmonServiceFindsTheMachinesFans) {
    Mounted m;
    m.run(30, 0.5);
    const auto fans = HwmonFanService(kRoot).discover();
    ASSERT_EQ(fans.size(), 2u);
    EXPECT_EQ(fans[0].identity, "nct6798@/sys/devices/platform/nct6775.656#fan1");
    EXPECT_EQ(fans[1].label, "Case fan");
    EXPECT_TRUE(fans[0].controllable);
    EXPECT_EQ(fans[0].pwmEnable, 2);
    EXPECT_EQ(fans[0].minRPM, 800);
    EXPECT_EQ(fans[1].maxRPM, 2000);
    for (std::size_t i = 0; i < fans.size(); ++i) {
        ASSERT_TRUE(fans[i].currentRPM);
        EXPECT_EQ(*fans[i].currentRPM, std::llround(m.hw->state().fanCurrentRPM[i]));
    }
}

TEST(SimTreeSource, LocalFanControllerWritesReachTheChannels) {
    Mounted m;
    LocalFanController fans(std::make_shared<HwmonFanService>(kRoot));
    ASSERT_EQ(fans.readFans().fans.size(), 2u);
    ASSERT_TRUE(fans.setTargets({2400, 1300}).ok);
    const auto& channels = m.hw->fans();
    EXPECT_EQ(channels[0].enable, 1);
    EXPECT_EQ(channels[0].pwm, LocalFanController::linearPWMForRPM(2400, 800, 4000));
    EXPECT_EQ(channels[1].pwm, LocalFanController::linearPWMForRPM(1300, 600, 2000));
    EXPECT_EQ(channels[0].enableWrites, 1);
    EXPECT_EQ(channels[0].pwmWrites, 1);
    ASSERT_TRUE(fans.releaseToAutomatic().ok);
    EXPECT_EQ(m.hw->fans()[0].enable, 2);
    EXPECT_EQ(m.hw->fans()[1].enable, 2);
}

TEST(SimTreeSource, ASetterRefusalComesBackAsTheWritesErrno) {
    Mounted m;
    const std::string chip = std::string(kRoot) + "/sys/class/hwmon/hwmon2/";
    int errorNumber = 0;
    std::string error;
    EXPECT_FALSE(sysfs::writeInteger(chip + "pwm1", 300, &error, &errorNumber));
    EXPECT_EQ(errorNumber, EINVAL);
    EXPECT_FALSE(sysfs::writeInteger(chip + "fan1_input", 5, &error, &errorNumber));
    EXPECT_EQ(errorNumber, EACCES);
    EXPECT_FALSE(sysfs::writeInteger(chip + "pwm9", 5, &error, &errorNumber));
    EXPECT_EQ(errorNumber, ENOENT);
    EXPECT_EQ(m.hw->applyFault("eio sys/class/hwmon/hwmon2/pwm1"), "");
    EXPECT_FALSE(sysfs::writeInteger(chip + "pwm1", 100, &error, &errorNumber));
    EXPECT_EQ(errorNumber, EIO);
    EXPECT_EQ(m.hw->fans()[0].pwmWrites, 0);
}

TEST(SimTreeSource, LinksResolveAndDirectoriesList) {
    Mounted m;
    const std::filesystem::path root(kRoot);
    EXPECT_TRUE(sysfs::isDirectory(root / "sys/class/hwmon/hwmon2"));
    EXPECT_EQ(sysfs::canonicalPath(root / "sys/class/hwmon/hwmon2/device"),
              root / "sys/devices/platform/nct6775.656");
    EXPECT_EQ(sysfs::canonicalPath(root), root);
    EXPECT_FALSE(sysfs::canonicalPath(root / "sys/class/hwmon/hwmon7"));
    EXPECT_EQ(sysfs::directoryEntries(root / "sys/class/hwmon").size(), 3u);
    EXPECT_TRUE(sysfs::pathExists(root / "proc/stat"));
    EXPECT_FALSE(sysfs::pathExists(root / "proc/nothing"));
    // A directory is not a file to read.
    EXPECT_FALSE(sysfs::readFileText(root / "sys/class/hwmon/hwmon2", 4096));
}

TEST(SimTreeSource, TelemetrySeesTheMachinesStateInVirtualTime) {
    Mounted m;
    SystemTelemetryProvider telemetry(onMount());
    m.run(60, 0.8);
    telemetry.sample(1000);
    m.run(5, 0.8);
    const TelemetrySample sample = telemetry.sample(1005);
    const sim::PlantState& state = m.hw->state();
    ASSERT_TRUE(sample.cpuTemperatureC);
    EXPECT_NEAR(*sample.cpuTemperatureC, state.cpuTemperatureC, 0.001);
    ASSERT_TRUE(sample.gpuTemperatureC);
    EXPECT_NEAR(*sample.gpuTemperatureC, state.gpuTemperatureC, 0.001);
    ASSERT_EQ(sample.fanCurrentRPM.size(), 2u);
    EXPECT_NEAR(sample.fanCurrentRPM[0], state.fanCurrentRPM[0], 0.5);
    EXPECT_EQ(sample.fanMaxRPM[1], 2000);
    // Rates over the five virtual seconds between the samples, at a steady load.
    ASSERT_TRUE(sample.totalPowerW);
    EXPECT_NEAR(*sample.totalPowerW, state.cpuPowerW, 0.05 * state.cpuPowerW);
    ASSERT_TRUE(sample.cpuUtilizationPct);
    EXPECT_NEAR(*sample.cpuUtilizationPct, state.cpuUtilizationPct, 2.0);
}

TEST(SimTreeSource, NothingIsServedOnceUnmounted) {
    {
        Mounted m;
        ASSERT_EQ(HwmonFanService(kRoot).discover().size(), 2u);
    }
    EXPECT_TRUE(HwmonFanService(kRoot).discover().empty());
    EXPECT_FALSE(sysfs::findMount(std::string(kRoot) + "/proc/stat"));
}

TEST(SysfsMounts, ARootCoversOnlyItselfAndWhatIsBelowIt) {
    Mounted m;
    EXPECT_TRUE(sysfs::findMount(kRoot));
    const auto below = sysfs::findMount(std::string(kRoot) + "/sys//class/hwmon/");
    ASSERT_TRUE(below);
    EXPECT_EQ(below->relative, "sys//class/hwmon");
    EXPECT_FALSE(sysfs::findMount(std::string(kRoot) + "2/sys"));
    EXPECT_FALSE(sysfs::findMount("/kelvo-simtree-test"));
}

}  // namespace
