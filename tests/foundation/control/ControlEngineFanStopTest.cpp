#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <mutex>

#include "foundation/control/ControlEngine.h"
#include "foundation/core/EventRing.h"
#include "foundation/sim/SimulatedFanController.h"
#include "foundation/sim/SimulatedMachine.h"
#include "foundation/sim/SimulatedTelemetryProvider.h"
#include "tests/foundation/ControlTestFakes.h"
#include "tests/foundation/ShippedMachines.h"

using namespace kelvo;
using kelvo::fakes::RecordingFans;
using kelvo::fakes::ScriptedTelemetry;

namespace {
const std::string kStops = "nct6798@/sys/devices/platform/nct6775.656#fan1";
const std::string kTurns = "nct6798@/sys/devices/platform/nct6775.656#fan2";
const std::string kPump = "nct6798@/sys/devices/platform/nct6775.656#fan3";

// Fans that stand still on a stop target and spin at any positive one (unless told they will
// not), and that calibrate on request as the test scripts it.
class StoppingFans : public FanController, public FanCurveLearning {
public:
    struct Fan {
        std::string name;
        std::string label;
        bool canStop = true;
        bool firmwareStops = false;
        bool spins = true;
        double target = 0;
    };
    StoppingFans() {
        fans = {{kStops, "CPU fan", true, true},
                {kTurns, "Chassis", true, false},
                {kPump, "AIO Pump", true, true}};
    }
    std::string typeName() const override { return "StoppingFans"; }
    FanCurveLearning* curveLearning() override { return this; }
    FanReadResult readFans() override {
        std::lock_guard lock(mutex);
        FanReadResult result;
        for (const Fan& f : fans) {
            FanState s;
            s.name = f.name;
            s.label = f.label;
            s.targetRPM = f.target;
            s.minRPM = 300;
            s.maxRPM = 2000;
            s.canStop = f.canStop;
            s.firmwareStops = f.firmwareStops;
            s.stopCommanded = isFanStopTarget(f.target);
            s.currentRPM = isFanStopTarget(f.target) ? 0
                           : f.target > 0            ? (f.spins ? f.target : 0)
                                                     : 900;
            result.fans.push_back(s);
        }
        return result;
    }
    FanResult setTargets(const std::vector<double>& targets) override {
        std::lock_guard lock(mutex);
        for (std::size_t i = 0; i < targets.size() && i < fans.size(); ++i)
            fans[i].target = targets[i];
        held = true;
        return FanResult::success();
    }
    FanResult releaseToAutomatic() override {
        std::lock_guard lock(mutex);
        for (Fan& f : fans) f.target = 0;
        held = false;
        return FanResult::success();
    }
    bool holdsControl() const override {
        std::lock_guard lock(mutex);
        return held;
    }
    void attachCurveStore(FanCurveStore) override {}
    std::optional<FanCurve> learnedCurve(const std::string&) override { return std::nullopt; }
    bool requestCalibration(const std::string& identity, std::string* why) override {
        std::lock_guard lock(mutex);
        if (!refusal.empty()) {
            *why = refusal;
            return false;
        }
        FanCalibrationStatus status;
        status.running = true;
        status.secondsLeft = 120;
        calibration[identity] = status;
        return true;
    }
    std::optional<FanCalibrationStatus> calibrationStatus(const std::string& identity) override {
        std::lock_guard lock(mutex);
        auto it = calibration.find(identity);
        if (it == calibration.end()) return std::nullopt;
        return it->second;
    }
    void setSpins(const std::string& name, bool spins) {
        std::lock_guard lock(mutex);
        for (Fan& f : fans)
            if (f.name == name) f.spins = spins;
    }
    void setCalibration(const std::string& name, FanCalibrationStatus status) {
        std::lock_guard lock(mutex);
        calibration[name] = status;
    }
    double target(std::size_t i) const {
        std::lock_guard lock(mutex);
        return fans.at(i).target;
    }

