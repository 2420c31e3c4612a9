// The machines whose own firmware lets a die reach its throttle point: under a sustained load the
// firmware curve must cost clock there, while the same fans at full speed hold both dies under
// Kelvo's quiet limits with room to spare. Without the first, the firmware row would have nothing
// to show; without the second, no controller could do better than throttling.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "LoadTrace.h"
#include "MachineProfile.h"
#include "QualityRun.h"

namespace kelvo::quality {
namespace {

constexpr LoadLevel kIdle{0.03, 0.02};
constexpr int kLoadedSeconds = 600;
// "Clearly" throttled: Kelvo's performance mode keeps these machines at full clock, so the
// firmware must lose more than five points of it.
constexpr double kThrottledRetention = 0.95;
constexpr double kHeadroomC = 1.0;

const char* const kThrottlingMachines[] = {"thin-laptop-45w", "desktop-silent-gpu"};

std::optional<MachineProfile> machineNamed(const std::string& name) {
    for (const auto& machine : standardMachines())
        if (machine.name == name) return machine;
    return std::nullopt;
}

LoadTrace sustained(const std::string& name, LoadLevel load) {
    LoadTrace trace(name);
    trace.hold(30, kIdle);
    trace.hold(kLoadedSeconds, load);
    return trace;
}

// A build on every core with the graphics idle, and everything at once.
std::vector<LoadTrace> sustainedTraces() {
    return {sustained("processor", {1.0, 0.03}), sustained("everything", {1.0, 1.0})};
}

ControllerSpec firmware() {
    for (const auto& controller : standardControllers())
        if (controller.name == "firmware") return controller;
    ADD_FAILURE() << "no firmware controller";
    return {};
}

ControllerSpec constantDuty(double duty) {
    ControllerSpec controller;
    controller.name = "duty " + std::to_string(duty);
    controller.plan = [duty](const MachineProfile&, const LoadTrace& trace, const RunSettings&) {
        return DutyPlan(static_cast<std::size_t>(trace.seconds()), {duty});
    };
    return controller;
}

double hottest(const RunResult& run, double SeriesPoint::*die) {
    double peak = 0;
    for (const auto& point : run.series) peak = std::max(peak, point.*die);
    return peak;
}

TEST(ThrottlingMachines, AreBuiltIn) {
    for (const char* name : kThrottlingMachines) EXPECT_TRUE(machineNamed(name)) << name;
}

TEST(ThrottlingMachines, FirmwareCurveThrottlesUnderSustainedLoad) {
    const ControllerSpec curve = firmware();
    for (const char* name : kThrottlingMachines) {
        auto machine = machineNamed(name);
        ASSERT_TRUE(machine) << name;
        for (const auto& trace : sustainedTraces()) {
            SCOPED_TRACE(std::string(name) + " / " + trace.name());
            const QualityRow row = runController(*machine, trace, curve, {}).row;
            EXPECT_GT(row.throttledS, 0.0);
            EXPECT_LT(row.retention, kThrottledRetention);
        }
    }
}

TEST(ThrottlingMachines, FullFansHoldBothDiesUnderTheQuietLimits) {
    const MetricLimits limits;
    for (const char* name : kThrottlingMachines) {
        auto machine = machineNamed(name);
        ASSERT_TRUE(machine) << name;
        for (const auto& trace : sustainedTraces()) {
            SCOPED_TRACE(std::string(name) + " / " + trace.name());
            const RunResult run = runController(*machine, trace, constantDuty(1.0), {});
            EXPECT_EQ(run.row.throttledS, 0.0);
            EXPECT_EQ(run.row.overLimitS, 0.0);
            EXPECT_DOUBLE_EQ(run.row.retention, 1.0);
            EXPECT_LE(hottest(run, &SeriesPoint::cpuC), limits.cpuLimitC - kHeadroomC);
            EXPECT_LE(hottest(run, &SeriesPoint::gpuC), limits.gpuLimitC - kHeadroomC);
        }
    }
}

// The fans matter: at their floor they cannot carry a full load, so a controller has to choose.
TEST(ThrottlingMachines, FloorSpeedCannotHoldAFullLoad) {
    for (const char* name : kThrottlingMachines) {
        auto machine = machineNamed(name);
        ASSERT_TRUE(machine) << name;
        const LoadTrace trace = sustained("everything", {1.0, 1.0});
        const QualityRow row = runController(*machine, trace, constantDuty(0.0), {}).row;
        EXPECT_GT(row.overLimitS, kLoadedSeconds / 2.0) << name;
    }
}

}  // namespace
}  // namespace kelvo::quality
