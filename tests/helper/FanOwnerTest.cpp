// One FanOwner behind hwmon and NVIDIA fans: one journal, one way to take a fan and one way to
// give it back, whichever kind it is.
#include "helper/FanOwner.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "foundation/helper_protocol/HelperProtocol.h"
#include "helper/FanJournal.h"
#include "helper/HwmonFans.h"
#include "helper/NvmlFans.h"
#include "tests/helper/FakeNvmlApi.h"
#include "tests/helper/HelperTestSupport.h"

namespace kelvo::helperd {
namespace {

namespace codes = helper_protocol::codes;
using fake_nvml::fakeApi;
using fake_nvml::FakeGpus;
using fake_nvml::gpus;
using test_support::buildHelperBoard;
using test_support::FakeSysfs;
using test_support::kChip;
using test_support::kFan1;
using test_support::kFan2;

// The first GPU's second fan: gpus.speed[0][1], gpus.automatic[0][1].
constexpr const char* kGpuFan = "nvidia@00000000:01:00.0#fan1";

class FanOwnerTest : public ::testing::Test {
protected:
    FanOwnerTest() {
        gpus = FakeGpus{};
        buildHelperBoard(sys);
    }

    HwmonFan fan(const std::string& identity) const {
        for (const HwmonFan& candidate : hwmon.discover()) {
            if (candidate.identity == identity) return candidate;
        }
        ADD_FAILURE() << "no fan " << identity;
        return {};
    }
    std::string chipFile(const std::string& name) const {
        return sys.read(std::string(kChip) + name).value_or("");
    }
    std::filesystem::path journalPath() const { return runtime.path("fan-journal"); }
    std::vector<JournalEntry> journal() const { return FanJournal(journalPath()).load().entries; }

