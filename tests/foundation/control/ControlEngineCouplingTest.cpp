// The engine learning which die each fan cools on a simulated machine, in virtual time: the
// probes it runs, what it keeps in the store and what it shows.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <deque>

#include "foundation/control/ControlEngine.h"
#include "foundation/core/EventRing.h"
#include "foundation/core/FanChoices.h"
#include "foundation/sim/SimulatedFanController.h"
#include "foundation/sim/SimulatedMachine.h"
#include "foundation/sim/SimulatedTelemetryProvider.h"
#include "foundation/store/SQLiteStore.h"
#include "tests/foundation/ScratchFiles.h"
#include "tests/foundation/ShippedMachines.h"

using namespace kelvo;

namespace {

constexpr Timestamp kStart = 1'700'000'000;

using test_support::shippedMachine;

sim::PlantConfig twoBlowers() {
    return shippedMachine("laptop-two-blowers");
}

class ControlEngineCoupling : public test_support::ScratchFilesTest {
protected:
    void SetUp() override {
        ScratchFilesTest::SetUp();
        machine = std::make_shared<sim::SimulatedMachine>(twoBlowers(), 7);
        fans = std::make_shared<SimulatedFanController>(machine);
        telemetry = std::make_shared<SimulatedTelemetryProvider>(machine);
        store = std::make_shared<SQLiteStore>((dir_ / "kelvo.sqlite").string());
    }
    void use(const sim::PlantConfig& plant) {
        machine = std::make_shared<sim::SimulatedMachine>(plant, 7);
        fans = std::make_shared<SimulatedFanController>(machine);
        telemetry = std::make_shared<SimulatedTelemetryProvider>(machine);
    }
    std::unique_ptr<ControlEngine> engine() {
        return std::make_unique<ControlEngine>(telemetry, fans, store, ring, nullptr);
    }
    // Kelvo in quiet on `plant`, every fan known to cool what the machine file says.
    std::unique_ptr<ControlEngine> quietKnowingTheFans(const sim::PlantConfig& plant);
    int count(const std::string& text) const {
        int n = 0;
        for (const auto& e : ring->recent(1000))
            if (e.message.find(text) != std::string::npos) ++n;
        return n;
    }

    std::shared_ptr<sim::SimulatedMachine> machine;
    std::shared_ptr<SimulatedFanController> fans;
    std::shared_ptr<SimulatedTelemetryProvider> telemetry;
    std::shared_ptr<SQLiteStore> store;
    std::shared_ptr<EventRing> ring = std::make_shared<EventRing>(1000, 1e9);
    Timestamp now = kStart;
};

}  // namespace

TEST_F(ControlEngineCoupling, QuietLearnsWhichBlowerCoolsWhichDieKeepsItAndShowsIt) {
    auto kelvo = engine();
    kelvo->applyMode(ControlMode::quiet);
    // A long render: the CPU flat out, the GPU at three quarters.
    machine->setLoad(1.0, 0.75);
    ControlSnapshot snap;
    for (int i = 0; i < 3 * 3600; ++i) snap = kelvo->tick(now += 1);
    ASSERT_EQ(snap.couplings.size(), 2u);
    EXPECT_EQ(coolsMostly(snap.couplings[0]), "CPU");
    EXPECT_EQ(coolsMostly(snap.couplings[1]), "GPU");
    EXPECT_GT(snap.couplings[0].confidence, 0.5);
    EXPECT_EQ(count("Fan cooling measured: "), 1);
    // Nothing went over the limits while it probed.
    EXPECT_EQ(count("Repeated boundary pressure"), 0);

    // Kept per fan in the store: a Kelvo started again knows it from its first tick.
    const auto stored = store->fanCouplings();
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->size(), 2u);
    kelvo.reset();
    auto again = engine();
    again->applyMode(ControlMode::quiet);
    const ControlSnapshot first = again->tick(now += 1);
    ASSERT_EQ(first.couplings.size(), 2u);
    EXPECT_EQ(first.couplings[0].cpuShare, snap.couplings[0].cpuShare);
}

TEST_F(ControlEngineCoupling, AFanTheUserFixedIsNeverProbedAndOneFanAloneIsNotEither) {
    auto kelvo = engine();
    kelvo->applyMode(ControlMode::quiet);
    const std::string blower = machine->state().fanNames.at(1);
    kelvo->setFanChoices({{blower, *parseFanChoice("fixed 50")}});
    machine->setLoad(1.0, 0.75);
    ControlSnapshot snap;
    std::optional<double> fixedTarget;
    for (int i = 0; i < 3600; ++i) {
        snap = kelvo->tick(now += 1);
        ASSERT_TRUE(snap.decision);
        if (!fixedTarget) fixedTarget = snap.decision->targetRPM.at(1);
        ASSERT_DOUBLE_EQ(snap.decision->targetRPM.at(1), *fixedTarget) << i;
    }
    // The one fan left under auto control has nothing to be weighed against.
    const auto stored = store->fanCouplings();
    ASSERT_TRUE(stored);
    EXPECT_TRUE(stored->empty());
    for (const auto& c : snap.couplings) EXPECT_EQ(coolsMostly(c), "") << c.identity;
}