    mutable std::mutex mutex;
    std::vector<Fan> fans;
    bool held = false;
    std::string refusal;
    std::map<std::string, FanCalibrationStatus> calibration;
};

// The events recorded so far whose text starts with `start`.
int countStartingWith(const EventRing& ring, const std::string& start) {
    int n = 0;
    for (const auto& e : ring.recent(1000)) n += e.message.starts_with(start) ? 1 : 0;
    return n;
}

struct StopRig {
    std::shared_ptr<ScriptedTelemetry> telemetry = std::make_shared<ScriptedTelemetry>();
    std::shared_ptr<StoppingFans> fans = std::make_shared<StoppingFans>();
    std::shared_ptr<EventRing> ring = std::make_shared<EventRing>(1000, 1e9);
    std::unique_ptr<ControlEngine> engine;
    Timestamp now = 1000;
    explicit StopRig(double cpu = 50) {
        setCpu(cpu);
        engine = std::make_unique<ControlEngine>(telemetry, fans, nullptr, ring, nullptr);
        engine->applyMode(ControlMode::quiet);
    }
    void setCpu(double c) {
        std::lock_guard lock(telemetry->mutex);
        telemetry->next.cpuTemperatureC = c;
    }
    ControlSnapshot tick() { return engine->tick(now++); }
    // Ticks until `done` holds, at most `limit` ticks; whether it held.
    template <typename F>
    bool tickUntil(F done, int limit = 600) {
        for (int i = 0; i < limit; ++i) {
            tick();
            if (done()) return true;
        }
        return false;
    }
    int count(const std::string& start) const { return countStartingWith(*ring, start); }
    bool has(const std::string& text) const {
        for (const auto& e : ring->recent(1000))
            if (e.message.find(text) != std::string::npos) return true;
        return false;
    }
};
}  // namespace

TEST(ControlEngineFanStop, AFanTheFirmwareStopsStopsOnceEverythingIsCool) {
    StopRig rig(84);  // at the bottom of the range but only 4 °C under the quiet limit
    for (int i = 0; i < 120; ++i) {
        auto snap = rig.tick();
        ASSERT_TRUE(snap.decision);
        EXPECT_FALSE(isFanStopTarget(rig.fans->target(0))) << i;
    }
    rig.setCpu(50);
    ASSERT_TRUE(rig.tickUntil([&] { return isFanStopTarget(rig.fans->target(0)); }));
    EXPECT_EQ(rig.count("Fan stopped (" + kStops + "): every temperature is well under its limit"),
              1);
    auto snap = rig.tick();
    EXPECT_TRUE(snap.stoppedFans.contains(kStops));
    ASSERT_EQ(snap.sample.fanTargetRPM.size(), 3u);
    EXPECT_TRUE(isFanStopTarget(snap.sample.fanTargetRPM[0]));
    EXPECT_EQ(snap.sample.fanCurrentRPM[0], 0);
    // The fan the firmware never stops, and the pump, keep turning.
    for (int i = 0; i < 300; ++i) rig.tick();
    EXPECT_GT(rig.fans->target(1), 0);
    EXPECT_GT(rig.fans->target(2), 0);
    EXPECT_FALSE(rig.engine->tick(rig.now++).stoppedFans.contains(kTurns));
}

TEST(ControlEngineFanStop, TheUsersStopChoiceOverridesTheFirmwaresHabitButNeverForAPump) {
    StopRig rig;
    rig.engine->setFanChoices({{kStops, *parseFanChoice("auto stop off")},
                               {kTurns, *parseFanChoice("auto stop on")},
                               {kPump, *parseFanChoice("auto stop on")}});
    ASSERT_TRUE(rig.tickUntil([&] { return isFanStopTarget(rig.fans->target(1)); }));
    for (int i = 0; i < 300; ++i) {
        rig.tick();
        ASSERT_GT(rig.fans->target(0), 0) << i;
        ASSERT_GT(rig.fans->target(2), 0) << i;
    }
}

