// fanN_input values that are no speed: a negative number or text the kernel should never give.
// They are absent, never a speed, and a driven fan reading one is not called stalled.
#include <gtest/gtest.h>

#include "foundation/control/ControlEngine.h"
#include "foundation/core/EventRing.h"
#include "foundation/fans/HwmonFanService.h"
#include "foundation/fans/LocalFanController.h"
#include "foundation/telemetry/SystemTelemetryProvider.h"
#include "tests/foundation/LinuxFakeSysfs.h"

namespace kelvo {
namespace {

using test_support::FakeSysfs;

constexpr const char* kFan2 = "it87@/sys/devices/platform/it87.656#fan2";

struct Board {
    FakeSysfs sys;
    std::string chip;
    Board() {
        const std::string coretemp = sys.addHwmon(0, "coretemp", "platform/coretemp.0");
        sys.write(coretemp + "/temp1_label", "Package id 0\n");
        sys.write(coretemp + "/temp1_input", "70000\n");
        chip = sys.addHwmon(1, "it87", "platform/it87.656");
        for (const char* fan : {"1", "2"}) {
            sys.write(chip + "/fan" + fan + "_input", "1500\n");
            sys.write(chip + "/fan" + fan + "_max", "4000\n");
            sys.write(chip + "/pwm" + fan, "90\n");
            sys.write(chip + "/pwm" + fan + "_enable", "2\n");
        }
    }
    std::optional<double> speedOf(const std::string& identity) const {
        for (const HwmonFan& fan : HwmonFanService(sys.root().string()).discover())
            if (fan.identity == identity) return fan.currentRPM;
        ADD_FAILURE() << "no fan " << identity;
        return std::nullopt;
    }
};

TEST(HwmonFanReadings, NegativeAndUnparsableSpeedsAreAbsent) {
    Board board;
    for (const char* text : {"-5", "-1", "12ab", "", "1e3", "0x40"}) {
        board.sys.write(board.chip + "/fan2_input", std::string(text) + "\n");
        EXPECT_FALSE(board.speedOf(kFan2)) << "fan2_input '" << text << "'";
    }
    board.sys.write(board.chip + "/fan2_input", "0\n");
    EXPECT_EQ(board.speedOf(kFan2), 0.0) << "a fan at rest reads 0, and that is a reading";
    board.sys.write(board.chip + "/fan2_input", "1480\n");
    EXPECT_EQ(board.speedOf(kFan2), 1480.0);
}

TEST(HwmonFanReadings, ADrivenFanReadingANegativeSpeedIsAbsentAndNotStalled) {
    Board board;
    auto ring = std::make_shared<EventRing>(160, 1e9);
    ControlEngine engine(std::make_shared<SystemTelemetryProvider>(board.sys.root().string()),
                         std::make_shared<LocalFanController>(
                             std::make_shared<HwmonFanService>(board.sys.root().string())),
                         nullptr, ring, nullptr);
    engine.applyMode(ControlMode::performance);
    Timestamp now = 1000;
    ASSERT_EQ(engine.tick(++now).status, ControlStatus::controlling);
    board.sys.write(board.chip + "/fan2_input", "-5\n");
    for (int i = 0; i < 12; ++i) {
        const ControlSnapshot snap = engine.tick(++now);
        ASSERT_EQ(snap.sample.fanNames.size(), 2u);
        EXPECT_EQ(snap.sample.fanNames[1], kFan2);
        EXPECT_FALSE(isReadableRPM(snap.sample.fanCurrentRPM[1]))
            << "shown as " << snap.sample.fanCurrentRPM[1];
    }
    for (const auto& event : ring->recent(160))
        EXPECT_EQ(event.message.find("Fan stalled"), std::string::npos) << event.message;
    EXPECT_EQ(board.sys.read(board.chip + "/pwm2_enable"), "1") << "still Kelvo's";
}

}  // namespace
}  // namespace kelvo
