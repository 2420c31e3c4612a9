// The control loop on the real hardware path (hwmon temperatures and fans in a fake sysfs tree,
// written by LocalFanController) when the temperatures or the tachometer stop answering.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "foundation/control/ControlEngine.h"
#include "foundation/core/EventRing.h"
#include "foundation/fans/LocalFanController.h"
#include "foundation/telemetry/SystemTelemetryProvider.h"
#include "tests/foundation/LinuxFakeSysfs.h"

namespace kelvo {
namespace {

using test_support::FakeSysfs;
namespace fs = std::filesystem;

constexpr const char* kFan = "it87@/sys/devices/platform/it87.656#fan1";

struct Machine {
    FakeSysfs sys;
    std::string coretemp;
    std::string superIo;
    FanCurveLearner::Clock::time_point clock{std::chrono::hours(1)};
    std::map<std::string, FanCurve> curves;
    std::shared_ptr<LocalFanController> fans;
    std::shared_ptr<EventRing> ring = std::make_shared<EventRing>(160, 1e9);
    std::unique_ptr<ControlEngine> engine;

    Machine() {
        coretemp = sys.addHwmon(0, "coretemp", "platform/coretemp.0");
        sys.write(coretemp + "/temp1_label", "Package id 0\n");
        sys.write(coretemp + "/temp1_input", "52000\n");
        sys.write("sys/class/thermal/thermal_zone0/type", "x86_pkg_temp\n");
        sys.write("sys/class/thermal/thermal_zone0/temp", "52000\n");
        superIo = sys.addHwmon(1, "it87", "platform/it87.656");
        sys.write(superIo + "/fan1_input", "1200\n");
        sys.write(superIo + "/fan1_max", "4000\n");
        sys.write(superIo + "/pwm1", "90\n");
        sys.write(superIo + "/pwm1_enable", "2\n");
        fans = std::make_shared<LocalFanController>(
            std::make_shared<HwmonFanService>(sys.root().string()), [this] { return clock; });
        fans->attachCurveStore({[this](const std::string& id) -> std::optional<FanCurve> {
                                    auto it = curves.find(id);
                                    if (it == curves.end()) return std::nullopt;
                                    return it->second;
                                },
                                [this](const std::string& id, const FanCurve& curve) {
                                    curves[id] = curve;
                                    return true;
                                }});
        engine = std::make_unique<ControlEngine>(
            std::make_shared<SystemTelemetryProvider>(sys.root().string()), fans, nullptr, ring,
            nullptr);
    }
    std::string read(const std::string& file) const {
        return sys.read(superIo + "/" + file).value_or("(missing)");
    }
    bool hasEvent(const std::string& text) const {
        for (const auto& e : ring->recent(160))
            if (e.message.find(text) != std::string::npos) return true;
        return false;
    }
    void removeEveryCpuTemperature() {
        fs::remove(sys.path(coretemp + "/temp1_input"));
        fs::remove(sys.path("sys/class/thermal/thermal_zone0/temp"));
    }
};

TEST(BlindControlOnHwmon, TemperaturesVanishingMidCalibrationAbortItAndGiveTheFanBack) {
    Machine m;
    m.engine->applyMode(ControlMode::quiet);
    double now = 100;
    ASSERT_EQ(m.engine->tick(now).status, ControlStatus::controlling);
    ASSERT_EQ(m.read("pwm1_enable"), "1") << "Kelvo holds the fan";
    EXPECT_FALSE(m.fans->calibrating(kFan)) << "nothing calibrates unasked";
    std::string why;
    ASSERT_TRUE(m.fans->requestCalibration(kFan, &why)) << why;
    // Two calibration steps in.
    for (int i = 0; i < 6; ++i) {
        m.clock += std::chrono::seconds(1);
        m.engine->tick(++now);
    }
    ASSERT_TRUE(m.fans->calibrating(kFan));

    m.removeEveryCpuTemperature();
    m.clock += std::chrono::seconds(1);
    const ControlSnapshot blind = m.engine->tick(++now);
    EXPECT_FALSE(blind.sample.cpuTemperatureC);
    EXPECT_EQ(blind.status, ControlStatus::fallback);
    EXPECT_EQ(m.read("pwm1_enable"), "2") << "back on the firmware's curve in the same tick";
    EXPECT_FALSE(m.fans->calibrating(kFan)) << "the calibration stops with the fan given back";
    EXPECT_NE(m.fans->calibrationStatus(kFan)->message.find("firmware"), std::string::npos);
    EXPECT_TRUE(m.hasEvent("Entered monitor+alert fallback (no CPU temperature can be read)"));
    const std::string pwm = m.read("pwm1");
    for (int i = 0; i < 10; ++i) {
        m.clock += std::chrono::seconds(1);
        m.engine->tick(++now);
    }
    EXPECT_EQ(m.read("pwm1_enable"), "2") << "no write while blind";
    EXPECT_EQ(m.read("pwm1"), pwm);

    m.sys.write(m.coretemp + "/temp1_input", "53000\n");
    m.clock += std::chrono::seconds(1);
    EXPECT_EQ(m.engine->tick(++now).status, ControlStatus::controlling);
    EXPECT_EQ(m.read("pwm1_enable"), "1");
    EXPECT_TRUE(m.hasEvent("Temperatures can be read again"));
}

TEST(BlindControlOnHwmon, ATachometerThatReturnsGarbageIsAbsentNotZero) {
    Machine m;
    m.sys.write(m.superIo + "/fan1_input", "\x7f\x45garbage\n");
    const ControlSnapshot snap = m.engine->tick(100);
    ASSERT_EQ(snap.sample.fanCurrentRPM.size(), 1u);
    EXPECT_FALSE(isReadableRPM(snap.sample.fanCurrentRPM[0])) << snap.sample.fanCurrentRPM[0];
    EXPECT_FALSE(snap.sample.meanFanCurrentRPM());
    EXPECT_TRUE(m.hasEvent("Fan telemetry degraded (no speed reading from " + std::string(kFan)));
}

}  // namespace
}  // namespace kelvo