TEST_F(ControlEngineCoupling, StoredMeasurementsThatCannotBeReadAreSaidAndMeasuredAgain) {
    FanCouplingEvidence good;
    good.cpu.byLag[0].add(1, 1);
    ASSERT_TRUE(store->saveFanCoupling("elsewhere", good));
    // A row that is not in the encoding, written by something else beside the store.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open((dir_ / "kelvo.sqlite").string().c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, "INSERT INTO fan_coupling VALUES ('bad', 'x', 1)", nullptr, nullptr,
                           nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    auto kelvo = engine();
    EXPECT_EQ(count("Fan cooling measurements: the stored coupling of bad is malformed"), 1);
}

namespace {

// Probes that all said the same: `cpu` and `gpu` of cooling per rpm, six times over.
FanCouplingEvidence measured(double cpu, double gpu) {
    FanCouplingEvidence evidence;
    for (int i = 0; i < kCouplingProbesForConfidence; ++i)
        for (std::size_t lag = 0; lag < kCouplingLagsS.size(); ++lag) {
            evidence.cpu.byLag[lag].add(cpu, 1);
            evidence.gpu.byLag[lag].add(gpu, 1);
        }
    return evidence;
}

// Each fan's target as a share of its range.
std::vector<double> shares(const ControlSnapshot& snap) {
    std::vector<double> out;
    for (std::size_t i = 0; i < snap.fans.size() && snap.decision; ++i) {
        const FanSpeedRange range = fanSpeedRange(snap.fans[i]);
        out.push_back((snap.decision->targetRPM.at(i) - range.minRPM) /
                      (range.maxRPM - range.minRPM));
    }
    return out;
}

}  // namespace

TEST_F(ControlEngineCoupling, OnceTheBlowersAreKnownQuietRaisesOnlyTheOneThatCoolsTheBusyDie) {
    // Without what the blowers cool, quiet runs both at one duty under a GPU-only load (but
    // for its probes, one blower a little faster for a while). Four minutes hold too few probes
    // for any share to be believed (under this steady load, about five minutes are enough).
    machine->setLoad(0.0, 1.0);
    int oneDutyTicks = 0;
    {
        auto kelvo = engine();
        kelvo->applyMode(ControlMode::quiet);
        for (int i = 0; i < 240; ++i) {
            const ControlSnapshot snap = kelvo->tick(now += 1);
            ASSERT_FALSE(snap.fansShared) << i;
            const std::vector<double> s = shares(snap);
            if (i >= 90 && s.size() == 2 && s[0] > 0.05 && std::abs(s[0] - s[1]) < 1e-6)
                ++oneDutyTicks;
        }
    }
    EXPECT_GT(oneDutyTicks, 0);

    // Known: the first blower cools the CPU, the second the GPU.
    const auto names = machine->state().fanNames;
    ASSERT_TRUE(store->saveFanCoupling(names.at(0), measured(1.0, 0.1)));
    ASSERT_TRUE(store->saveFanCoupling(names.at(1), measured(0.1, 1.0)));
    auto kelvo = engine();
    kelvo->applyMode(ControlMode::quiet);
    ControlSnapshot after;
    double hottestGpu = 0;
    for (int i = 0; i < 1200; ++i) {
        after = kelvo->tick(now += 1);
        hottestGpu = std::max(hottestGpu, after.sample.gpuTemperatureC.value_or(0));
    }
    const std::vector<double> mixed = shares(after);
    ASSERT_EQ(mixed.size(), 2u);
    // The CPU's blower stays at its lowest; the GPU's does the work, and the GPU is held.
    EXPECT_LT(mixed[0], 0.02);
    EXPECT_GT(mixed[1], mixed[0] + 0.05);
    EXPECT_LT(hottestGpu, kelvo->config().limits.quietGpuLimitC);
    EXPECT_TRUE(after.fansShared);
    EXPECT_EQ(count("Repeated boundary pressure"), 0);

    // A fan the user fixes leaves one fan under auto control: one duty again, eased back in.
    kelvo->setFanChoices({{names.at(1), *parseFanChoice("fixed 30")}});
    for (int i = 0; i < 120; ++i) after = kelvo->tick(now += 1);
    EXPECT_NEAR(shares(after)[1], 0.30, 1e-6);
    EXPECT_FALSE(after.fansShared);
}

