// Every row runs on kelvo-simhw's machine through its sysfs files: Kelvo's modes through the
// application's own hwmon back-end and a fresh store, the baselines through pwm writes, the
// firmware row through none.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <string>

#include "LoadTrace.h"
#include "MachineProfile.h"
#include "QualityRun.h"
#include "foundation/store/SQLiteStore.h"

namespace kelvo::quality {
namespace {

constexpr int kSeconds = 300;

MachineProfile simDefault() {
    for (const auto& machine : standardMachines())
        if (machine.name == "sim-default") return machine;
    ADD_FAILURE() << "no sim-default machine";
    return standardMachines().front();
}

LoadTrace warmUp() {
    LoadTrace trace("warm-up");
    trace.hold(60, {0.03, 0.02});
    trace.hold(kSeconds - 60, {0.9, 0.6});
    return trace;
}

ControllerSpec named(const std::string& name) {
    for (auto& controller : standardControllers())
        if (controller.name == name) return controller;
    ADD_FAILURE() << "no controller " << name;
    return {};
}

ControllerSpec constantPlan(double duty) {
    ControllerSpec controller;
    controller.name = "constant";
    controller.plan = [duty](const MachineProfile&, const LoadTrace& trace, const RunSettings&) {
        return DutyPlan(static_cast<std::size_t>(trace.seconds()), {duty});
    };
    return controller;
}

TEST(ProductPath, TheLearnedRowsStartFromTheProfileKelvoLeftAndNoOtherRowDoes) {
    MachineProfile machine = simDefault();
    for (const auto& candidate : standardMachines())
        if (candidate.name == "laptop-two-blowers") machine = candidate;
    ASSERT_EQ(machine.name, "laptop-two-blowers");
    const std::filesystem::path dir = std::filesystem::temp_directory_path() /
                                      ("kelvo-learned-test-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    const std::string kept = (dir / "kelvo.db").string();
    // A long render: the quiet mode probes its blowers and leaves what it measured.
    LoadTrace render("render");
    render.hold(30 * 60, {1.0, 0.75});
    const RunResult learning = runController(machine, render, named("quiet"), {1, {}, kept});
    ASSERT_TRUE(std::filesystem::exists(kept));
    int probes = 0;
    for (const auto& c : learning.evidence.couplings) probes += c.probes;
    ASSERT_GT(probes, 0);

    LoadTrace idle("idle");
    idle.hold(10, {0.02, 0.02});
    const RunResult learned = runController(machine, idle, named("quiet-learned"), {1, kept, {}});
    EXPECT_EQ(learned.evidence.couplings, learning.evidence.couplings);
    // The fresh modes ignore it: a user's first launch.
    const RunResult fresh = runController(machine, idle, named("quiet"), {1, kept, {}});
    for (const auto& c : fresh.evidence.couplings) EXPECT_EQ(c.probes, 0) << c.identity;
    std::filesystem::remove_all(dir);
}

TEST(ProductPath, KelvoDrivesTheFansThroughHwmonAndFillsAFreshStore) {
    const MachineProfile machine = simDefault();
    for (const char* mode : {"quiet", "quietHybrid", "performance"}) {
        SCOPED_TRACE(mode);
        const RunResult run = runController(machine, warmUp(), named(mode), RunSettings{});
        EXPECT_GT(run.evidence.enableWrites, 0);
        EXPECT_GT(run.evidence.pwmWrites, 0);
        // The engine stores a sample at the store's spacing of the run's virtual time.
        const auto expected =
            static_cast<std::size_t>(kSeconds / SQLiteStore::kSampleSpacingSeconds);
        EXPECT_GE(run.evidence.storedSamples, expected - 2);
        EXPECT_LE(run.evidence.storedSamples, expected + 1);
    }
}

TEST(ProductPath, BaselinesWriteEveryFansPwmEachSecondInManualMode) {
    const MachineProfile machine = simDefault();
    const auto fans = static_cast<long>(machine.plant.fans.size());
    const RunResult run = runController(machine, warmUp(), named("linear-curve"), RunSettings{});
    EXPECT_EQ(run.evidence.enableWrites, fans);
    EXPECT_EQ(run.evidence.pwmWrites, fans * kSeconds);
    EXPECT_EQ(run.evidence.storedSamples, 0u);
}

TEST(ProductPath, TheFirmwareRowWritesNothing) {
    const RunResult run = runController(simDefault(), warmUp(), named("firmware"), RunSettings{});
    EXPECT_EQ(run.evidence.enableWrites, 0);
    EXPECT_EQ(run.evidence.pwmWrites, 0);
}

TEST(ProductPath, APlannedStopIsPlayedAsDutyZero) {
    const MachineProfile machine = simDefault();
    const RunResult stopped = runController(machine, warmUp(), constantPlan(-1), RunSettings{});
    const RunResult lowest = runController(machine, warmUp(), constantPlan(0), RunSettings{});
    const RunResult faster = runController(machine, warmUp(), constantPlan(0.5), RunSettings{});
    EXPECT_EQ(stopped.evidence.pwmWrites, lowest.evidence.pwmWrites);
    ASSERT_EQ(stopped.series.size(), lowest.series.size());
    for (std::size_t i = 0; i < stopped.series.size(); ++i) {
        EXPECT_EQ(stopped.series[i].rpm, lowest.series[i].rpm) << "second " << i;
        EXPECT_EQ(stopped.series[i].cpuC, lowest.series[i].cpuC) << "second " << i;
    }
    EXPECT_LT(stopped.row.meanRPM, faster.row.meanRPM);
}

}  // namespace
}  // namespace kelvo::quality
