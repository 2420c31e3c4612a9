// The control loop on the hwmon path when a fan it drives is taken from it (its mode changed
// from outside: taken again, until it happens too often) or stops turning (left to the
// firmware): each is an event, and Kelvo keeps driving the other fans.
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

constexpr const char* kFan1 = "it87@/sys/devices/platform/it87.656#fan1";
constexpr const char* kFan2 = "it87@/sys/devices/platform/it87.656#fan2";

struct TwoFanBoard {
    FakeSysfs sys;
    std::string superIo;
    std::shared_ptr<EventRing> ring = std::make_shared<EventRing>(160, 1e9);
    std::shared_ptr<LocalFanController> fans;
    std::unique_ptr<ControlEngine> engine;
    Timestamp now = 1000;

    TwoFanBoard() {
        const std::string coretemp = sys.addHwmon(0, "coretemp", "platform/coretemp.0");
        sys.write(coretemp + "/temp1_label", "Package id 0\n");
        sys.write(coretemp + "/temp1_input", "70000\n");
        superIo = sys.addHwmon(1, "it87", "platform/it87.656");
        for (const char* fan : {"1", "2"}) {
            sys.write(superIo + "/fan" + fan + "_input", "1500\n");
            sys.write(superIo + "/fan" + fan + "_max", "4000\n");
            sys.write(superIo + "/pwm" + fan, "90\n");
            sys.write(superIo + "/pwm" + fan + "_enable", "2\n");
        }
        // No curve store: the linear map, and no sweep to wait for.
        fans = std::make_shared<LocalFanController>(
            std::make_shared<HwmonFanService>(sys.root().string()));
        engine = std::make_unique<ControlEngine>(
            std::make_shared<SystemTelemetryProvider>(sys.root().string()), fans, nullptr, ring,
            nullptr);
        engine->applyMode(ControlMode::performance);
    }
    std::string read(const std::string& file) const {
        return sys.read(superIo + "/" + file).value_or("(missing)");
    }
    void write(const std::string& file, const std::string& value) {
        sys.write(superIo + "/" + file, value + "\n");
    }
    int eventsWith(const std::string& text) const {
        int count = 0;
        for (const auto& e : ring->recent(160))
            if (e.message.find(text) != std::string::npos) ++count;
        return count;
    }
    ControlSnapshot tick() { return engine->tick(++now); }
};

TEST(FanReclaim, AFanWhoseModeIsChangedFromOutsideIsTakenAgainInTheSameTickWithAnEvent) {
    TwoFanBoard b;
    ASSERT_EQ(b.tick().status, ControlStatus::controlling);
    ASSERT_EQ(b.read("pwm1_enable"), "1");

    b.write("pwm1_enable", "2");  // the firmware takes it back, as after a resume
    EXPECT_EQ(b.tick().status, ControlStatus::controlling);
    EXPECT_EQ(b.read("pwm1_enable"), "1") << "taken again in the tick that noticed";
    EXPECT_EQ(b.read("pwm2_enable"), "1");
    EXPECT_EQ(b.eventsWith(std::string("Fan control taken back from Kelvo (") + kFan1 +
                           "): its mode was changed from outside; Kelvo takes it again"),
              1);
    // Giving the fan back later restores the mode the firmware had set, not a stale record.
    b.engine->applyMode(ControlMode::systemAuto);
    b.tick();
    EXPECT_EQ(b.read("pwm1_enable"), "2");
}