    FakeSysfs sys;
    FakeSysfs runtime;
    std::vector<std::string> log;
    FanOwner owner{FanJournal(journalPath()),
                   [this](const std::string& line) { log.push_back(line); }};
    HwmonFans hwmon{std::make_shared<HwmonFanService>(sys.root().string()), owner};
    NvmlFans nvidia{owner, fakeApi()};
};

TEST_F(FanOwnerTest, OneClientsFansOfBothKindsShareTheJournalAndAreReleasedTogether) {
    ASSERT_TRUE(hwmon.take(7, fan(kFan2), 120).ok);
    ASSERT_TRUE(nvidia.take(7, kGpuFan, 255).ok);
    ASSERT_TRUE(hwmon.take(8, fan(kFan1), 100).ok);
    EXPECT_EQ(chipFile("pwm2_enable"), "1");
    EXPECT_FALSE(gpus.automatic[0][1]);
    EXPECT_EQ(owner.heldBy(7), 2u);
    EXPECT_EQ(journal(),
              (std::vector<JournalEntry>{
                  {kFan1, 2, 90}, {kFan2, 5, 60}, {kGpuFan, std::nullopt, std::nullopt}}));

    EXPECT_EQ(owner.releaseClient(7, "connection closed"), 2u);
    EXPECT_EQ(chipFile("pwm2_enable"), "5");
    EXPECT_TRUE(gpus.automatic[0][1]);
    EXPECT_FALSE(owner.holder(kFan2).has_value());
    EXPECT_FALSE(owner.holder(kGpuFan).has_value());
    EXPECT_EQ(owner.heldBy(7), 0u);
    // The other client's fan stays held, and only its entry is left.
    EXPECT_EQ(owner.holder(kFan1), ClientId{8});
    EXPECT_EQ(chipFile("pwm1_enable"), "1");
    EXPECT_EQ(journal(), (std::vector<JournalEntry>{{kFan1, 2, 90}}));

    EXPECT_EQ(owner.releaseEverything("stopping"), 1u);
    EXPECT_EQ(chipFile("pwm1_enable"), "2");
    EXPECT_FALSE(std::filesystem::exists(journalPath()));
}

TEST_F(FanOwnerTest, ATakeIsRefusedWhileAnotherClientHoldsTheFan) {
    ASSERT_TRUE(hwmon.take(1, fan(kFan1), 100).ok);
    ASSERT_TRUE(nvidia.take(1, kGpuFan, 128).ok);
    const std::vector<JournalEntry> before = journal();

    const ArbiterOutcome hwmonTake = hwmon.take(2, fan(kFan1), 250);
    EXPECT_FALSE(hwmonTake.ok);
    EXPECT_EQ(hwmonTake.code, codes::heldByAnother);
    const ArbiterOutcome nvidiaTake = nvidia.take(2, kGpuFan, 250);
    EXPECT_FALSE(nvidiaTake.ok);
    EXPECT_EQ(nvidiaTake.code, codes::heldByAnother);
    EXPECT_EQ(owner.release(2, kGpuFan).code, codes::heldByAnother);

    EXPECT_EQ(chipFile("pwm1"), "100");
    EXPECT_EQ(gpus.speed[0][1], 50u);
    EXPECT_FALSE(gpus.automatic[0][1]);
    EXPECT_EQ(owner.holder(kFan1), ClientId{1});
    EXPECT_EQ(owner.holder(kGpuFan), ClientId{1});
    EXPECT_EQ(owner.heldBy(2), 0u);
    EXPECT_EQ(journal(), before);
}

TEST_F(FanOwnerTest, AKindGivesBackOnlyItsOwnFans) {
    ASSERT_TRUE(hwmon.take(3, fan(kFan2), 120).ok);
    ASSERT_TRUE(nvidia.take(3, kGpuFan, 200).ok);
    EXPECT_EQ(nvidia.heldBy(3), 1u);
    EXPECT_EQ(nvidia.releaseEverything("system going to sleep"), 1u);
    EXPECT_TRUE(gpus.automatic[0][1]);
    EXPECT_EQ(owner.holder(kFan2), ClientId{3});
    EXPECT_EQ(chipFile("pwm2_enable"), "1");
    EXPECT_EQ(journal(), (std::vector<JournalEntry>{{kFan2, 5, 60}}));
    EXPECT_EQ(hwmon.releaseClient(3, "system going to sleep"), 1u);
    EXPECT_EQ(chipFile("pwm2_enable"), "5");
    EXPECT_FALSE(std::filesystem::exists(journalPath()));
}

TEST_F(FanOwnerTest, FansOfBothKindsThatAnEarlierRunJournaledAreGivenBackAtStart) {
    // What a helper killed while holding both leaves behind.
    gpus.automatic[0][1] = false;
    sys.write(std::string(kChip) + "pwm2_enable", "1\n");
    ASSERT_TRUE(FanJournal(journalPath())
                    .save({{kFan2, 5, 60}, {kGpuFan, std::nullopt, std::nullopt}}, nullptr));
    owner.restoreFromJournal();
    EXPECT_EQ(chipFile("pwm2_enable"), "5");
    EXPECT_TRUE(gpus.automatic[0][1]);
    EXPECT_FALSE(owner.hasPending());
    EXPECT_FALSE(std::filesystem::exists(journalPath()));
}

TEST_F(FanOwnerTest, AnNvidiaFanTheDriverWillNotTakeBackStaysJournaledAndIsRetried) {
    ASSERT_TRUE(nvidia.take(4, kGpuFan, 200).ok);
    gpus.failDefault = 3;
    const ArbiterOutcome released = nvidia.release(4, kGpuFan);
    EXPECT_FALSE(released.ok);
    EXPECT_EQ(released.code, codes::io);
    EXPECT_FALSE(owner.holder(kGpuFan).has_value());
    EXPECT_TRUE(owner.hasPending());
    EXPECT_FALSE(gpus.automatic[0][1]);
    EXPECT_EQ(journal(), (std::vector<JournalEntry>{{kGpuFan, std::nullopt, std::nullopt}}));

    gpus.failDefault = 0;
    owner.retryPending();
    EXPECT_TRUE(gpus.automatic[0][1]);
    EXPECT_FALSE(owner.hasPending());
    EXPECT_FALSE(std::filesystem::exists(journalPath()));
}

TEST_F(FanOwnerTest, AnNvidiaFanIsNotTakenWithoutAJournal) {
    std::filesystem::create_directory(journalPath().string() + ".new");  // blocks the rewrite
    const ArbiterOutcome outcome = nvidia.take(5, kGpuFan, 200);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.code, codes::io);
    EXPECT_NE(outcome.message.find("cannot journal"), std::string::npos) << outcome.message;
    EXPECT_TRUE(gpus.automatic[0][1]);
    EXPECT_EQ(gpus.speed[0][1], 31u);
    EXPECT_FALSE(owner.holder(kGpuFan).has_value());
}

}  // namespace
}  // namespace kelvo::helperd