namespace {

// Six probes each of a CPU and a GPU answer that scatter so that each fan's shares are known to
// within `shareError` (a standard error, as a fraction of both fans' cooling of the die).
FanCouplingEvidence scattered(double cpu, double gpu, double cpuTotal, double gpuTotal,
                              double shareError) {
    FanCouplingEvidence evidence;
    // Answers alternately x(1 - s) and x(1 + s): their mean's standard error is x·s/√5.
    const double cpuSpread = shareError * cpuTotal * std::sqrt(5.0) / cpu;
    const double gpuSpread = shareError * gpuTotal * std::sqrt(5.0) / gpu;
    for (int i = 0; i < kCouplingProbesForConfidence; ++i) {
        const double sign = i % 2 ? 1 : -1;
        for (std::size_t lag = 0; lag < kCouplingLagsS.size(); ++lag) {
            evidence.cpu.byLag[lag].add(cpu * (1 + sign * cpuSpread), 1);
            evidence.gpu.byLag[lag].add(gpu * (1 + sign * gpuSpread), 1);
        }
    }
    return evidence;
}

}  // namespace

TEST_F(ControlEngineCoupling, TheWorkIsSharedOnlyOnceEveryShareIsKnownClosely) {
    machine->setLoad(0.0, 1.0);
    const auto names = machine->state().fanNames;
    struct Case {
        double shareError;
        bool shares;
    };
    // Known to within 0.12 or 0.16: shared. To within 0.2: still one duty.
    for (const Case& c : {Case{0.12, true}, Case{0.16, true}, Case{0.2, false}}) {
        SCOPED_TRACE(c.shareError);
        store = std::make_shared<SQLiteStore>(
            (dir_ / ("kelvo-" + std::to_string(c.shareError) + ".sqlite")).string());
        ASSERT_TRUE(
            store->saveFanCoupling(names.at(0), scattered(1.0, 0.1, 1.1, 1.1, c.shareError)));
        ASSERT_TRUE(
            store->saveFanCoupling(names.at(1), scattered(0.1, 1.0, 1.1, 1.1, c.shareError)));
        auto kelvo = engine();
        kelvo->applyMode(ControlMode::quiet);
        ControlSnapshot snap = kelvo->tick(now += 1);
        ASSERT_EQ(snap.couplings.size(), 2u);
        EXPECT_EQ(coolsMostly(snap.couplings[0]), "CPU");
        EXPECT_EQ(coolsMostly(snap.couplings[1]), "GPU");
        // Before any probe of its own could add to what was stored.
        bool shared = false;
        for (int i = 0; i < 180; ++i) shared = kelvo->tick(now += 1).fansShared || shared;
        EXPECT_EQ(shared, c.shares);
    }
}

TEST_F(ControlEngineCoupling, FansThatAreAlikeAndCoolBothDiesAlikeRunAsOneDuty) {
    // Two fans of the same range, each measured to cool each die as much as the other: sharing
    // the work changes nothing.
    std::string error;
    const auto file = sim::readMachineFile(
        std::string(KELVO_TEST_DATA_DIR) + "/../../bench/machines/sim-default.json", &error);
    ASSERT_TRUE(file) << error;
    machine = std::make_shared<sim::SimulatedMachine>(file->plant, 7);
    fans = std::make_shared<SimulatedFanController>(machine);
    telemetry = std::make_shared<SimulatedTelemetryProvider>(machine);
    const auto names = machine->state().fanNames;
    ASSERT_TRUE(store->saveFanCoupling(names.at(0), measured(1.0, 1.0)));
    ASSERT_TRUE(store->saveFanCoupling(names.at(1), measured(1.0, 1.0)));
    auto kelvo = engine();
    kelvo->applyMode(ControlMode::quiet);
    machine->setLoad(1.0, 0.75);
    double highest = 0;
    for (int i = 0; i < 1200; ++i) {
        const ControlSnapshot snap = kelvo->tick(now += 1);
        ASSERT_TRUE(snap.fansShared) << i;
        const std::vector<double> s = shares(snap);
        ASSERT_EQ(s.size(), 2u);
        ASSERT_NEAR(s[0], s[1], 1e-6) << i;
        highest = std::max(highest, s[0]);
    }
    // The load made the fans work: the equality is not both sitting at their lowest.
    EXPECT_GT(highest, 0.05);
}