TEST(ControlEngineFanStop, AMinimumAFixedDutyOrAFanThatCannotStopMeansNoStop) {
    StopRig rig;
    rig.fans->fans[1].canStop = false;
    rig.engine->setFanChoices({{kStops, *parseFanChoice("auto min 20 stop on")},
                               {kTurns, *parseFanChoice("auto stop on")},
                               {kPump, *parseFanChoice("fixed 40 stop on")}});
    for (int i = 0; i < 400; ++i) {
        rig.tick();
        for (std::size_t f = 0; f < 3; ++f) ASSERT_GT(rig.fans->target(f), 0) << i << " " << f;
    }
    EXPECT_EQ(rig.count("Fan stopped"), 0);
}

TEST(ControlEngineFanStop, ATemperatureWobblingAroundTheLineDoesNotMakeItFlap) {
    StopRig rig;
    // The quiet limit is 88 °C, the stop line 10 °C under it. Twenty minutes of a ±2.5 °C
    // swing across the line, one swing every 40 s. The policy follows the swing too and may
    // want the fan back at once (a stop ends early only for that), but a run always lasts its
    // minimum before the next stop.
    std::vector<std::pair<int, bool>> changes;  // tick, stopped
    bool stopped = false;
    for (int i = 0; i < 1200; ++i) {
        rig.setCpu(76.5 + 2.5 * std::sin(i * 2 * 3.14159265 / 40));
        rig.tick();
        const bool now = isFanStopTarget(rig.fans->target(0));
        if (now != stopped) changes.emplace_back(i, now);
        stopped = now;
    }
    ASSERT_FALSE(changes.empty());
    EXPECT_TRUE(changes.front().second);
    for (std::size_t k = 1; k < changes.size(); ++k) {
        if (!changes[k].second) continue;
        EXPECT_GE(changes[k].first - changes[k - 1].first, 60) << k;
    }
    EXPECT_LE(changes.size(), 2u * 1200 / 60);
    int stops = 0;
    for (const auto& change : changes) stops += change.second ? 1 : 0;
    // One event per change: no flood.
    EXPECT_EQ(rig.count("Fan stopped (" + kStops), stops);
    EXPECT_EQ(rig.count("Fan restarted (" + kStops), static_cast<int>(changes.size()) - stops);
    EXPECT_EQ(rig.count("Fan stalled"), 0);
}

TEST(ControlEngineFanStop, ItRestartsWhenADieWarmsAndStopsAgainOnlyAfterRunning) {
    StopRig rig;
    ASSERT_TRUE(rig.tickUntil([&] { return isFanStopTarget(rig.fans->target(0)); }));
    rig.setCpu(83.5);  // warmed past the line, not yet close to the limit
    ASSERT_TRUE(rig.tickUntil([&] { return rig.fans->target(0) > 0; }, 120));
    EXPECT_EQ(rig.count("Fan restarted (" + kStops + ")"), 1);
    // Cool again at once: a stop only after the minimum run, so at most one pair per cycle.
    rig.setCpu(50);
    auto stoppedAgain = [&] { return isFanStopTarget(rig.fans->target(0)); };
    const Timestamp restartedAt = rig.now;
    ASSERT_TRUE(rig.tickUntil(stoppedAgain, 300));
    EXPECT_GE(rig.now - restartedAt, 59);
    EXPECT_EQ(rig.count("Fan stopped (" + kStops), 2);
    EXPECT_EQ(rig.count("Fan restarted (" + kStops), 1);
}

