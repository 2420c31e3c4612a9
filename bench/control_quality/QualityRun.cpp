#include "QualityRun.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <mutex>

#include "ForesightPlanner.h"
#include "LimitHoldPolicy.h"
#include "LinearCurvePolicy.h"
#include "PidPolicy.h"
#include "SoundLevel.h"
#include "SteppedHysteresisPolicy.h"
#include "foundation/control/ControlEngine.h"
#include "foundation/control/ControlPolicy.h"
#include "foundation/control/HardwareCapabilityTracker.h"
#include "foundation/core/EventRing.h"
#include "foundation/core/SysfsMounts.h"
#include "foundation/fans/HwmonFanService.h"
#include "foundation/fans/LocalFanController.h"
#include "foundation/fans/SysfsText.h"
#include "foundation/store/FanCurveStoreLink.h"
#include "foundation/store/SQLiteStore.h"
#include "foundation/telemetry/SysfsValues.h"
#include "foundation/telemetry/SystemTelemetryProvider.h"
#include "simhw/SimHardware.h"
#include "simhw/SimTreeSource.h"

namespace kelvo::quality {

namespace {

namespace fs = std::filesystem;

constexpr Timestamp kStart = 1'700'000'000;
constexpr double kTickSeconds = 1.0;
constexpr int kMaxDuty = 255;

// The run's time: every clock the product reads in a run is this one, advanced by the rig.
struct VirtualClock {
    Timestamp now = kStart;

    std::function<Timestamp()> timestamps() {
        return [this] { return now; };
    }
    FanCurveLearner::Now steady() {
        return [this] {
            return FanCurveLearner::Clock::time_point(
                std::chrono::duration_cast<FanCurveLearner::Clock::duration>(
                    std::chrono::duration<double>(now - kStart)));
        };
    }
};

// A root no real file system path uses, one per rig, so runs never see each other's machine.
fs::path uniqueRoot() {
    static std::atomic<unsigned> next{0};
    return fs::path("/kelvo-quality-sim") /
           (std::to_string(::getpid()) + "-" + std::to_string(next.fetch_add(1)));
}

// One simulated machine, its sysfs tree mounted in-process.
struct Rig {
    std::mutex mutex;  // around every use of the hardware, as kelvo-simhw holds one
    std::shared_ptr<simhw::SimHardware> hardware;
    sysfs::ScopedMount mount;
    VirtualClock clock;

    Rig(const MachineProfile& profile, std::uint64_t seed)
        : hardware(std::make_shared<simhw::SimHardware>(profile.name, profile.plant, seed)),
          mount(uniqueRoot(), std::make_shared<simhw::SimTreeSource>(hardware, mutex)) {}

    std::string root() const { return mount.root().string(); }

    void step(const LoadLevel& load) {
        std::lock_guard lock(mutex);
        hardware->step(kTickSeconds, load.cpu, load.gpu);
    }
    sim::PlantState state() {
        std::lock_guard lock(mutex);
        return hardware->state();
    }
    RunEvidence writes() {
        std::lock_guard lock(mutex);
        RunEvidence evidence;
        for (const simhw::FanChannel& fan : hardware->fans()) {
            evidence.pwmWrites += fan.pwmWrites;
            evidence.enableWrites += fan.enableWrites;
        }
        return evidence;
    }
};

// A profile directory of its own, as a fresh install has: removed when the run ends.
class FreshProfile {
public:
    // `from`, where given, is a database Kelvo left earlier: the profile starts with a copy.
    explicit FreshProfile(const std::string& from = {}) {
        std::string pattern = (fs::temp_directory_path() / "kelvo-quality-XXXXXX").string();
        if (::mkdtemp(pattern.data())) dir_ = pattern;
        if (!dir_.empty() && !from.empty()) copyDatabase(from, databasePath());
    }
    ~FreshProfile() {
        std::error_code ec;
        if (!dir_.empty()) fs::remove_all(dir_, ec);
    }
    FreshProfile(const FreshProfile&) = delete;
    FreshProfile& operator=(const FreshProfile&) = delete;

    // Empty when no directory could be made: the store then runs in memory, as Kelvo's does
    // where it cannot write.
    std::string databasePath() const { return dir_.empty() ? std::string() : dir_ + "/kelvo.db"; }