namespace {

// What each fan cools as the machine file says, as if Kelvo had measured it.
void storeFileCoupling(SQLiteStore& store, const sim::PlantConfig& plant,
                       const std::vector<std::string>& names) {
    for (std::size_t i = 0; i < names.size(); ++i)
        ASSERT_TRUE(
            store.saveFanCoupling(names[i], measured(sim::fanCooling(plant, sim::Die::cpu, i),
                                                     sim::fanCooling(plant, sim::Die::gpu, i))));
}

std::unique_ptr<ControlEngine> ControlEngineCoupling::quietKnowingTheFans(
    const sim::PlantConfig& plant) {
    use(plant);
    storeFileCoupling(*store, plant, machine->state().fanNames);
    auto kelvo = engine();
    kelvo->applyMode(ControlMode::quiet);
    return kelvo;
}

// A fan's level moving 3 dB within 5 s, as the control table counts it: the level moves with
// 50·log10 of the speed, so 3 dB is a speed ratio of 10^(3/50) among six readings a second apart.
struct AudibleChanges {
    explicit AudibleChanges(std::size_t fans) : recent(fans) {}
    void add(const std::vector<double>& rpm, bool counts) {
        const double audible = std::pow(10.0, 3.0 / 50);
        for (std::size_t f = 0; f < recent.size() && f < rpm.size(); ++f) {
            recent[f].push_back(std::max(rpm[f], 1.0));
            if (recent[f].size() > 6) recent[f].pop_front();
            const auto [low, high] = std::minmax_element(recent[f].begin(), recent[f].end());
            if (counts && *high / *low >= audible) {
                ++count;
                recent[f].clear();
            }
        }
    }
    std::vector<std::deque<double>> recent;
    int count = 0;
};
}  // namespace

TEST_F(ControlEngineCoupling, OnceTheFansAreKnownTheMixHoldsItsCourseThroughALongRender) {
    // What each fan cools known from the machine file: a laptop's two blowers, a desktop's tower
    // cooler, graphics card fans and case fan. Under a long render both dies come to their
    // setpoints and the plan moves between them: no fan may be heard changing.
    for (const char* name : {"laptop-two-blowers", "desktop-cooler-gpu-case"}) {
        SCOPED_TRACE(name);
        const sim::PlantConfig plant = shippedMachine(name);
        use(plant);
        store = std::make_shared<SQLiteStore>((dir_ / (std::string(name) + ".sqlite")).string());
        const auto names = machine->state().fanNames;
        storeFileCoupling(*store, plant, names);
        auto kelvo = engine();
        kelvo->applyMode(ControlMode::quiet);
        machine->setLoad(1.0, 0.75);
        AudibleChanges heard(names.size());
        bool shared = false;
        for (int i = 0; i < 15 * 60; ++i) {
            const ControlSnapshot snap = kelvo->tick(now += 1);
            shared = shared || snap.fansShared;
            // The first five minutes are the render's onset, heard once however it is met.
            heard.add(machine->state().fanCurrentRPM, i >= 5 * 60);
        }
        EXPECT_TRUE(shared);
        EXPECT_EQ(heard.count, 0);
    }
    EXPECT_EQ(count("Repeated boundary pressure"), 0);
}

TEST_F(ControlEngineCoupling, WhenALongRenderEndsTheFansTheMixRaisedFallNoFasterThanTheQuietRamp) {
    // desktop-silent-gpu's CPU cooler and case fans, known to cool the CPU best, carry a render
    // at their top while the graphics card's fans turn slowly. When it ends, the plan brings
    // them down at the quiet modes' own ramp on each fan's level, so a probe easing out on top
    // of it stays unheard. At half a decibel a second, a fresh launch's CPU cooler fell 3.0 dB
    // within 5 s at the end of the control table's render.
    const sim::PlantConfig plant = shippedMachine("desktop-silent-gpu");
    auto kelvo = quietKnowingTheFans(plant);
    const auto names = machine->state().fanNames;
    machine->setLoad(1.0, 0.75);
    bool shared = false;
    for (int i = 0; i < 10 * 60; ++i) shared = kelvo->tick(now += 1).fansShared || shared;
    ASSERT_TRUE(shared);
    std::vector<double> before = machine->state().fanCurrentRPM;
    EXPECT_GT(*std::max_element(before.begin(), before.end()), 2 * plant.fans.at(1).minRPM);
    machine->setLoad(0.03, 0.02);
    AudibleChanges heard(names.size());
    double steepest = 0;  // dB a second, on the fan's own level
    for (int i = 0; i < 4 * 60; ++i) {
        kelvo->tick(now += 1);
        const std::vector<double> rpm = machine->state().fanCurrentRPM;
        heard.add(rpm, true);
        for (std::size_t f = 0; f < rpm.size() && f < before.size(); ++f)
            steepest = std::max(steepest, 50 * std::log10(before[f] / std::max(rpm[f], 1.0)));
        before = rpm;
    }
    EXPECT_EQ(heard.count, 0);
    EXPECT_LE(steepest, 0.46);
    // They did come down: every fan at its lowest again.
    for (std::size_t f = 0; f < names.size(); ++f)
        EXPECT_LT(before.at(f), 1.05 * plant.fans.at(f).minRPM) << f;
}

