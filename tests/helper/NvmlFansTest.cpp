// NVIDIA fans through an in-process NVML fake: discovery, holds and giving fans back.
#include "helper/NvmlFans.h"

#include <gtest/gtest.h>

#include <cstring>

#include "foundation/helper_protocol/HelperProtocol.h"

namespace kelvo::helperd {
namespace {

namespace codes = helper_protocol::codes;

// Two GPUs: the first with two fans, the second with one. Speeds in percent; automatic[i] is
// whether the driver controls the fan.
struct FakeGpus {
    unsigned int speed[2][2] = {{30, 31}, {40, 0}};
    bool automatic[2][2] = {{true, true}, {true, true}};
    int failSet = 0;
};
FakeGpus gpus;

NvmlFanApi::Device deviceOf(unsigned int index) {
    // Opaque handles only need to be distinct and non-null.
    return reinterpret_cast<NvmlFanApi::Device>(static_cast<std::uintptr_t>(index + 1));
}
unsigned int indexOf(NvmlFanApi::Device device) {
    return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(device)) - 1;
}

NvmlFanApi fakeApi() {
    NvmlFanApi api;
    api.init = [] { return 0; };
    api.shutdown = [] { return 0; };
    api.getCount = [](unsigned int* count) {
        *count = 2;
        return 0;
    };
    api.getHandleByIndex = [](unsigned int index, NvmlFanApi::Device* device) {
        if (index >= 2) return 2;
        *device = deviceOf(index);
        return 0;
    };
    api.getPciInfo = [](NvmlFanApi::Device device, NvmlFanApi::PciInfo* pci) {
        std::strcpy(pci->busId, indexOf(device) == 0 ? "00000000:01:00.0" : "00000000:02:00.0");
        return 0;
    };
    api.getNumFans = [](NvmlFanApi::Device device, unsigned int* count) {
        *count = indexOf(device) == 0 ? 2 : 1;
        return 0;
    };
    api.getFanSpeed = [](NvmlFanApi::Device device, unsigned int fan, unsigned int* percent) {
        *percent = gpus.speed[indexOf(device)][fan];
        return 0;
    };
    api.setFanSpeed = [](NvmlFanApi::Device device, unsigned int fan, unsigned int percent) {
        if (gpus.failSet != 0) return gpus.failSet;
        gpus.speed[indexOf(device)][fan] = percent;
        gpus.automatic[indexOf(device)][fan] = false;
        return 0;
    };
    api.setDefaultFanSpeed = [](NvmlFanApi::Device device, unsigned int fan) {
        gpus.automatic[indexOf(device)][fan] = true;
        return 0;
    };
    return api;
}

class NvmlFansTest : public ::testing::Test {
protected:
    void SetUp() override { gpus = FakeGpus{}; }
};

TEST_F(NvmlFansTest, DiscoversEveryFanOfEveryGpuByBusId) {
    NvmlFans fans(nullptr, fakeApi());
    ASSERT_TRUE(fans.available());
    const auto found = fans.discover();
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0].identity, "nvidia@00000000:01:00.0#fan0");
    EXPECT_EQ(found[1].identity, "nvidia@00000000:01:00.0#fan1");
    EXPECT_EQ(found[2].identity, "nvidia@00000000:02:00.0#fan0");
    EXPECT_EQ(found[1].percent, 31);
}

TEST_F(NvmlFansTest, TakeSetsTheSpeedAndReleaseGivesItBackToTheDriver) {
    NvmlFans fans(nullptr, fakeApi());
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
    NvmlFans fans(nullptr, fakeApi());
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
    NvmlFans fans(nullptr, fakeApi());
    EXPECT_EQ(fans.take(1, "nvidia@00000000:01:00.0#fan9", 100).code, codes::unknownFan);
    gpus.failSet = 3;
    const ArbiterOutcome failed = fans.take(1, "nvidia@00000000:01:00.0#fan0", 100);
    EXPECT_EQ(failed.code, codes::io);
    EXPECT_FALSE(fans.holder("nvidia@00000000:01:00.0#fan0").has_value());
}

TEST_F(NvmlFansTest, StoppingGivesEverythingBack) {
    {
        NvmlFans fans(nullptr, fakeApi());
        ASSERT_TRUE(fans.take(1, "nvidia@00000000:02:00.0#fan0", 90).ok);
        EXPECT_FALSE(gpus.automatic[1][0]);
    }
    EXPECT_TRUE(gpus.automatic[1][0]);
}

TEST(NvmlFansLibrary, NoDriverMeansNoFans) {
    NvmlFans fans(nullptr, "/nonexistent/libnvidia-ml.so.1");
    EXPECT_FALSE(fans.available());
    EXPECT_FALSE(fans.unavailableReason().empty());
    EXPECT_TRUE(fans.discover().empty());
}

}  // namespace
}  // namespace kelvo::helperd
