// A render, or a game held back by its frame cap, keeps the GPU at three quarters for many
// minutes; then a heavy scene asks for all of it. The die jumps by its own power within a second
// or two, faster than any fan can answer, so the quiet mode keeps room for that jump however long
// the level has held. The control table's traces never jump from a held level, so a mode that
// spent that room on a long render would look only quieter there: this run is where it shows.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "LoadTrace.h"
#include "MachineProfile.h"
#include "QualityRun.h"

namespace kelvo::quality {
namespace {

ControllerSpec quietMode() {
    for (auto& controller : standardControllers())
        if (controller.name == "quiet") return controller;
    ADD_FAILURE() << "no quiet controller";
    return {};
}

LoadTrace cappedGame() {
    LoadTrace trace("capped-game");
    trace.hold(30, {0.03, 0.02});
    trace.hold(480, {0.45, 0.75});  // eight minutes at one level
    trace.hold(90, {0.55, 1.0});    // a heavy scene
    trace.hold(60, {0.45, 0.75});
    return trace;
}

LoadTrace heldRender() {
    LoadTrace trace("held-render");
    trace.hold(30, {0.03, 0.02});
    trace.hold(400, {0.8, 0.8});
    trace.hold(60, {1.0, 1.0});  // the last frames, or a second job on top
    trace.hold(60, {0.8, 0.8});
    return trace;
}

// The quiet mode from a fresh profile on each named machine: no second over the limits, and the
// hottest die near them (the load held it close to its setpoint, so the jump had only the
// reserve and the margin to land in).
void expectReserveHolds(const LoadTrace& trace, const std::set<std::string>& names) {
    const ControllerSpec quiet = quietMode();
    std::size_t ran = 0;
    for (const auto& machine : standardMachines()) {
        if (!names.count(machine.name)) continue;
        ++ran;
        const RunResult run = runController(machine, trace, quiet, {1, {}, {}});
        EXPECT_EQ(run.row.overLimitS, 0) << machine.name << " on " << trace.name();
        EXPECT_GT(run.row.peakC, 80) << machine.name << " on " << trace.name();
    }
    EXPECT_EQ(ran, names.size());
}

TEST(HeldLoadBurst, AGpuHeldAtThreeQuartersForMinutesStillFindsItsReserveWhenItGoesFlatOut) {
    expectReserveHolds(cappedGame(),
                       {"desktop-fan-stop", "laptop-two-blowers", "desktop-cooler-gpu-case"});
}

TEST(HeldLoadBurst, ARenderHeldAtFourFifthsForMinutesStillFindsItsReserveWhenItGoesFlatOut) {
    expectReserveHolds(heldRender(), {"desktop-silent-gpu", "desktop-large-cooler"});
}

}  // namespace
}  // namespace kelvo::quality
