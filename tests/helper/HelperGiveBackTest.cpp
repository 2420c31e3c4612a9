// Giving held fans back through the real kelvo-helperd, with NVML played by a stand-in library:
// a helper killed while it holds hwmon and NVIDIA fans has them back with their owners at its
// next start; a restore that fails is said to have failed, and is retried until it works; and a
// GPU fan, which has no speed to read, is driven like any other fan.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

#include "foundation/control/ControlEngine.h"
#include "foundation/core/EventRing.h"
#include "foundation/fans/HelperFanController.h"
#include "foundation/telemetry/SystemTelemetryProvider.h"
#include "tests/helper/HelperNvmlFixture.h"
#include "tests/helper/HelperTestSupport.h"

namespace kelvo {
namespace {

using namespace std::chrono_literals;
using test_support::FakeSysfs;
using test_support::HelperDaemon;
using test_support::kChip;
using test_support::kFan1;
using test_support::RawConnection;
using test_support::readWholeFile;
using test_support::waitUntil;
namespace hp = helper_protocol;

constexpr auto kDeadline = 15000ms;
constexpr const char* kGpuFan0 = "nvidia@00000000:65:00.0#fan0";

class HelperGiveBack : public test_support::HelperWithFakeNvml {
protected:
    std::string chipFile(const char* name) const {
        return sys.read(std::string(kChip) + name).value_or("<missing>");
    }
    static std::optional<hp::Reply> ask(RawConnection& connection, const hp::Request& request) {
        if (!connection.sendRequest(request)) return std::nullopt;
        return connection.reply(kDeadline);
    }
    static hp::Request setPWM(const std::string& fan, int pwm) {
        hp::Request request;
        request.op = hp::Op::setTarget;
        request.fan = fan;
        request.pwm = pwm;
        return request;
    }
    std::optional<hp::FanInfo> listed(RawConnection& connection, const std::string& identity) {
        const auto reply = ask(connection, hp::Request::of(hp::Op::list));
        if (!reply || !reply->ok) return std::nullopt;
        const auto inventory = hp::decodeInventory(reply->data);
        if (!inventory.ok()) return std::nullopt;
        for (const hp::FanInfo& fan : inventory.value->fans)
            if (fan.identity == identity) return fan;
        return std::nullopt;
    }
};

TEST_F(HelperGiveBack, NvidiaAndHwmonFansHeldWhenTheHelperIsKilledGoBackAtItsNextStart) {
    RawConnection client(daemon->socketPath());
    ASSERT_TRUE(client.connected());
    const auto gpu = ask(client, setPWM(kGpuFan0, 26));  // 10 %: a GPU left like this overheats
    ASSERT_TRUE(gpu && gpu->ok) << (gpu ? gpu->message : "no reply") << daemon->log();
    const auto hwmon = ask(client, setPWM(kFan1, 40));
    ASSERT_TRUE(hwmon && hwmon->ok) << (hwmon ? hwmon->message : "no reply") << daemon->log();
    ASSERT_EQ(readWholeFile(driverLog), "set 0 10\n");
    ASSERT_EQ(chipFile("pwm1_enable"), "1");

    daemon->signal(SIGKILL);
    ASSERT_TRUE(daemon->waitExit(kDeadline).has_value());
    // Nobody gave them back on the way out.
    EXPECT_EQ(readWholeFile(driverLog), "set 0 10\n");
    EXPECT_EQ(chipFile("pwm1_enable"), "1");

    const auto restart = test_support::SteadyClock::now();
    ASSERT_TRUE(daemon->start()) << daemon->log();
    const auto restored = waitUntil(
        [&] {
            return readWholeFile(driverLog).find("default 0\n") != std::string::npos &&
                   chipFile("pwm1_enable") == "2";
        },
        kDeadline);
    ASSERT_TRUE(restored) << readWholeFile(driverLog) << daemon->log();
    const std::chrono::duration<double> took = test_support::SteadyClock::now() - restart;
    std::printf("[ measured ] helper restart to NVIDIA and hwmon fans restored: %.0f ms\n",
                took.count() * 1000);
    EXPECT_EQ(readWholeFile(driverLog), "set 0 10\ndefault 0\n");
    EXPECT_EQ(chipFile("pwm1"), "40") << "the duty is the firmware's to change";
    EXPECT_FALSE(std::filesystem::exists(daemon->journalPath()));

    RawConnection after(daemon->socketPath());
    const auto fan = listed(after, kGpuFan0);
    ASSERT_TRUE(fan) << daemon->log();
    EXPECT_FALSE(fan->held);
    EXPECT_EQ(fan->mode, 2);
}

TEST_F(HelperGiveBack, ReleaseWhoseRestoreFailsIsRefusedAndRetriedUntilTheFanIsBack) {
    RawConnection client(daemon->socketPath());
    ASSERT_TRUE(client.connected());
    const auto taken = ask(client, setPWM(kFan1, 40));
    ASSERT_TRUE(taken && taken->ok) << daemon->log();
    // The attribute vanishes as the client lets go (a driver going away, a rebind).
    std::filesystem::remove(sys.path(std::string(kChip) + "pwm1_enable"));

    const auto released = ask(client, hp::Request::of(hp::Op::releaseAll));
    ASSERT_TRUE(released);
    EXPECT_FALSE(released->ok) << "the fan is not back with the firmware";
    EXPECT_EQ(released->code, hp::codes::io);
    EXPECT_NE(released->message.find(kFan1), std::string::npos) << released->message;
    // Asking again does not make it true.
    const auto again = ask(client, hp::Request::of(hp::Op::releaseAll));
    ASSERT_TRUE(again);
    EXPECT_FALSE(again->ok);

    // The attribute comes back in manual mode; the helper's own retry puts it right.
    sys.write(std::string(kChip) + "pwm1_enable", "1\n");
    const auto retried = waitUntil([&] { return chipFile("pwm1_enable") == "2"; }, kDeadline);
    ASSERT_TRUE(retried) << daemon->log();
    std::printf("[ measured ] attribute back to fan restored by the helper's retry: %.0f ms\n",
                retried->count() * 1000);
    const auto settled = ask(client, hp::Request::of(hp::Op::releaseAll));
    ASSERT_TRUE(settled);
    EXPECT_TRUE(settled->ok) << settled->message;
}

TEST_F(HelperGiveBack, TheControllerSaysWhenTheFansCouldNotBeGivenBack) {
    HelperFanController controller(daemon->socketPath());
    const FanReadResult read = controller.readFans();
    ASSERT_TRUE(read.ok) << read.error;
    std::vector<double> targets(read.fans.size(), 0);
    for (std::size_t i = 0; i < read.fans.size(); ++i)
        if (read.fans[i].name == kFan1) targets[i] = 2000;
    ASSERT_TRUE(controller.setTargets(targets).ok);
    ASSERT_EQ(chipFile("pwm1_enable"), "1");
    std::filesystem::remove(sys.path(std::string(kChip) + "pwm1_enable"));

    const FanResult released = controller.releaseToAutomatic();
    EXPECT_FALSE(released.ok);
    EXPECT_NE(released.error.find("could not be given back"), std::string::npos) << released.error;
    EXPECT_NE(released.error.find("will retry"), std::string::npos) << released.error;
    EXPECT_FALSE(controller.holdsControl()) << "the helper holds it no more; it retries";

    sys.write(std::string(kChip) + "pwm1_enable", "1\n");
    ASSERT_TRUE(waitUntil([&] { return chipFile("pwm1_enable") == "2"; }, kDeadline))
        << daemon->log();
    EXPECT_TRUE(controller.releaseToAutomatic().ok);
}

TEST_F(HelperGiveBack, KelvoKeepsDrivingAFanWhoseDriverWasReboundUnderAnotherHwmon) {
    HelperFanController controller(daemon->socketPath());
    const FanReadResult read = controller.readFans();
    ASSERT_TRUE(read.ok) << read.error;
    std::vector<double> targets(read.fans.size(), 0);
    for (std::size_t i = 0; i < read.fans.size(); ++i)
        if (read.fans[i].name == kFan1) targets[i] = 2000;
    ASSERT_TRUE(controller.setTargets(targets).ok);

    // The driver is unbound and bound again: the same chip comes back as hwmon5.
    const std::string device = "sys/devices/platform/it87.656/hwmon/";
    std::filesystem::rename(sys.path(device + "hwmon0"), sys.path(device + "hwmon5"));
    std::filesystem::remove(sys.path("sys/class/hwmon/hwmon0"));
    sys.symlink("../../devices/platform/it87.656/hwmon/hwmon5", "sys/class/hwmon/hwmon5");
    sys.write("sys/class/hwmon/hwmon5/pwm1_enable", "2\n");

    targets.assign(targets.size(), 0);
    const FanReadResult again = controller.readFans();
    ASSERT_TRUE(again.ok) << again.error;
    for (std::size_t i = 0; i < again.fans.size(); ++i)
        if (again.fans[i].name == kFan1) targets[i] = 3000;
    const FanResult written = controller.setTargets(targets);
    EXPECT_TRUE(written.ok) << written.error << daemon->log();
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon5/pwm1_enable"), "1");
    EXPECT_TRUE(controller.holdsControl());
    ASSERT_TRUE(controller.releaseToAutomatic().ok);
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon5/pwm1_enable"), "2");
}

TEST_F(HelperGiveBack, AGpuFanWithoutASpeedIsDrivenAndNeverCalledStalled) {
    auto fans = std::make_shared<HelperFanController>(daemon->socketPath());
    auto ring = std::make_shared<EventRing>(160, 1e9);
    ControlEngine engine(std::make_shared<SystemTelemetryProvider>(sys.root().string()), fans,
                         nullptr, ring, nullptr);
    engine.applyMode(ControlMode::performance);
    std::optional<std::size_t> gpuIndex;
    Timestamp now = 1000;
    for (int tick = 0; tick < 12; ++tick) {
        const ControlSnapshot snap = engine.tick(++now);
        ASSERT_EQ(snap.status, ControlStatus::controlling) << "tick " << tick;
        for (std::size_t i = 0; i < snap.sample.fanNames.size(); ++i)
            if (snap.sample.fanNames[i] == kGpuFan0) gpuIndex = i;
        ASSERT_TRUE(gpuIndex) << daemon->log();
        EXPECT_FALSE(isReadableRPM(snap.sample.fanCurrentRPM[*gpuIndex]))
            << "a share of full speed is no rpm: absent, never 0; read "
            << snap.sample.fanCurrentRPM[*gpuIndex];
        // The sample shows what was held when it was read: the first tick's write comes after.
        if (tick > 0) {
            EXPECT_GT(snap.sample.fanTargetRPM[*gpuIndex], 0) << "tick " << tick;
        }
    }
    for (const auto& event : ring->recent(160))
        EXPECT_EQ(event.message.find("Fan stalled"), std::string::npos) << event.message;
    RawConnection observer(daemon->socketPath());
    const auto fan = listed(observer, kGpuFan0);
    ASSERT_TRUE(fan);
    EXPECT_TRUE(fan->held) << "still Kelvo's after twelve ticks";
    EXPECT_NE(readWholeFile(driverLog).find("set 0 "), std::string::npos);
}

}  // namespace
}  // namespace kelvo