    // The database and its write-ahead log, as the store left them.
    static void copyDatabase(const std::string& from, const std::string& to) {
        std::error_code ec;
        for (const char* suffix : {"", "-wal"}) {
            const std::string source = from + suffix;
            if (!suffix[0] || fs::exists(source, ec))
                fs::copy_file(source, to + suffix, fs::copy_options::overwrite_existing, ec);
            if (ec)
                std::fprintf(stderr, "control_quality: cannot copy %s: %s\n", source.c_str(),
                             ec.message().c_str());
        }
    }

private:
    std::string dir_;
};

// Writes every controllable fan's pwm file as fancontrol-style programs do: manual mode once,
// then the duty each second, mapped onto the fan's turning range as those programs are set up
// for it (MINSTOP, MINSTART). Nothing is written until the first duty.
class PwmWriter {
public:
    PwmWriter(const std::string& root, const sim::PlantConfig& plant) {
        for (const HwmonFan& fan : HwmonFanService(root).discover()) {
            if (!fan.controllable) continue;
            const auto index = static_cast<std::size_t>(fan.channel - 1);
            fans_.push_back(
                {fan, index < plant.fans.size() ? plant.fans[index] : sim::FanConfig{}, index});
            stopped_.resize(std::max(stopped_.size(), index + 1), false);
        }
    }

    // 0..1 of the fan's speed range, to the nearest of the pwm steps from the duty where it
    // stops turning up to 255; below 0 stops a fan that can stop (duty 0) and runs any other at
    // its minimum. A plan's duty is rounded up instead: the next step up keeps whatever the plan
    // promised about the temperatures, the one below may not. A fan at rest asked to turn gets
    // its start duty for that second, as those programs kick a stopped fan.
    void write(double duty, bool roundUp = false) { write(std::vector<double>{duty}, roundUp); }

    // One duty per fan (by channel), or a single one for every fan.
    void write(const std::vector<double>& duties, bool roundUp = false) {
        for (const Fan& fan : fans_) {
            const double duty = duties.size() == 1          ? duties.front()
                                : fan.index < duties.size() ? duties[fan.index]
                                                            : 1.0;
            const int from = std::clamp(fan.config.stopBelowDuty, 0, kMaxDuty - 1);
            const double steps = std::clamp(duty, 0.0, 1.0) * (kMaxDuty - from);
            // The tolerance keeps an exact step (0.2 * 255) from rounding up past itself.
            const auto rounded = roundUp ? std::ceil(steps - 1e-9) : std::round(steps);
            int pwm =
                duty < 0 ? (fan.config.canStop() ? 0 : from) : from + static_cast<int>(rounded);
            // A fan told to stop may still be spinning down, but the chip holds it at rest all
            // the same: it needs its start duty as much as one already still.
            const bool atRest =
                sysfs::readDouble(fan.hwmon.inputPath()).value_or(1) <= 0 || stopped_[fan.index];
            if (duty >= 0 && atRest && manual_)
                pwm = std::max(pwm, fan.config.effectiveStartDuty());
            stopped_[fan.index] = fan.config.canStop() && pwm < fan.config.stopBelowDuty;
            std::string error;
            if (!manual_ && !sysfs::writeInteger(fan.hwmon.pwmEnablePath(), 1, &error))
                report(error);
            if (!sysfs::writeInteger(fan.hwmon.pwmPath(), pwm, &error)) report(error);
        }
        manual_ = true;
    }

private:
    void report(const std::string& error) {
        if (!reported_) std::fprintf(stderr, "control_quality: %s\n", error.c_str());
        reported_ = true;
    }

