// NVIDIA fans through an in-process NVML fake: discovery, holds and giving fans back.
#include "helper/NvmlFans.h"

#include <gtest/gtest.h>

#include "foundation/helper_protocol/HelperProtocol.h"
#include "tests/helper/FakeNvmlApi.h"
#include "tests/helper/HelperTestSupport.h"

namespace kelvo::helperd {
namespace {

namespace codes = helper_protocol::codes;

using fake_nvml::fakeApi;
using fake_nvml::FakeGpus;
using fake_nvml::gpus;

class NvmlFansTest : public ::testing::Test {
protected:
    void SetUp() override { gpus = FakeGpus{}; }

    test_support::FakeSysfs runtime;
    FanOwner owner{FanJournal(runtime.path("fan-journal")), nullptr};
};

TEST_F(NvmlFansTest, DiscoversEveryFanOfEveryGpuByBusId) {
    NvmlFans fans(owner, fakeApi());
    ASSERT_TRUE(fans.available());
    const auto found = fans.discover();
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0].identity, "nvidia@00000000:01:00.0#fan0");
    EXPECT_EQ(found[1].identity, "nvidia@00000000:01:00.0#fan1");
    EXPECT_EQ(found[2].identity, "nvidia@00000000:02:00.0#fan0");
    EXPECT_EQ(found[1].percent, 31);
}

TEST_F(NvmlFansTest, TakeSetsTheSpeedAndReleaseGivesItBackToTheDriver) {
    NvmlFans fans(owner, fakeApi());
    const std::string fan = "nvidia@00000000:01:00.0#fan1";
    ASSERT_TRUE(fans.take(1, fan, 255).ok);
    EXPECT_EQ(gpus.speed[0][1], 100u);
    EXPECT_FALSE(gpus.automatic[0][1]);
    ASSERT_TRUE(fans.take(1, fan, 128).ok);
    EXPECT_EQ(gpus.speed[0][1], 50u);
    EXPECT_EQ(fans.holder(fan), ClientId{1});

    const ArbiterOutcome other = fans.take(2, fan, 10);
    EXPECT_FALSE(other.ok);
    EXPECT_EQ(other.code, codes::heldByAnother);
    EXPECT_EQ(gpus.speed[0][1], 50u);

    EXPECT_FALSE(fans.release(2, fan).ok);
    EXPECT_FALSE(gpus.automatic[0][1]);
    ASSERT_TRUE(fans.release(1, fan).ok);
    EXPECT_TRUE(gpus.automatic[0][1]);
    EXPECT_FALSE(fans.holder(fan).has_value());
}

TEST_F(NvmlFansTest, AClientThatGoesAwayGivesEveryFanBack) {
    NvmlFans fans(owner, fakeApi());
    ASSERT_TRUE(fans.take(7, "nvidia@00000000:01:00.0#fan0", 200).ok);
    ASSERT_TRUE(fans.take(7, "nvidia@00000000:02:00.0#fan0", 200).ok);
    ASSERT_TRUE(fans.take(8, "nvidia@00000000:01:00.0#fan1", 200).ok);
    EXPECT_EQ(fans.releaseClient(7, "connection closed"), 2u);
    EXPECT_TRUE(gpus.automatic[0][0]);
    EXPECT_TRUE(gpus.automatic[1][0]);
    EXPECT_FALSE(gpus.automatic[0][1]);
    EXPECT_EQ(fans.heldBy(8), 1u);
}

TEST_F(NvmlFansTest, UnknownFanAndFailedWritesAreRefusedWithoutAHold) {
    NvmlFans fans(owner, fakeApi());
    EXPECT_EQ(fans.take(1, "nvidia@00000000:01:00.0#fan9", 100).code, codes::unknownFan);
    gpus.failSet = 3;
    const ArbiterOutcome failed = fans.take(1, "nvidia@00000000:01:00.0#fan0", 100);
    EXPECT_EQ(failed.code, codes::io);
    EXPECT_FALSE(fans.holder("nvidia@00000000:01:00.0#fan0").has_value());
}

TEST_F(NvmlFansTest, StoppingGivesEverythingBack) {
    {
        NvmlFans fans(owner, fakeApi());
        ASSERT_TRUE(fans.take(1, "nvidia@00000000:02:00.0#fan0", 90).ok);
        EXPECT_FALSE(gpus.automatic[1][0]);
    }
    EXPECT_TRUE(gpus.automatic[1][0]);
}

TEST(NvmlFansLibrary, NoDriverMeansNoFans) {
    test_support::FakeSysfs runtime;
    FanOwner owner(FanJournal(runtime.path("fan-journal")), nullptr);
    NvmlFans fans(owner, "/nonexistent/libnvidia-ml.so.1");
    EXPECT_FALSE(fans.available());
    EXPECT_FALSE(fans.unavailableReason().empty());
    EXPECT_TRUE(fans.discover().empty());
}

}  // namespace
}  // namespace kelvo::helperd
