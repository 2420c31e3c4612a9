// A client that stops answering loses its fans when its lease runs out; when it comes back, the
// fan back-end tells the control loop which fans were taken from it.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "HelperTestSupport.h"
#include "foundation/fans/HelperFanController.h"

namespace kelvo {
namespace {

using namespace std::chrono_literals;
using test_support::buildHelperBoard;
using test_support::FakeSysfs;
using test_support::HelperDaemon;
using test_support::kChip;
using test_support::kFan1;
using test_support::kFan2;
using test_support::waitUntil;

TEST(HelperLeaseLoss, FansTakenBackByTheHelperAreReportedOnceWhenTheClientReturns) {
    FakeSysfs sys;
    buildHelperBoard(sys);
    const auto runtime = test_support::makeTempDir("kelvo-helper-run");
    auto daemon =
        std::make_unique<HelperDaemon>(sys.root().string(), runtime, std::vector<std::string>{});
    ASSERT_TRUE(daemon->start()) << daemon->log();
    const auto enable = [&](const char* name) {
        return sys.read(std::string(kChip) + name).value_or("");
    };

    HelperFanController controller(daemon->socketPath());
    ASSERT_TRUE(controller.setTargets({0, 2000, 1500, 0}).ok);
    ASSERT_EQ(enable("pwm1_enable"), "1");
    EXPECT_TRUE(controller.takeFansLostBehindOurBack().empty()) << "nothing lost yet";

    // The client says nothing (as a stopped Kelvo would): the helper gives the fans back.
    ASSERT_TRUE(waitUntil([&] { return enable("pwm1_enable") == "2"; }, 15000ms)) << daemon->log();

    // Back again: the next read finds the fans no longer its own.
    ASSERT_TRUE(controller.readFans().ok);
    const std::vector<std::string> lost = controller.takeFansLostBehindOurBack();
    EXPECT_EQ(lost, (std::vector<std::string>{kFan1, kFan2}));
    EXPECT_FALSE(controller.holdsControl());
    EXPECT_TRUE(controller.takeFansLostBehindOurBack().empty()) << "reported once";

    // Given back on purpose, nothing is reported.
    ASSERT_TRUE(controller.setTargets({0, 2000, 0, 0}).ok);
    ASSERT_TRUE(controller.releaseToAutomatic().ok);
    EXPECT_TRUE(controller.takeFansLostBehindOurBack().empty());
    daemon.reset();
    std::error_code ec;
    std::filesystem::remove_all(runtime, ec);
}

}  // namespace
}  // namespace kelvo
