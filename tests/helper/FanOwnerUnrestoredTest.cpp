// Fans a client let go of whose restore failed: the client is told so for as long as it is true,
// the helper keeps retrying, and a failure that repeats is logged once rather than every second.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "foundation/helper_protocol/HelperProtocol.h"
#include "helper/FanJournal.h"
#include "helper/FanOwner.h"
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

constexpr const char* kGpuFan = "nvidia@00000000:01:00.0#fan1";

class FanOwnerUnrestored : public ::testing::Test {
protected:
    FanOwnerUnrestored() {
        gpus = FakeGpus{};
        buildHelperBoard(sys);
    }
    HwmonFan fan(const std::string& identity) const {
        for (const HwmonFan& candidate : hwmon.discover())
            if (candidate.identity == identity) return candidate;
        ADD_FAILURE() << "no fan " << identity;
        return {};
    }
    std::size_t logged(const std::string& text) const {
        return static_cast<std::size_t>(std::count_if(log.begin(), log.end(), [&](const auto& l) {
            return l.find(text) != std::string::npos;
        }));
    }

    FakeSysfs sys;
    FakeSysfs runtime;
    std::vector<std::string> log;
    FanOwner owner{FanJournal(runtime.path("fan-journal")),
                   [this](const std::string& line) { log.push_back(line); }};
    HwmonFans hwmon{std::make_shared<HwmonFanService>(sys.root().string()), owner};
    NvmlFans nvidia{owner, fakeApi()};
};

TEST_F(FanOwnerUnrestored, TheClientIsToldUntilTheRetryPutsTheFanBack) {
    ASSERT_TRUE(nvidia.take(4, kGpuFan, 60).ok);
    gpus.failDefault = 3;
    EXPECT_EQ(owner.releaseClient(4, "connection closed"), 1u);
    const auto stuck = owner.unrestored(4);
    ASSERT_EQ(stuck.size(), 1u);
    EXPECT_EQ(stuck[0].first, kGpuFan);
    EXPECT_NE(stuck[0].second.find("NVML error 3"), std::string::npos) << stuck[0].second;
    EXPECT_TRUE(owner.unrestored(5).empty()) << "only the client that let go is told";

    const ArbiterOutcome again = nvidia.release(4, kGpuFan);
    EXPECT_FALSE(again.ok) << "not released while the driver still has not taken it back";
    EXPECT_EQ(again.code, codes::io);
    EXPECT_TRUE(nvidia.release(5, kGpuFan).ok) << "another client never held it";

    gpus.failDefault = 0;
    owner.retryPending();
    EXPECT_TRUE(gpus.automatic[0][1]);
    EXPECT_TRUE(owner.unrestored(4).empty());
    EXPECT_TRUE(nvidia.release(4, kGpuFan).ok);
}

TEST_F(FanOwnerUnrestored, ARetryThatKeepsFailingTheSameWayIsLoggedOnce) {
    ASSERT_TRUE(hwmon.take(2, fan(kFan1), 100).ok);
    const auto enable = sys.path(std::string(kChip) + "pwm1_enable");
    std::filesystem::remove(enable);
    std::filesystem::create_directory(enable);  // cannot be written
    EXPECT_EQ(owner.releaseClient(2, "connection closed"), 1u);
    for (int second = 0; second < 5; ++second) owner.retryPending();
    EXPECT_TRUE(owner.hasPending());
    EXPECT_EQ(logged("cannot release " + std::string(kFan1)), 1u);
    EXPECT_EQ(logged("cannot restore " + std::string(kFan1)), 0u) << "the same failure";

    std::filesystem::remove(enable);
    owner.retryPending();  // a different failure is worth a line
    EXPECT_EQ(logged("cannot restore " + std::string(kFan1)), 1u);
    sys.write(std::string(kChip) + "pwm1_enable", "1\n");
    owner.retryPending();
    EXPECT_FALSE(owner.hasPending());
    EXPECT_EQ(sys.read(std::string(kChip) + "pwm1_enable"), "2");
    EXPECT_EQ(logged("restored " + std::string(kFan1)), 1u);
}

}  // namespace
}  // namespace kelvo::helperd