TEST(ControlEngineFanStop, UnderALightLoadTheFanTheLowestSpeedHoldsKeepsTurning) {
    // desktop-fan-stop's fans at an office load: the lowest speed holds the dies just where the
    // policy wants air, so each stop warmed them back into a start about a minute later, for as
    // long as the load lasted.
    auto machine = std::make_shared<sim::SimulatedMachine>(
        test_support::shippedMachine("desktop-fan-stop"), 7);
    auto ring = std::make_shared<EventRing>(1000, 1e9);
    ControlEngine engine(std::make_shared<SimulatedTelemetryProvider>(machine),
                         std::make_shared<SimulatedFanController>(machine), nullptr, ring, nullptr);
    engine.applyMode(ControlMode::quiet);
    auto count = [&](const std::string& start) { return countStartingWith(*ring, start); };
    const std::string stopped = "Fan stopped (" + machine->state().fanNames.at(0);
    const std::string started = "Fan restarted (" + machine->state().fanNames.at(0);
    Timestamp now = 1'700'000'000;
    machine->setLoad(0.03, 0.02);
    for (int i = 0; i < 5 * 60; ++i) engine.tick(now += 1);
    ASSERT_EQ(count(stopped), 1);  // stopped at idle
    machine->setLoad(0.35, 0.30);
    for (int i = 0; i < 20 * 60; ++i) engine.tick(now += 1);
    EXPECT_EQ(count(started), 1);
    EXPECT_EQ(count(stopped), 1);
    // Once the load is gone the fan stands still again.
    machine->setLoad(0.03, 0.02);
    for (int i = 0; i < 10 * 60; ++i) engine.tick(now += 1);
    EXPECT_EQ(count(stopped), 2);
    EXPECT_TRUE(isFanStopTarget(machine->state().fanTargetRPM.at(0)));
}

TEST(ControlEngineFanStop, ACommandedStopIsNeverAStall) {
    StopRig rig;
    ASSERT_TRUE(rig.tickUntil([&] { return isFanStopTarget(rig.fans->target(0)); }));
    for (int i = 0; i < 300; ++i) rig.tick();
    EXPECT_EQ(rig.count("Fan stalled"), 0);
    EXPECT_TRUE(isFanStopTarget(rig.fans->target(0)));
}

TEST(ControlEngineFanStop, ARestartTheFanDoesNotFollowIsAStallHandedToTheFirmware) {
    StopRig rig;
    ASSERT_TRUE(rig.tickUntil([&] { return isFanStopTarget(rig.fans->target(0)); }));
    rig.fans->setSpins(kStops, false);
    rig.setCpu(86.5);  // close to the limit: it restarts at once
    ASSERT_TRUE(rig.tickUntil([&] { return rig.count("Fan restarted (" + kStops) == 1; }, 5));
    // The start kick gets its time: no stall in the first seconds.
    for (int i = 0; i < 5; ++i) rig.tick();
    EXPECT_EQ(rig.count("Fan stalled"), 0);
    ASSERT_TRUE(rig.tickUntil([&] { return rig.count("Fan stalled (" + kStops) == 1; }, 60));
    EXPECT_TRUE(rig.has("did not spin again after a stop"));
    rig.tick();
    EXPECT_EQ(rig.fans->target(0), 0);  // the firmware's now
}

TEST(ControlEngineFanStop, HandingTheFansToTheFirmwareEndsTheStop) {
    StopRig rig;
    ASSERT_TRUE(rig.tickUntil([&] { return isFanStopTarget(rig.fans->target(0)); }));
    rig.engine->applyMode(ControlMode::systemAuto);
    auto snap = rig.tick();
    EXPECT_EQ(rig.fans->target(0), 0);
    EXPECT_TRUE(snap.stoppedFans.empty());
}