// Twenty minutes of `load` on desktop-cooler-gpu-case, each fan known to cool what the machine
// file says: after the first five, the energy mean of the fans' level and the hottest each die
// ran; over the last five, the graphics card fans' mean speed.
struct MixRun {
    double meanDb = 0;
    double settledGpuFanRPM = 0;
    double hottestCpu = 0;
    double hottestGpu = 0;
};

class ControlEngineMix : public ControlEngineCoupling {
protected:
    template <typename Load>
    MixRun run(Load load) {
        const sim::PlantConfig plant = shippedMachine("desktop-cooler-gpu-case");
        auto kelvo = quietKnowingTheFans(plant);
        MixRun out;
        double power = 0;
        int seconds = 0;
        for (int i = 0; i < 20 * 60; ++i) {
            const auto [cpu, gpu] = load(i);
            machine->setLoad(cpu, gpu);
            const ControlSnapshot snap = kelvo->tick(now += 1);
            EXPECT_TRUE(snap.fansShared || i < 60) << i;
            if (i < 5 * 60) continue;
            const sim::PlantState state = machine->state();
            power += sim::fanSoundPower(plant, state.fanCurrentRPM);
            ++seconds;
            if (i >= 15 * 60) out.settledGpuFanRPM += state.fanCurrentRPM.at(1) / (5 * 60);
            out.hottestCpu = std::max(out.hottestCpu, state.cpuTemperatureC);
            out.hottestGpu = std::max(out.hottestGpu, state.gpuTemperatureC);
        }
        out.meanDb = 10 * std::log10(power / seconds);
        const ControlLimits limits;
        EXPECT_LT(out.hottestCpu, limits.quietCpuLimitC);
        EXPECT_LT(out.hottestGpu, limits.quietGpuLimitC);
        return out;
    }
};

TEST_F(ControlEngineMix, UnderALongRenderTheSharedDutyGoesToTheDieItAnswers) {
    // The CPU holds at its setpoint, the GPU runs under its own: the shared policy answers the
    // CPU, so the CPU's plan is what it raises, and the graphics card's loud fans stay at their
    // lowest. Given to the die whose own ask happened to be the higher, the shared duty went to
    // the GPU's plan: those fans settled 3.2 % of their range over their lowest (1.2 % now) and
    // the fans were 20.9 dB over these fifteen minutes, against 20.2.
    const sim::PlantConfig plant = shippedMachine("desktop-cooler-gpu-case");
    const auto& gpuFans = plant.fans.at(1);
    const MixRun render = run([](int) { return std::pair{1.0, 0.75}; });
    EXPECT_LT(render.settledGpuFanRPM, gpuFans.minRPM + 0.03 * (gpuFans.maxRPM - gpuFans.minRPM));
    EXPECT_LT(render.meanDb, 20.5);
}

TEST_F(ControlEngineMix, UnderASwingingLoadTheSharedPolicyGoesOnFromWhatTheFansGave) {
    // A game's CPU and GPU loads wander on their own. The fans the plan raises lag behind it
    // (no faster than the shared duty would move them); a shared policy that ran on past them
    // pulled every fan up once they caught up: 25.2 dB over these fifteen minutes, against 24.1.
    const MixRun game = run([](int i) {
        return std::pair{0.6 + 0.3 * std::sin(i / 20.0), 0.8 + 0.2 * std::sin(i / 13.0)};
    });
    EXPECT_LT(game.meanDb, 24.6);
}

TEST_F(ControlEngineCoupling, WithSharingTurnedOffEveryFanFollowsOneDutyAndNoneIsProbed) {
    // What each blower cools is known, and the load would have the quiet mode share the work
    // (OnceTheBlowersAreKnown...). With the sharing turned off it is the quiet mode as it was
    // before it measured the fans: one duty for both, nothing probed, nothing measured.
    const auto names = machine->state().fanNames;
    ASSERT_TRUE(store->saveFanCoupling(names.at(0), measured(1.0, 0.1)));
    ASSERT_TRUE(store->saveFanCoupling(names.at(1), measured(0.1, 1.0)));
    const auto before = store->fanCouplings();
    ControlLoopConfig config;
    config.shareAmongFans = false;
    auto kelvo = std::make_unique<ControlEngine>(telemetry, fans, store, ring, nullptr, config);
    kelvo->applyMode(ControlMode::quiet);
    machine->setLoad(0.3, 1.0);
    int raised = 0;
    for (int i = 0; i < 1800; ++i) {
        const ControlSnapshot snap = kelvo->tick(now += 1);
        ASSERT_FALSE(snap.fansShared) << i;
        ASSERT_TRUE(snap.decision);
        EXPECT_FALSE(snap.decision->probedFan) << i;
        const std::vector<double> s = shares(snap);
        ASSERT_EQ(s.size(), 2u);
        EXPECT_NEAR(s[0], s[1], 1e-9) << i;
        if (s[0] > 0.05) ++raised;
    }
    EXPECT_GT(raised, 0);  // the fans did work, together
    EXPECT_EQ(store->fanCouplings(), before);
}