TEST(FanReclaim, TheFourthTakebackInFiveMinutesLeavesTheFanToTheFirmware) {
    TwoFanBoard b;
    ASSERT_EQ(b.tick().status, ControlStatus::controlling);
    for (int takeback = 1; takeback <= 3; ++takeback) {
        b.write("pwm1_enable", "2");
        b.tick();
        ASSERT_EQ(b.read("pwm1_enable"), "1") << "takeback " << takeback;
        for (int i = 0; i < 30; ++i) b.tick();  // a minute and a half between takebacks
    }
    EXPECT_EQ(b.eventsWith("Fan control taken back from Kelvo"), 3);
    b.write("pwm1_enable", "2");
    const std::string duty = b.read("pwm1");
    for (int i = 0; i < 10; ++i) b.tick();
    EXPECT_EQ(b.read("pwm1_enable"), "2") << "the fourth within five minutes: Kelvo stops";
    EXPECT_EQ(b.read("pwm1"), duty) << "and never writes the fan again";
    EXPECT_EQ(b.read("pwm2_enable"), "1") << "the other fan stays under Kelvo's control";
    EXPECT_EQ(b.eventsWith(std::string("Stopped taking back ") + kFan1 +
                           ": its mode was changed from outside 4 times in five minutes"),
              1);
    // Choosing a mode again is the user's way to try the fan again.
    b.engine->applyMode(ControlMode::quiet);
    b.tick();
    EXPECT_EQ(b.read("pwm1_enable"), "1");
}

TEST(FanReclaim, TakebacksFurtherApartThanFiveMinutesAreEachTakenAgain) {
    TwoFanBoard b;
    ASSERT_EQ(b.tick().status, ControlStatus::controlling);
    for (int takeback = 1; takeback <= 6; ++takeback) {
        b.write("pwm1_enable", "2");
        b.tick();
        EXPECT_EQ(b.read("pwm1_enable"), "1") << "takeback " << takeback;
        for (int i = 0; i < 110; ++i) b.tick();  // under three in any five minutes
    }
    EXPECT_EQ(b.eventsWith("Stopped taking back"), 0);
}

TEST(FanHotPlug, AFanThatGoesAndComesBackIsOneEventEachAndIsTakenAgain) {
    TwoFanBoard b;
    ASSERT_EQ(b.tick().status, ControlStatus::controlling);
    ASSERT_EQ(b.read("pwm2_enable"), "1");
    std::filesystem::remove(b.sys.path(b.superIo + "/fan2_input"));
    for (int i = 0; i < 5; ++i) EXPECT_EQ(b.tick().status, ControlStatus::controlling);
    EXPECT_EQ(b.eventsWith(std::string("Fan removed: ") + kFan2), 1);
    EXPECT_EQ(b.read("pwm2_enable"), "2") << "given back through the paths it had";
    EXPECT_EQ(b.read("pwm1_enable"), "1");
    EXPECT_EQ(b.eventsWith("monitor+alert fallback"), 0) << "no error storm";

    b.write("fan2_input", "1500");
    b.tick();
    EXPECT_EQ(b.eventsWith(std::string("Fan added: ") + kFan2), 1);
    EXPECT_EQ(b.read("pwm2_enable"), "1");
}

TEST(FanStall, ADrivenFanThatReadsZeroGoesToTheFirmwareWithOneEvent) {
    TwoFanBoard b;
    ASSERT_EQ(b.tick().status, ControlStatus::controlling);
    b.write("fan2_input", "0");
    for (int i = 0; i < 3; ++i) b.tick();
    EXPECT_EQ(b.read("pwm2_enable"), "1") << "a fan spinning up reads 0 for a moment";
    EXPECT_EQ(b.eventsWith("Fan stalled"), 0);
    for (int i = 0; i < 10; ++i) b.tick();
    EXPECT_EQ(b.read("pwm2_enable"), "2");
    EXPECT_EQ(b.read("pwm1_enable"), "1");
    EXPECT_EQ(b.eventsWith(std::string("Fan stalled (") + kFan2 + "): 0 rpm while driven at"), 1);
}

TEST(FanStall, AFanUnderFirmwareControlThatReadsZeroIsNotStalled) {
    TwoFanBoard b;
    b.engine->applyMode(ControlMode::systemAuto);
    b.write("fan1_input", "0");
    for (int i = 0; i < 10; ++i) b.tick();
    EXPECT_EQ(b.eventsWith("Fan stalled"), 0);
}

}  // namespace
}  // namespace kelvo
