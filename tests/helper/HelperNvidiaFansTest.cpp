// NVIDIA fans through the real kelvo-helperd, with NVML played by a stand-in library: listed
// next to the hwmon fans, taken under the same rules, and handed back to the driver when the
// client goes away.
#include <gtest/gtest.h>

#include "tests/helper/HelperNvmlFixture.h"
#include "tests/helper/HelperTestSupport.h"

namespace kelvo {
namespace {

using namespace std::chrono_literals;
using test_support::FakeSysfs;
using test_support::HelperDaemon;
using test_support::RawConnection;
using test_support::readWholeFile;
using test_support::waitUntil;
namespace hp = helper_protocol;

constexpr auto kDeadline = 15000ms;
constexpr const char* kGpuFan0 = "nvidia@00000000:65:00.0#fan0";
constexpr const char* kGpuFan1 = "nvidia@00000000:65:00.0#fan1";

class HelperNvidiaFans : public test_support::HelperWithFakeNvml {
protected:
    std::optional<hp::Inventory> list(RawConnection& connection) {
        if (!connection.sendRequest(hp::Request::of(hp::Op::list))) return std::nullopt;
        const auto reply = connection.reply(kDeadline);
        if (!reply || !reply->ok) return std::nullopt;
        auto inventory = hp::decodeInventory(reply->data);
        if (!inventory.ok()) return std::nullopt;
        return *inventory.value;
    }
    const hp::FanInfo* find(const hp::Inventory& inventory, const std::string& identity) {
        for (const auto& fan : inventory.fans)
            if (fan.identity == identity) return &fan;
        return nullptr;
    }
};

TEST_F(HelperNvidiaFans, AreListedTakenAndHandedBackToTheDriverWhenTheClientGoes) {
    {
        RawConnection client(daemon->socketPath());
        ASSERT_TRUE(client.connected());
        const auto before = list(client);
        ASSERT_TRUE(before) << daemon->log();
        const hp::FanInfo* fan0 = find(*before, kGpuFan0);
        ASSERT_NE(fan0, nullptr) << daemon->log();
        EXPECT_NE(find(*before, kGpuFan1), nullptr);
        EXPECT_TRUE(fan0->controllable);
        EXPECT_EQ(fan0->mode, 2) << "the driver's own control";
        EXPECT_FALSE(fan0->rpm) << "NVML gives a share of full speed, not revolutions";

        hp::Request set;
        set.op = hp::Op::setTarget;
        set.fan = kGpuFan0;
        set.pwm = 153;  // 60 %
        ASSERT_TRUE(client.sendRequest(set));
        const auto reply = client.reply(kDeadline);
        ASSERT_TRUE(reply && reply->ok) << (reply ? reply->message : "no reply") << daemon->log();
        EXPECT_EQ(readWholeFile(driverLog), "set 0 60\n");

        const auto after = list(client);
        ASSERT_TRUE(after);
        EXPECT_TRUE(find(*after, kGpuFan0)->mine);
        EXPECT_EQ(find(*after, kGpuFan0)->mode, 1);
        EXPECT_EQ(find(*after, kGpuFan0)->pwm, 153);

        // Another client cannot take it meanwhile.
        RawConnection other(daemon->socketPath());
        ASSERT_TRUE(other.sendRequest(set));
        const auto refused = other.reply(kDeadline);
        ASSERT_TRUE(refused);
        EXPECT_FALSE(refused->ok);
        EXPECT_EQ(refused->code, hp::codes::heldByAnother);
    }
    ASSERT_TRUE(
        waitUntil([&] { return readWholeFile(driverLog).find("default 0\n") != std::string::npos; },
                  kDeadline))
        << daemon->log();
    EXPECT_EQ(readWholeFile(driverLog), "set 0 60\ndefault 0\n");
}

TEST_F(HelperNvidiaFans, AConfiguredFloorHoldsForThemToo) {
    daemon.reset();
    std::ofstream(runtime / "helperd.conf") << "floor " << kGpuFan1 << " 50%\n";
    ::chmod((runtime / "helperd.conf").c_str(), 0644);
    daemon = std::make_unique<HelperDaemon>(
        sys.root().string(), runtime,
        std::vector<std::string>{"--nvml-library", KELVO_FAKE_NVML_LIBRARY, "--config",
                                 (runtime / "helperd.conf").string()});
    daemon->setEnvironment("KELVO_FAKE_NVML_LOG", driverLog.string());
    ASSERT_TRUE(daemon->start()) << daemon->log();
    RawConnection client(daemon->socketPath());
    hp::Request set;
    set.op = hp::Op::setTarget;
    set.fan = kGpuFan1;
    set.pwm = 64;
    ASSERT_TRUE(client.sendRequest(set));
    const auto reply = client.reply(kDeadline);
    ASSERT_TRUE(reply);
    EXPECT_FALSE(reply->ok);
    EXPECT_EQ(reply->code, hp::codes::belowFloor) << reply->message;
    EXPECT_FALSE(std::filesystem::exists(driverLog)) << readWholeFile(driverLog);
}

TEST_F(HelperNvidiaFans, WithoutTheLibraryThereAreNoneAndTheHelperSaysWhy) {
    daemon.reset();
    daemon = std::make_unique<HelperDaemon>(
        sys.root().string(), runtime,
        std::vector<std::string>{"--nvml-library", (runtime / "missing.so").string()});
    ASSERT_TRUE(daemon->start()) << daemon->log();
    RawConnection client(daemon->socketPath());
    const auto inventory = list(client);
    ASSERT_TRUE(inventory);
    EXPECT_EQ(find(*inventory, kGpuFan0), nullptr);
    EXPECT_NE(daemon->log().find("no NVIDIA fans"), std::string::npos) << daemon->log();
}

}  // namespace
}  // namespace kelvo