TEST_F(ControlEngineCoupling, SharingTurnedOffEasesBackToOneDutyUnheardAndTurnedOnSharesAgain) {
    const auto names = machine->state().fanNames;
    ASSERT_TRUE(store->saveFanCoupling(names.at(0), measured(1.0, 0.1)));
    ASSERT_TRUE(store->saveFanCoupling(names.at(1), measured(0.1, 1.0)));
    const auto before = store->fanCouplings();
    auto kelvo = engine();
    kelvo->applyMode(ControlMode::quiet);
    machine->setLoad(0.0, 1.0);
    ControlSnapshot snap;
    for (int i = 0; i < 1200; ++i) snap = kelvo->tick(now += 1);
    ASSERT_TRUE(snap.fansShared);
    const std::vector<double> mixed = shares(snap);
    ASSERT_EQ(mixed.size(), 2u);
    ASSERT_GT(mixed[1], mixed[0] + 0.05);

    // Off, as the user's switch does it: said once, and the blowers come together slowly enough
    // that neither moves 3 dB within 5 s, with nothing probed and nothing measured on the way.
    kelvo->setShareAmongFans(false);
    kelvo->setShareAmongFans(false);
    EXPECT_EQ(count("Sharing the work among the fans is off"), 1);
    std::deque<std::vector<double>> lastFive{snap.decision->targetRPM};
    for (int i = 0; i < 240; ++i) {
        snap = kelvo->tick(now += 1);
        ASSERT_TRUE(snap.decision);
        EXPECT_FALSE(snap.decision->probedFan) << i;
        lastFive.push_back(snap.decision->targetRPM);
        if (lastFive.size() > 5) lastFive.pop_front();
        for (std::size_t f = 0; f < 2; ++f) {
            double low = 1e9, high = 0;
            for (const auto& targets : lastFive) {
                low = std::min(low, targets.at(f));
                high = std::max(high, targets.at(f));
            }
            ASSERT_LT(50 * std::log10(high / low), 3.0) << "fan " << f << " at " << i;
        }
    }
    EXPECT_FALSE(snap.fansShared);
    const std::vector<double> together = shares(snap);
    EXPECT_NEAR(together[0], together[1], 1e-9);
    EXPECT_EQ(store->fanCouplings(), before);

    // On again: what was measured is still known, and the work is shared by it once more.
    kelvo->setShareAmongFans(true);
    EXPECT_EQ(count("Sharing the work among the fans is on"), 1);
    bool sharedAgain = false;
    for (int i = 0; i < 300 && !sharedAgain; ++i) sharedAgain = kelvo->tick(now += 1).fansShared;
    EXPECT_TRUE(sharedAgain);
}

TEST_F(ControlEngineCoupling, SharingTurnedOffMidProbeEasesTheProbeOut) {
    // A fresh profile under a render: the blowers are being probed.
    auto kelvo = engine();
    kelvo->applyMode(ControlMode::quiet);
    machine->setLoad(1.0, 0.75);
    ControlSnapshot snap;
    int probing = 0;
    std::string probed;
    for (int i = 0; i < 3600 && probing < 15; ++i) {
        snap = kelvo->tick(now += 1);
        ASSERT_TRUE(snap.decision);
        probing = snap.decision->probedFan ? probing + 1 : 0;
    }
    ASSERT_EQ(probing, 15) << "no probe under way";
    const auto names = machine->state().fanNames;
    const std::size_t fan =
        snap.decision->probedFan
            ? std::size_t(std::find(names.begin(), names.end(), *snap.decision->probedFan) -
                          names.begin())
            : 0;
    ASSERT_LT(fan, names.size());

    // Off in the middle of the swell: the raise goes back over several seconds, not at once.
    kelvo->setShareAmongFans(false);
    double before = snap.decision->targetRPM.at(fan);
    double mostFall = 0;
    for (int i = 0; i < 120; ++i) {
        snap = kelvo->tick(now += 1);
        EXPECT_FALSE(snap.decision->probedFan) << i;
        const double target = snap.decision->targetRPM.at(fan);
        mostFall = std::max(mostFall, 50 * std::log10(before / target));
        before = target;
    }
    EXPECT_LT(mostFall, 1.0);
}