TEST(ControlEngineFanStop, CalibrationSaysWhatItDoesThenReportsEachQuarterAndTheResult) {
    StopRig rig;
    ASSERT_TRUE(rig.engine->requestFanCalibration(kTurns));
    EXPECT_TRUE(rig.has("Calibrating " + kTurns +
                        ": it runs from full speed down to its lowest speed and to a stop where "
                        "it stops, about 120 s; the fan will be loud for part of it"));
    // Asking again while it runs is refused with a reason.
    EXPECT_FALSE(rig.engine->requestFanCalibration(kTurns));
    EXPECT_TRUE(rig.has("Cannot calibrate " + kTurns + ": its calibration is already running"));
    for (double progress : {0.1, 0.3, 0.3, 0.35, 0.55, 0.8, 0.95}) {
        FanCalibrationStatus status;
        status.running = true;
        status.progress = progress;
        status.secondsLeft = 120 * (1 - progress);
        rig.fans->setCalibration(kTurns, status);
        for (int i = 0; i < 5; ++i) {
            auto snap = rig.tick();
            ASSERT_TRUE(snap.calibrations.contains(kTurns));
            EXPECT_TRUE(snap.calibrations.at(kTurns).running);
        }
    }
    EXPECT_EQ(rig.count("Calibrating " + kTurns + ": 25 % done"), 1);
    EXPECT_EQ(rig.count("Calibrating " + kTurns + ": 50 % done"), 1);
    EXPECT_EQ(rig.count("Calibrating " + kTurns + ": 75 % done"), 1);
    EXPECT_EQ(rig.count("Calibrating " + kTurns), 4);
    EXPECT_EQ(rig.count("Fan stalled"), 0);
    FanCalibrationStatus done;
    done.succeeded = true;
    done.message = "it turns from 310 rpm and stops under duty 40";
    rig.fans->setCalibration(kTurns, done);
    for (int i = 0; i < 5; ++i) rig.tick();
    EXPECT_EQ(rig.count("Calibration of " + kTurns +
                        " finished: it turns from 310 rpm and stops under duty 40"),
              1);
    auto snap = rig.tick();
    EXPECT_EQ(snap.calibrations.at(kTurns).succeeded, true);
}

TEST(ControlEngineFanStop, AFanLeftStillByItsCalibrationGetsItsStartKickThenCountsAsAStall) {
    StopRig rig;
    ASSERT_TRUE(rig.engine->requestFanCalibration(kTurns));
    rig.fans->setSpins(kTurns, false);  // it reads 0 throughout, and after
    for (int i = 0; i < 30; ++i) rig.tick();
    EXPECT_EQ(rig.count("Fan stalled"), 0);  // a calibration goes through a stop
    FanCalibrationStatus done;
    done.succeeded = true;
    rig.fans->setCalibration(kTurns, done);
    for (int i = 0; i < 8; ++i) rig.tick();
    EXPECT_EQ(rig.count("Fan stalled"), 0);
    ASSERT_TRUE(rig.tickUntil([&] { return rig.count("Fan stalled (" + kTurns) == 1; }, 60));
}

TEST(ControlEngineFanStop, AFailedCalibrationIsAFailureEvent) {
    StopRig rig;
    ASSERT_TRUE(rig.engine->requestFanCalibration(kStops));
    FanCalibrationStatus failed;
    failed.succeeded = false;
    failed.message = "the fan did not follow its duty";
    rig.fans->setCalibration(kStops, failed);
    rig.tick();
    bool found = false;
    for (const auto& e : rig.ring->recent(100))
        if (e.message == "Calibration of " + kStops + " failed: the fan did not follow its duty")
            found = e.isFailure;
    EXPECT_TRUE(found);
}

TEST(ControlEngineFanStop, ARefusedCalibrationSaysWhy) {
    StopRig rig;
    rig.fans->refusal = "unknown fan";
    EXPECT_FALSE(rig.engine->requestFanCalibration("nope#fan9"));
    EXPECT_TRUE(rig.has("Cannot calibrate nope#fan9: unknown fan"));

    auto telemetry = std::make_shared<ScriptedTelemetry>();
    auto ring = std::make_shared<EventRing>(100, 1e9);
    ControlEngine plain(telemetry, std::make_shared<RecordingFans>(), nullptr, ring, nullptr);
    EXPECT_FALSE(plain.requestFanCalibration("fan0"));
    ASSERT_FALSE(ring->recent(1).empty());
    EXPECT_EQ(ring->recent(1).back().message,
              "Cannot calibrate fan0: this fan back-end cannot calibrate fans");
}
