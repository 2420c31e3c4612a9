#include <gtest/gtest.h>

#include "app/FanBackendSelection.h"
#include "app_common/Legacy.h"
#include "foundation/fans/HelperFanController.h"
#include "foundation/fans/HybridFanController.h"
#include "foundation/fans/LocalFanController.h"
#include "foundation/sim/SimulatedFanController.h"
#include "foundation/sim/SimulatedTelemetryProvider.h"
#include "foundation/telemetry/SystemTelemetryProvider.h"

using namespace kelvo;

namespace {

using Backend = FanBackendSelection::Backend;

const QString kHelperOnly = QString::fromLatin1(legacy::kHelperOnlyFansFlag);

TEST(FanBackendSelectionFlags, NoFlagsMeanHybridWithoutLocalWritesOnTheRealMachine) {
    const auto selection = FanBackendSelection::fromArguments({});
    EXPECT_EQ(selection.backend, Backend::hybrid);
    EXPECT_FALSE(selection.allowLocalWriteFallback);
    EXPECT_FALSE(selection.simulationFollowsHostLoad);
    EXPECT_EQ(selection.paths.sysfsRoot, "/");
    EXPECT_EQ(selection.paths.helperSocket, "/run/kelvo/helper.sock");
}

TEST(FanBackendSelectionFlags, StrongerFlagWinsWhateverTheOrder) {
    EXPECT_EQ(FanBackendSelection::fromArguments({QStringLiteral("--local-only-fans"), kHelperOnly,
                                                  QStringLiteral("--harness-simulated-fans")})
                  .backend,
              Backend::simulated);
    EXPECT_EQ(FanBackendSelection::fromArguments({QStringLiteral("--local-only-fans"), kHelperOnly})
                  .backend,
              Backend::helperOnly);
    EXPECT_EQ(FanBackendSelection::fromArguments(
                  {QStringLiteral("--hybrid-fans"), QStringLiteral("--local-only-fans")})
                  .backend,
              Backend::localOnly);
}

TEST(FanBackendSelectionFlags, HybridFansFlagOnlyAllowsTheLocalWriteFallback) {
    const auto selection = FanBackendSelection::fromArguments({QStringLiteral("--hybrid-fans")});
    EXPECT_EQ(selection.backend, Backend::hybrid);
    EXPECT_TRUE(selection.allowLocalWriteFallback);
}

TEST(FanBackendSelectionFlags, PathsAndHostLoadComeFromTheirFlags) {
    const auto selection = FanBackendSelection::fromArguments(
        {QStringLiteral("--harness-simulated-fans"), QStringLiteral("--sim-follow-host-load"),
         QStringLiteral("--sysfs-root=/tmp/fake"), QStringLiteral("--helper-socket"),
         QStringLiteral("/tmp/h.sock")});
    EXPECT_TRUE(selection.simulationFollowsHostLoad);
    EXPECT_EQ(selection.paths.sysfsRoot, "/tmp/fake");
    EXPECT_EQ(selection.paths.helperSocket, "/tmp/h.sock");
}

TEST(FanBackendSelectionBuild, EachBackendBuildsItsController) {
    FanBackendSelection selection;
    selection.paths.helperSocket = "/tmp/kelvo-test/helper.sock";
    selection.backend = Backend::simulated;
    EXPECT_NE(std::dynamic_pointer_cast<SimulatedFanController>(selection.makeFanController()),
              nullptr);
    selection.backend = Backend::helperOnly;
    auto helper = std::dynamic_pointer_cast<HelperFanController>(selection.makeFanController());
    ASSERT_NE(helper, nullptr);
    EXPECT_EQ(helper->socketPath(), "/tmp/kelvo-test/helper.sock");
    selection.backend = Backend::localOnly;
    EXPECT_NE(std::dynamic_pointer_cast<LocalFanController>(selection.makeFanController()),
              nullptr);
    selection.backend = Backend::hybrid;
    selection.allowLocalWriteFallback = true;
    auto hybrid = std::dynamic_pointer_cast<HybridFanController>(selection.makeFanController());
    ASSERT_NE(hybrid, nullptr);
    EXPECT_TRUE(hybrid->allowLocalWriteFallback());
}

TEST(FanBackendSelectionBuild, SimulatedFansGetTheirMachinesTelemetry) {
    auto fans = std::make_shared<SimulatedFanController>();
    FanBackendSelection selection;
    selection.simulationFollowsHostLoad = true;
    auto telemetry = selection.makeTelemetryProvider(fans);
    EXPECT_NE(std::dynamic_pointer_cast<SimulatedTelemetryProvider>(telemetry), nullptr);
    EXPECT_TRUE(fans->machine()->followsHostLoad());
    selection.simulationFollowsHostLoad = false;
    selection.makeTelemetryProvider(fans);
    EXPECT_FALSE(fans->machine()->followsHostLoad());
}

TEST(FanBackendSelectionBuild, RealFansReadTheMachine) {
    // The fans decide, not the selection's own back-end: a test's real back-end on a
    // simulated launch still reads the machine.
    FanBackendSelection selection;
    selection.backend = Backend::simulated;
    auto telemetry = selection.makeTelemetryProvider(std::make_shared<HelperFanController>());
    EXPECT_NE(std::dynamic_pointer_cast<SystemTelemetryProvider>(telemetry), nullptr);
}

}  // namespace