// Probing ended at its limit with answers all over the place (as on sensors that read whole
// degrees): Kelvo says it could not tell, names no die and shares nothing.
TEST_F(ControlEngineCoupling, FansWhoseSwellsToldNothingAreSaidSoAndNoDieIsNamed) {
    FanCouplingEvidence noise;
    for (int i = 0; i < CouplingLearnerConfig{}.maxProbesPerFan; ++i)
        for (std::size_t lag = 0; lag < kCouplingLagsS.size(); ++lag) {
            noise.cpu.byLag[lag].add(i % 2 ? 11.0 : -9.0, 1);
            noise.gpu.byLag[lag].add(i % 2 ? 11.0 : -9.0, 1);
        }
    const auto names = machine->state().fanNames;
    for (const auto& name : names) ASSERT_TRUE(store->saveFanCoupling(name, noise));
    auto kelvo = engine();
    kelvo->applyMode(ControlMode::quiet);
    machine->setLoad(1.0, 0.75);
    ControlSnapshot snap;
    for (int i = 0; i < 60; ++i) snap = kelvo->tick(now += 1);
    ASSERT_EQ(snap.couplings.size(), 2u);
    for (const FanCoupling& c : snap.couplings) {
        EXPECT_FALSE(coolsMostly(c).empty()) << c.identity;  // there are shares ...
        EXPECT_EQ(c.confidence, 0) << c.identity;            // ... that mean nothing
        EXPECT_EQ(coolsMostlyKnown(c), "") << c.identity;
    }
    EXPECT_EQ(count("Fan cooling measured: "), 0);
    EXPECT_EQ(count("Fan cooling could not be measured for " + names.at(0) + ", " + names.at(1) +
                    ": its swells did not show which part it cools; every fan follows one duty"),
              1);
    // One duty: both blowers at the same share of their range.
    const std::vector<double> at = shares(snap);
    ASSERT_EQ(at.size(), 2u);
    EXPECT_NEAR(at[0], at[1], 1e-6);
}

TEST_F(ControlEngineCoupling, MeasuringAgainDropsWhatWasKnownInTheStoreTooAndLearnsItAnew) {
    // Measured before the blowers were swapped round: each is believed to cool the other's die.
    const auto names = machine->state().fanNames;
    ASSERT_TRUE(store->saveFanCoupling(names.at(0), measured(0.1, 1.0)));
    ASSERT_TRUE(store->saveFanCoupling(names.at(1), measured(1.0, 0.1)));
    auto kelvo = engine();
    kelvo->applyMode(ControlMode::quiet);
    machine->setLoad(1.0, 0.75);
    ControlSnapshot snap;
    for (int i = 0; i < 60; ++i) snap = kelvo->tick(now += 1);
    ASSERT_EQ(coolsMostly(snap.couplings.at(0)), "GPU");

    kelvo->measureFansAgain();
    EXPECT_EQ(count("Fan cooling measurements dropped as asked: every fan follows one duty"), 1);
    const auto dropped = store->fanCouplings();
    ASSERT_TRUE(dropped);
    for (const auto& [fan, evidence] : *dropped) EXPECT_EQ(evidence, FanCouplingEvidence{}) << fan;
    snap = kelvo->tick(now += 1);
    for (const FanCoupling& c : snap.couplings) EXPECT_EQ(coolsMostly(c), "") << c.identity;

    // Measured again as the blowers are now.
    for (int i = 0; i < 3 * 3600; ++i) snap = kelvo->tick(now += 1);
    EXPECT_EQ(coolsMostly(snap.couplings.at(0)), "CPU");
    EXPECT_EQ(coolsMostly(snap.couplings.at(1)), "GPU");
    const auto stored = store->fanCouplings();
    ASSERT_TRUE(stored);
    EXPECT_GT(stored->at(names.at(0)).cpu.probes(), 0);

    // With the sharing off nothing is measured until it is turned on: the event says so.
    kelvo->setShareAmongFans(false);
    kelvo->measureFansAgain();
    EXPECT_EQ(count("they are measured again once sharing the work among the fans is turned on"),
              1);
    for (int i = 0; i < 3600; ++i) snap = kelvo->tick(now += 1);
    for (const FanCoupling& c : snap.couplings) EXPECT_EQ(coolsMostly(c), "") << c.identity;
}

