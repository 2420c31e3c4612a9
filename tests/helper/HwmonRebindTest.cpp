// A held hwmon fan whose driver is unbound and bound again: the kernel gives the same device a
// new hwmonN. The helper finds the fan again by its identity and keeps writing on the new path;
// a fan that does not come back ends its hold at once, with an error that says so.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "foundation/helper_protocol/HelperProtocol.h"
#include "helper/FanJournal.h"
#include "helper/FanOwner.h"
#include "helper/HwmonFans.h"
#include "tests/foundation/LinuxFakeSysfs.h"

namespace kelvo::helperd {
namespace {

namespace codes = helper_protocol::codes;
using test_support::FakeSysfs;

constexpr const char* kFan = "it87@/sys/devices/platform/it87.656#fan1";
constexpr const char* kDevice = "sys/devices/platform/it87.656/hwmon/";

class HwmonRebind : public ::testing::Test {
protected:
    HwmonRebind() {
        const std::string chip = sys.addHwmon(2, "it87", "platform/it87.656");
        sys.write(chip + "/fan1_input", "1200\n");
        sys.write(chip + "/pwm1", "90\n");
        sys.write(chip + "/pwm1_enable", "2\n");
    }

    // What an unbind and bind of the driver leaves: the same device under another hwmonN, its
    // channel back in the driver's automatic mode.
    void rebind(int from, int to) const {
        const std::string oldName = "hwmon" + std::to_string(from);
        const std::string newName = "hwmon" + std::to_string(to);
        std::filesystem::rename(sys.path(kDevice + oldName), sys.path(kDevice + newName));
        std::filesystem::remove(sys.path("sys/class/hwmon/" + oldName));
        sys.symlink("../../devices/platform/it87.656/hwmon/" + newName,
                    "sys/class/hwmon/" + newName);
        sys.write("sys/class/hwmon/" + newName + "/pwm1_enable", "2\n");
    }
    void unplug(int index) const {
        const std::string name = "hwmon" + std::to_string(index);
        std::filesystem::remove_all(sys.path(kDevice + name));
        std::filesystem::remove(sys.path("sys/class/hwmon/" + name));
    }
    std::string file(int index, const std::string& name) const {
        return sys.read("sys/class/hwmon/hwmon" + std::to_string(index) + "/" + name)
            .value_or("<missing>");
    }
    HwmonFan discovered() const {
        for (const HwmonFan& fan : hwmon.discover())
            if (fan.identity == kFan) return fan;
        ADD_FAILURE() << "no fan " << kFan;
        return {};
    }
    // The request path's view: a fan this client holds is written through what it was taken as.
    ArbiterOutcome write(int pwm) {
        const HwmonFan* held = hwmon.heldFan(1, kFan);
        const HwmonFan fan = held ? *held : discovered();
        return hwmon.take(1, fan, pwm);
    }
    std::filesystem::path journalPath() const { return runtime.path("fan-journal"); }
    std::vector<JournalEntry> journal() const { return FanJournal(journalPath()).load().entries; }
    bool logged(const std::string& text) const {
        for (const std::string& line : log)
            if (line.find(text) != std::string::npos) return true;
        return false;
    }

    FakeSysfs sys;
    FakeSysfs runtime;
    std::vector<std::string> log;
    FanOwner owner{FanJournal(journalPath()),
                   [this](const std::string& line) { log.push_back(line); }};
    HwmonFans hwmon{std::make_shared<HwmonFanService>(sys.root().string()), owner};
};

TEST_F(HwmonRebind, AHeldFanIsFoundAgainUnderItsNewHwmonAndWritesGoOn) {
    ASSERT_TRUE(write(100).ok);
    ASSERT_EQ(file(2, "pwm1_enable"), "1");
    ASSERT_EQ(file(2, "pwm1"), "100");

    rebind(2, 5);
    const ArbiterOutcome after = write(120);
    ASSERT_TRUE(after.ok) << after.message;
    EXPECT_EQ(file(5, "pwm1_enable"), "1");
    EXPECT_EQ(file(5, "pwm1"), "120");
    EXPECT_EQ(owner.holder(kFan), ClientId{1});
    // The journal keeps the mode from before the helper took the fan: that is what goes back.
    EXPECT_EQ(journal(), (std::vector<JournalEntry>{{kFan, 2, 90}}));
    EXPECT_TRUE(logged("hwmon5")) << "the move is in the log";
    const HwmonFan* held = hwmon.heldFan(1, kFan);
    ASSERT_NE(held, nullptr);
    EXPECT_EQ(held->hwmonDir.filename(), "hwmon5");

    ASSERT_TRUE(write(130).ok);
    EXPECT_EQ(file(5, "pwm1"), "130");
    ASSERT_TRUE(owner.release(1, kFan).ok);
    EXPECT_EQ(file(5, "pwm1_enable"), "2");
    EXPECT_FALSE(std::filesystem::exists(journalPath()));
}

TEST_F(HwmonRebind, AFanReboundSinceItsLastWriteIsGivenBackUnderItsNewHwmon) {
    ASSERT_TRUE(write(100).ok);
    rebind(2, 5);
    sys.write("sys/class/hwmon/hwmon5/pwm1_enable", "1\n");  // a driver that keeps manual mode
    ASSERT_TRUE(owner.release(1, kFan).ok) << "given back at once, not on a later retry";
    EXPECT_EQ(file(5, "pwm1_enable"), "2");
    EXPECT_FALSE(owner.hasPending());
    EXPECT_FALSE(std::filesystem::exists(journalPath()));
}

TEST_F(HwmonRebind, AHeldFanThatDoesNotComeBackEndsItsHoldAtOnceWithAClearError) {
    ASSERT_TRUE(write(100).ok);
    unplug(2);
    const ArbiterOutcome after = write(120);
    EXPECT_FALSE(after.ok);
    EXPECT_EQ(after.code, codes::unknownFan);
    EXPECT_NE(after.message.find("gone"), std::string::npos) << after.message;
    EXPECT_FALSE(owner.holder(kFan)) << "not held by a client that cannot write it";
    EXPECT_FALSE(owner.hasPending()) << "nothing left to give back";
    EXPECT_FALSE(std::filesystem::exists(journalPath()));
}

TEST_F(HwmonRebind, AFanStillThereWithoutItsControlForAMomentStaysHeld) {
    ASSERT_TRUE(write(100).ok);
    std::filesystem::remove(sys.path("sys/class/hwmon/hwmon2/pwm1_enable"));
    const ArbiterOutcome missing = write(120);
    EXPECT_FALSE(missing.ok);
    EXPECT_EQ(missing.code, codes::io) << missing.message;
    EXPECT_EQ(owner.holder(kFan), ClientId{1}) << "its original mode still has to go back";
    EXPECT_EQ(journal(), (std::vector<JournalEntry>{{kFan, 2, 90}}));

    sys.write("sys/class/hwmon/hwmon2/pwm1_enable", "1\n");
    ASSERT_TRUE(write(120).ok);
    ASSERT_TRUE(owner.release(1, kFan).ok);
    EXPECT_EQ(file(2, "pwm1_enable"), "2");
}

}  // namespace
}  // namespace kelvo::helperd