    struct Fan {
        HwmonFan hwmon;
        sim::FanConfig config;
        std::size_t index = 0;  // the plant's fan: its channel less one
    };
    std::vector<Fan> fans_;
    std::vector<bool> stopped_;  // by plant fan: the last duty written stopped it
    bool manual_ = false;
    bool reported_ = false;
};

std::shared_ptr<SystemTelemetryProvider> hwmonTelemetry(const std::string& root) {
    // No NVML for a tree NVML knows nothing of, and no helper: the counters are all readable.
    return std::make_shared<SystemTelemetryProvider>(
        SystemTelemetryOptions{root, std::string(), {}});
}

// Drives the trace: each second the machine runs one second at the trace's load, then `tick`
// runs the controller at the second's end.
template <typename Tick>
RunResult drive(Rig& rig, const MachineProfile& profile, const LoadTrace& trace, Tick&& tick) {
    QualityMetrics metrics(profile.plant);
    RunResult result;
    result.series.reserve(static_cast<std::size_t>(trace.seconds()));
    for (int second = 0; second < trace.seconds(); ++second) {
        LoadLevel load = trace.at(second);
        rig.step(load);
        rig.clock.now += kTickSeconds;
        tick(rig.clock.now);
        sim::PlantState state = rig.state();
        metrics.add(state, load, kTickSeconds);
        result.series.push_back(seriesPoint(profile.plant, state));
    }
    result.row = metrics.result();
    result.evidence = rig.writes();
    return result;
}

// Kelvo as a user runs it on first launch: its telemetry and hwmon back-end, a fresh store
// holding samples, events and the curves the back-end learns, no fan choices yet, the mode
// picked before the first tick.
// The machine file's coupling as evidence in the store: every fan answered each die with its true
// cooling per rpm, as often as confidence needs, at every lag.
void storeFileCoupling(SQLiteStore& store, const std::string& root, const sim::PlantConfig& plant) {
    for (const HwmonFan& fan : HwmonFanService(root).discover()) {
        const auto index = static_cast<std::size_t>(fan.channel - 1);
        if (index >= plant.fans.size()) continue;
        FanCouplingEvidence evidence;
        for (int probe = 0; probe < kCouplingProbesForConfidence; ++probe)
            for (std::size_t lag = 0; lag < kCouplingLagsS.size(); ++lag) {
                evidence.cpu.byLag[lag].add(sim::fanCooling(plant, sim::Die::cpu, index), 1);
                evidence.gpu.byLag[lag].add(sim::fanCooling(plant, sim::Die::gpu, index), 1);
            }
        if (!store.saveFanCoupling(fan.identity, evidence))
            std::fprintf(stderr, "control_quality: cannot store the coupling: %s\n",
                         store.lastError().c_str());
    }
}

RunResult runKelvo(Rig& rig, const MachineProfile& machine, const LoadTrace& trace,
                   ControlMode mode, const RunSettings& settings, bool knownCoupling,
                   bool oneDuty) {
    const FreshProfile profile(settings.startDatabase);
    auto store = std::make_shared<SQLiteStore>(profile.databasePath(), rig.clock.timestamps());
    auto telemetry = hwmonTelemetry(rig.root());
    auto fans = std::make_shared<LocalFanController>(std::make_shared<HwmonFanService>(rig.root()),
                                                     rig.clock.steady());
    attachFanCurveStore(*fans, store);
    if (knownCoupling) storeFileCoupling(*store, rig.root(), machine.plant);
    auto ring = std::make_shared<EventRing>(160, 300.0, rig.clock.timestamps());
    for (auto& event : store->takeStartupEvents()) ring->append(event);
    RunResult result;
    {
        ControlLoopConfig config;
        config.shareAmongFans = !oneDuty;
        ControlEngine engine(telemetry, fans, store, ring,
                             std::make_shared<HardwareCapabilityTracker>(), config);
        engine.setFanChoices({});
        engine.applyMode(mode);
        double sharedS = 0;
        result = drive(rig, machine, trace, [&](Timestamp now) {
            sharedS += engine.tick(now).fansShared ? kTickSeconds : 0;
        });
        result.row.sharedS = sharedS;
        engine.releaseFans(nullptr);
    }
    result.evidence.storedSamples = store->samples(kStart, rig.clock.now + 1).size();
    std::vector<std::string> identities;
    for (const HwmonFan& fan : HwmonFanService(rig.root()).discover()) {
        if (store->fanCurve(fan.identity)) ++result.evidence.learnedCurves;
        identities.push_back(fan.identity);
    }
    // hwmon lists the fans by channel, which is the machine's order.
    if (const auto stored = store->fanCouplings())
        result.evidence.couplings = fanCouplings(*stored, identities);
    if (!settings.keepDatabase.empty() && !profile.databasePath().empty()) {
        // Closed first, so the copy holds everything written.
        fans.reset();
        store.reset();
        FreshProfile::copyDatabase(profile.databasePath(), settings.keepDatabase);
    }
    return result;
}

}  // namespace

SeriesPoint seriesPoint(const sim::PlantConfig& plant, const sim::PlantState& state) {
    double rpm = 0;
    for (double fan : state.fanCurrentRPM) rpm += fan;
    if (!state.fanCurrentRPM.empty()) rpm /= static_cast<double>(state.fanCurrentRPM.size());
    return {state.cpuTemperatureC, state.gpuTemperatureC, rpm,
            soundLevelDb(plant, state.fanCurrentRPM), state.fanCurrentRPM};
}

RunResult runController(const MachineProfile& machine, const LoadTrace& trace,
                        const ControllerSpec& controller, const RunSettings& settings) {
    Rig rig(machine, settings.seed);
    RunResult result;
    if (controller.kelvoMode) {
        RunSettings kelvo = settings;
        if (!controller.afterLearning) kelvo.startDatabase.clear();
        result = runKelvo(rig, machine, trace, *controller.kelvoMode, kelvo,
                          controller.knownCoupling, controller.oneDuty);
    } else if (controller.plan) {
        // The plan needs no telemetry: it knows the machine and the whole trace already.
        const DutyPlan plan = controller.plan(machine, trace, settings);
        PwmWriter pwm(rig.root(), machine.plant);
        std::size_t second = 0;
        result = drive(rig, machine, trace, [&](Timestamp) {
            pwm.write(second < plan.size() ? plan[second] : std::vector<double>{1.0}, true);
            ++second;
        });
    } else if (!controller.makeBaseline) {
        // Nothing reads or writes: the fans stay on the firmware curve the machine starts on.
        result = drive(rig, machine, trace, [](Timestamp) {});
    } else {
        auto policy = controller.makeBaseline();
        auto telemetry = hwmonTelemetry(rig.root());
        PwmWriter pwm(rig.root(), machine.plant);
        result = drive(rig, machine, trace, [&](Timestamp now) {
            pwm.write(policy->duty(telemetry->sample(now), kTickSeconds));
        });
    }
    result.row.machine = machine.name;
    result.row.controller = controller.name;
    result.row.trace = trace.name();
    return result;
}

// Says the ramp it is held to as the quiet modes have it, so the two cannot drift apart.
static std::string unheardDescription() {
    char ramp[16];
    std::snprintf(ramp, sizeof ramp, "%.2g", kQuietRampDbPerSecond);
    return std::string(
               "reference: foresight's plan with each fan's rises begun early and its falls "
               "held back to the quiet modes' ramp (") +
           ramp +
           " dB a second of its own level): what never being heard costs a plan that knows the "
           "future";
}

std::vector<ControllerSpec> standardControllers() {
    constexpr const char* kKelvoStack =
        "Kelvo as first launched: hwmon telemetry, pwm writes through its local fan back-end, "
        "a fresh store (no learned curves, no fan choices)";
    std::vector<ControllerSpec> controllers = {
        {"firmware", std::nullopt, {}, {}, "the machine's own curve, nothing written"},
        {"quiet", ControlMode::quiet, {}, {}, kKelvoStack},
        {"quietHybrid",
         ControlMode::quietHybrid,
         {},
         {},
         std::string(kKelvoStack) + "; no lead model, as a fresh install has none"},
        {"performance", ControlMode::performance, {}, {}, kKelvoStack},
        {"quiet-learned",
         ControlMode::quiet,
         {},
         {},
         "Kelvo launched again on the profile its quiet mode built on the same machine through "
         "--learned-after minutes (240 unless told) of the traces one after another: what it "
         "measured of which die each fan cools included",
         true},
        {"quietHybrid-learned",
         ControlMode::quietHybrid,
         {},
         {},
         "as quiet-learned, in quietHybrid",
         true},
        {"quiet-known",
         ControlMode::quiet,
         {},
         {},
         "reference, not a user's Kelvo: the quiet mode launched with the machine file's coupling "
         "in its store as if measured exactly, to show what sharing the work gives apart from how "
         "well Kelvo learns it",
         false,
         true},
        {"quiet-one-duty",
         ControlMode::quiet,
         {},
         {},
         "reference, not a user's Kelvo: the quiet mode with the sharing of the work among the "
         "fans turned off (nothing probed, every fan at one duty), as it was before it measured "
         "the fans",
         false,
         false,
         true},
        {"linear-curve",
         std::nullopt,
         [] { return std::make_unique<LinearCurvePolicy>(); },
         {},
         {}},
        {"stepped-hysteresis",
         std::nullopt,
         [] { return std::make_unique<SteppedHysteresisPolicy>(); },
         {},
         {}},
        {"pid", std::nullopt, [] { return std::make_unique<PidPolicy>(); }, {}, {}},
        {"limit-hold", std::nullopt, [] { return std::make_unique<LimitHoldPolicy>(); }, {}, {}},
        {"foresight",
         std::nullopt,
         {},
         foresightPlan,
         "reference: knows the whole trace and the exact machine; quietest found under 88/85 C"},
        {"foresight-unheard", std::nullopt, {}, foresightUnheardPlan, unheardDescription()},
    };
    return controllers;
}

}  // namespace kelvo::quality