TEST_F(ControlEngineCoupling, AFanThatNoLongerCoolsAsMeasuredIsReportedAndMeasuredAgain) {
    // What the blowers really do, learned through a long render.
    machine->setLoad(1.0, 0.75);
    {
        auto kelvo = engine();
        kelvo->applyMode(ControlMode::quiet);
        for (int i = 0; i < 3 * 3600; ++i) kelvo->tick(now += 1);
    }
    ASSERT_EQ(count("Fan cooling measured: "), 1);
    const auto learned = store->fanCouplings();
    ASSERT_TRUE(learned);
    ASSERT_EQ(learned->size(), 2u);
    const auto names = machine->state().fanNames;

    // Kelvo started again, its rechecks see the blowers as they are: nothing to report. Each
    // hour the machine idles for ten minutes, then renders.
    std::optional<bool> emptiedAtReport;
    auto later = [&](int hours) {
        auto kelvo = engine();
        kelvo->applyMode(ControlMode::quiet);
        for (int i = 0; i < hours * 3600; ++i) {
            const bool idle = i % 3600 < 600;
            machine->setLoad(idle ? 0.02 : 1.0, idle ? 0.02 : 0.75);
            kelvo->tick(now += 1);
            if (emptiedAtReport || count("no longer cools the") == 0) continue;
            const auto stored = store->fanCouplings();
            emptiedAtReport = false;
            for (const auto& [fan, evidence] : stored.value_or(decltype(*stored){}))
                if (evidence == FanCouplingEvidence{}) emptiedAtReport = true;
        }
    };
    later(14);
    EXPECT_EQ(count("no longer cools"), 0);

    // Each blower's measurements put under the other's name: each now answers far less for the
    // die it is believed to cool, as a blocked fan would.
    ASSERT_TRUE(store->saveFanCoupling(names.at(0), learned->at(names.at(1))));
    ASSERT_TRUE(store->saveFanCoupling(names.at(1), learned->at(names.at(0))));
    later(14);
    EXPECT_GE(count("no longer cools the"), 1);
    EXPECT_GE(count("as Kelvo measured it (blocked or failing?)"), 1);
    // What was known of it was dropped from the store the moment it was reported, to be measured
    // again.
    ASSERT_TRUE(emptiedAtReport);
    EXPECT_TRUE(*emptiedAtReport);
}

TEST_F(ControlEngineCoupling, AMachineWithNoFanListedYetIsControlledWithoutSharing) {
    // A back-end that has listed no fan (yet): nothing to share among, and nothing breaks.
    sim::PlantConfig plant = twoBlowers();
    plant.fans.clear();
    use(plant);
    auto kelvo = engine();
    kelvo->applyMode(ControlMode::quiet);
    machine->setLoad(1.0, 0.75);
    for (int i = 0; i < 30; ++i) {
        const ControlSnapshot snap = kelvo->tick(now += 1);
        EXPECT_FALSE(snap.fansShared);
        if (snap.decision) {
            EXPECT_TRUE(snap.decision->targetRPM.empty());
        }
    }
}

TEST_F(ControlEngineCoupling, AProbeGoesOnThroughACompilesPausesAndCounts) {
    // A tower cooler's desktop compiling for eight minutes: its heatsink warms slowly, the quiet
    // mode holds its fans at their lowest, and every 45 s the build pauses for a few seconds
    // (linking, a test run) with the CPU at a fifth.
    use(shippedMachine("desktop-cooler-gpu-case"));
    auto kelvo = engine();
    kelvo->applyMode(ControlMode::quiet);
    std::optional<std::string> probed;
    double probedFor = 0;
    double longest = 0;
    for (int i = 0; i < 8 * 60; ++i) {
        const bool pause = i % 45 >= 39;
        machine->setLoad(pause ? 0.2 : 0.93, 0.04);
        const ControlSnapshot snap = kelvo->tick(now += 1);
        ASSERT_TRUE(snap.decision);
        const auto& fan = snap.decision->probedFan;
        probedFor = fan && fan == probed ? probedFor + 1 : fan ? 1 : 0;
        probed = fan;
        longest = std::max(longest, probedFor);
    }
    // Probes ran their whole course (a swell up and back down, longer than the time between
    // two pauses) through the pauses, and what they showed was kept.
    EXPECT_GE(longest, 2 * CouplingLearnerConfig{}.halfSeconds - 1);
    const auto stored = store->fanCouplings();
    ASSERT_TRUE(stored);
    EXPECT_FALSE(stored->empty());
}

TEST_F(ControlEngineCoupling, AnIdleDesktopsSpikesStartNoProbe) {
    // Reading and writing: a second or two of work every half minute warms the die for a moment.
    // The fans are at their lowest; a probe would be the loudest thing in the room.
    use(shippedMachine("desktop-cooler-gpu-case"));
    auto kelvo = engine();
    kelvo->applyMode(ControlMode::quiet);
    for (int i = 0; i < 30 * 60; ++i) {
        const bool spike = i % 30 < 2;
        machine->setLoad(spike ? 0.95 : 0.03, 0.03);
        const ControlSnapshot snap = kelvo->tick(now += 1);
        ASSERT_TRUE(snap.decision);
        ASSERT_FALSE(snap.decision->probedFan) << i;
    }
}
