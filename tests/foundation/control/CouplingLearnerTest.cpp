#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <numbers>
#include <random>

#include "foundation/control/CouplingLearner.h"
#include "foundation/sim/ThermalPlant.h"
#include "tests/foundation/ShippedMachines.h"

using namespace kelvo;

namespace {
using test_support::shippedMachine;

// The machine file's own answer: each fan's share of each die's weights.
double trueShare(const sim::PlantConfig& plant, std::size_t fan, bool gpu) {
    double total = 0;
    for (const auto& f : plant.fans) total += gpu ? f.gpuCooling : f.cpuCooling;
    return (gpu ? plant.fans[fan].gpuCooling : plant.fans[fan].cpuCooling) / total;
}

struct Segment {
    double seconds;
    double cpu;
    double gpu;
};

// What one tick asked of the fans: the engine's targets and what went out with the probe.
struct TickTargets {
    double at = 0;
    std::vector<double> base;
    std::vector<double> sent;
};

// Every fan at one duty under `load` (repeated until `seconds`), the learner probing on top.
// `probeable(t, fan)` says whether the engine lets it probe that fan at second t.
std::vector<FanCoupling> learnOn(const sim::PlantConfig& plant, const std::vector<Segment>& load,
                                 double seconds, double duty, CouplingLearner& learner,
                                 std::vector<TickTargets>* ticks = nullptr,
                                 const std::function<bool(double, std::size_t)>& probeable = {},
                                 const std::function<double(double)>& cpuReadingOff = {},
                                 const std::function<void(double)>& beforeStep = {}) {
    sim::ThermalPlant machine(plant, 7);
    std::vector<std::string> names;
    for (const auto& fan : plant.fans) names.push_back(fan.name);
    double cycle = 0;
    for (const auto& s : load) cycle += s.seconds;
    for (double t = 0; t < seconds; t += 1) {
        double at = std::fmod(t, cycle);
        for (const auto& s : load) {
            if (at < s.seconds) {
                machine.setLoad(s.cpu, s.gpu);
                break;
            }
            at -= s.seconds;
        }
        machine.step(1.0);
        const auto& state = machine.state();
        TelemetrySample sample;
        sample.timestamp = 1000 + t;
        sample.cpuTemperatureC = state.cpuTemperatureC;
        if (cpuReadingOff && sample.cpuTemperatureC) *sample.cpuTemperatureC += cpuReadingOff(t);
        sample.gpuTemperatureC = state.gpuTemperatureC;
        sample.cpuUtilizationPct = state.cpuUtilizationPct;
        sample.gpuUtilizationPct = state.gpuUtilizationPct;
        std::vector<ProbeFan> fans;
        std::vector<double> targets;
        for (std::size_t i = 0; i < plant.fans.size(); ++i) {
            const auto& fan = plant.fans[i];
            const double target = fan.minRPM + duty * (fan.maxRPM - fan.minRPM);
            // A fan the engine does not let it probe is one handed away from Kelvo's control.
            const bool driven = !probeable || probeable(t, i);
            fans.push_back(
                {fan.name, target, state.fanCurrentRPM.at(i), fan.maxRPM, driven, driven});
            targets.push_back(target);
        }
        const std::vector<double> base = targets;
        if (beforeStep) beforeStep(t);
        learner.step(sample.timestamp, sample, fans, targets);
        if (ticks) ticks->push_back({sample.timestamp, base, targets});
        machine.setFanCommand(targets);
    }
    return fanCouplings(learner.evidence(), names);
}

// The largest gap between a learned share and the machine file's, over every fan and die.
double worstShareError(const sim::PlantConfig& plant, const std::vector<FanCoupling>& learned) {
    double worst = 0;
    for (std::size_t i = 0; i < learned.size(); ++i) {
        for (bool gpu : {false, true}) {
            const auto& share = gpu ? learned[i].gpuShare : learned[i].cpuShare;
            EXPECT_TRUE(share) << learned[i].identity << (gpu ? " GPU" : " CPU");
            if (!share) return 1;
            std::printf("%-20s %s %.3f (file %.3f)\n", learned[i].identity.c_str(),
                        gpu ? "GPU" : "CPU", *share, trueShare(plant, i, gpu));
            worst = std::max(worst, std::abs(*share - trueShare(plant, i, gpu)));
        }
    }
    return worst;
}

// How long each half of a probe lasts: the rest before it is as long, and so are its rise and its
// fall.
const double kHalf = CouplingLearnerConfig{}.halfSeconds;

// The second the first probe begins under `load`, every fan at `duty`, nothing in its way.
std::size_t firstProbeStart(const sim::PlantConfig& plant, const std::vector<Segment>& load,
                            double duty) {
    CouplingLearner learner;
    std::vector<TickTargets> ticks;
    learnOn(plant, load, 10 * kHalf, duty, learner, &ticks);
    for (std::size_t t = 0; t < ticks.size(); ++t)
        for (std::size_t f = 0; f < ticks[t].sent.size(); ++f)
            if (ticks[t].sent[f] > ticks[t].base[f]) return t;
    ADD_FAILURE() << "no probe began";
    return ticks.size();
}
}  // namespace

TEST(CouplingLearner, LearnsWhichBlowerCoolsWhichDieUnderASteadyLoad) {
    const auto plant = shippedMachine("laptop-two-blowers");
    CouplingLearner learner;
    const auto learned = learnOn(plant, {{600, 1.0, 0.75}}, 30 * 60, 0.4, learner);
    EXPECT_LT(worstShareError(plant, learned), 0.1);
    EXPECT_EQ(coolsMostly(learned[0]), "CPU");
    EXPECT_EQ(coolsMostly(learned[1]), "GPU");
}

TEST(CouplingLearner, LearnsADesktopsThreeFansUnderAGameThatComesAndGoes) {
    const auto plant = shippedMachine("desktop-cooler-gpu-case");
    CouplingLearner learner;
    const auto learned = learnOn(plant, {{150, 0.5, 0.95}, {15, 0.85, 0.1}}, 60 * 60, 0.3, learner);
    EXPECT_LT(worstShareError(plant, learned), 0.15);
    EXPECT_EQ(coolsMostly(learned[0]), "CPU");
    EXPECT_EQ(coolsMostly(learned[1]), "GPU");
}

TEST(CouplingLearner, ADieThatStaysIdleIsNotGuessedAt) {
    // A long CPU job with the GPU idle the whole time: what the fans do for the GPU cannot be
    // seen, so no fan gets a GPU share, while the CPU's are learned.
    const auto plant = shippedMachine("laptop-two-blowers");
    CouplingLearner learner;
    const auto learned = learnOn(plant, {{600, 1.0, 0.03}}, 30 * 60, 0.4, learner);
    for (const auto& fan : learned) {
        EXPECT_TRUE(fan.cpuShare) << fan.identity;
        EXPECT_FALSE(fan.gpuShare) << fan.identity;
    }
    EXPECT_EQ(coolsMostly(learned[0]), "CPU");
}

TEST(CouplingLearner, NoProbeWhileTheMachineIdles) {
    // Near idle a die answers too faintly to be read: probing would only be noise.
    const auto plant = shippedMachine("laptop-two-blowers");
    CouplingLearner learner;
    std::vector<TickTargets> ticks;
    learnOn(plant, {{600, 0.03, 0.02}}, 30 * 60, 0.4, learner, &ticks);
    for (const auto& tick : ticks) ASSERT_EQ(tick.sent, tick.base) << tick.at;
    EXPECT_TRUE(learner.evidence().empty());
}

TEST(CouplingLearner, ProbesAreSlowSmallAndEndOnceEveryFanIsKnown) {
    const auto plant = shippedMachine("laptop-two-blowers");
    CouplingLearner learner;
    std::vector<TickTargets> ticks;
    learnOn(plant, {{600, 1.0, 0.75}}, 90 * 60, 0.4, learner, &ticks);
    EXPECT_TRUE(learner.done());
    double lastProbe = 0;
    for (std::size_t t = 0; t < ticks.size(); ++t) {
        for (std::size_t f = 0; f < plant.fans.size(); ++f) {
            const double gainDb = 50 * std::log10(ticks[t].sent[f] / ticks[t].base[f]);
            // Never slower than asked, never more than the probe's own dB louder.
            EXPECT_GE(gainDb, -1e-9);
            EXPECT_LE(gainDb, CouplingLearnerConfig{}.probeDb + 1e-9);
            if (gainDb > 1e-9) lastProbe = ticks[t].at;
            // Never a change a listener hears: under 3 dB of the fan's own level within 5 s.
            if (t >= 5) {
                const double span = 50 * std::log10(ticks[t].sent[f] / ticks[t - 5].sent[f]);
                EXPECT_LT(std::abs(span), 3) << "at " << ticks[t].at;
            }
        }
        // One fan at a time.
        int probed = 0;
        for (std::size_t f = 0; f < plant.fans.size(); ++f)
            probed += ticks[t].sent[f] > ticks[t].base[f] ? 1 : 0;
        EXPECT_LE(probed, 1);
    }
    // Known within the first hour; nothing probed after that.
    EXPECT_GT(lastProbe, 0);
    EXPECT_LT(lastProbe, ticks.front().at + 60 * 60);
}

TEST(CouplingLearner, AFanTakenAwayMidProbeIsLetGoAndItsProbeCountsForNothing) {
    const auto plant = shippedMachine("laptop-two-blowers");
    const std::vector<Segment> render{{600, 1.0, 0.75}};
    // The user hands the first fan to the firmware at the top of its probe; the run ends before
    // the next fan's probe could have been read.
    const std::size_t away = firstProbeStart(plant, render, 0.4) + std::size_t(kHalf);
    CouplingLearner learner;
    std::vector<TickTargets> ticks;
    learnOn(plant, render, double(away) + 2 * kHalf, 0.4, learner, &ticks,
            [away](double t, std::size_t fan) { return !(fan == 0 && t >= double(away)); });
    ASSERT_GT(ticks.size(), away);
    EXPECT_GT(ticks[away - 1].sent[0], ticks[away - 1].base[0]);  // it was being probed
    for (std::size_t t = away; t < ticks.size(); ++t)
        EXPECT_DOUBLE_EQ(ticks[t].sent[0], ticks[t].base[0]) << t;
    EXPECT_TRUE(learner.takeUpdated().empty());
    EXPECT_TRUE(learner.evidence().empty());
}

TEST(CouplingLearner, AProbeWhoseLoadFallsAwayEasesOutUnheard) {
    const auto plant = shippedMachine("laptop-two-blowers");
    const CouplingLearnerConfig config;
    // The render ends a third of the way up the first probe, which is given up once the load has
    // been gone for a while, on its way down. The run ends once it has eased out, before the
    // next fan's probe could have been read.
    const double start = double(firstProbeStart(plant, {{600, 1.0, 0.75}}, 0.4));
    const double end = start + kHalf / 3;
    const double givenUp = end + config.loadGoneSeconds;
    ASSERT_LT(givenUp, end + 2 * kHalf);  // before the probe would have ended by itself
    CouplingLearner learner;
    std::vector<TickTargets> ticks;
    learnOn(plant, {{end, 1.0, 0.75}, {600, 0.03, 0.03}}, givenUp + 2 * config.rampSeconds + 10,
            0.4, learner, &ticks);
    ASSERT_GT(ticks[std::size_t(end)].sent[0], ticks[std::size_t(end)].base[0]);  // probed
    bool easing = false;
    for (std::size_t t = 1; t < ticks.size(); ++t) {
        const double gainDb = 50 * std::log10(ticks[t].sent[0] / ticks[t].base[0]);
        const double before = 50 * std::log10(ticks[t - 1].sent[0] / ticks[t - 1].base[0]);
        // Never faster down than the probe's own ramp (a tenth of a dB a second), given up or
        // not.
        EXPECT_LE(before - gainDb, config.probeDb / config.rampSeconds + 1e-9) << t;
        // Still easing out after the probe would have ended by itself.
        easing = easing || (double(t) > start + 2 * kHalf && gainDb > 1e-9);
    }
    EXPECT_TRUE(easing);
    // Eased all the way out, and nothing counted.
    EXPECT_DOUBLE_EQ(ticks.back().sent[0], ticks.back().base[0]);
    EXPECT_TRUE(learner.evidence().empty());
}

namespace {
// Each probe of a run (ticks one second apart from its start): the fan raised, from its first
// raised second to its last.
struct Probe {
    std::size_t fan = 0;
    std::size_t from = 0;
    std::size_t to = 0;
};

std::vector<Probe> probesIn(const std::vector<TickTargets>& ticks) {
    std::vector<Probe> probes;
    for (std::size_t t = 0; t < ticks.size(); ++t)
        for (std::size_t f = 0; f < ticks[t].sent.size(); ++f) {
            if (!(ticks[t].sent[f] > ticks[t].base[f])) continue;
            if (!probes.empty() && probes.back().fan == f && probes.back().to + 1 == t)
                probes.back().to = t;
            else
                probes.push_back({f, t, t});
        }
    return probes;
}

// The first recheck: the probe that follows the last learning probe after a pause as long as
// recheckSeconds; probes.size() when there is none.
std::size_t firstRecheck(const std::vector<Probe>& probes, const CouplingLearnerConfig& config) {
    std::size_t first = 1;
    while (first < probes.size() &&
           double(probes[first].from - probes[first - 1].to) < config.recheckSeconds)
        ++first;
    return first;
}
}  // namespace

TEST(CouplingLearner, ARecheckReadsOneFanSeveralTimesInARowAndCountsThemOnceJudged) {
    // Once every fan is known, a recheck probes one fan recheckProbes times in a row: one short
    // swell is too faint to tell a sound fan from a blocked one. What those probes show is kept
    // aside until they are judged together.
    const auto plant = shippedMachine("laptop-two-blowers");
    CouplingLearnerConfig config;
    config.recheckSeconds = 600;
    const std::vector<Segment> render{{600, 1.0, 0.75}};
    std::vector<TickTargets> ticks;
    {
        CouplingLearner learner(config);
        learnOn(plant, render, 2 * 3600, 0.4, learner, &ticks);
    }
    const std::vector<Probe> probes = probesIn(ticks);
    const std::size_t first = firstRecheck(probes, config);
    const auto n = std::size_t(config.recheckProbes);
    ASSERT_GE(n, 2u);
    ASSERT_GE(probes.size(), first + n) << "no recheck within two hours";
    for (std::size_t i = 1; i < n; ++i) EXPECT_EQ(probes[first + i].fan, probes[first].fan) << i;

    // How many probes of the rechecked fan had counted for the CPU after `seconds`: the same
    // run, cut short.
    const std::string& fan = plant.fans[probes[first].fan].name;
    auto countedAfter = [&](std::size_t seconds) {
        CouplingLearner learner(config);
        learnOn(plant, render, double(seconds), 0.4, learner);
        const auto it = learner.evidence().find(fan);
        return it == learner.evidence().end() ? -1 : it->second.cpu.probes();
    };
    const int before = countedAfter(probes[first].from);
    EXPECT_GT(before, 0);
    // The last of them under way: none counted yet. Once it is over, all of them.
    EXPECT_EQ(countedAfter(probes[first + n - 1].from + 1), before);
    EXPECT_EQ(countedAfter(probes[first + n - 1].to + 3), before + int(n));
}

TEST(CouplingLearner, WhatIsKnownDroppedMidRecheckIsLearnedAgainFromTheStart) {
    // The user has Kelvo measure the fans again while a recheck is under way: the recheck was of
    // what was known, and learning starts over on every fan.
    const auto plant = shippedMachine("laptop-two-blowers");
    CouplingLearnerConfig config;
    config.recheckSeconds = 600;
    const std::vector<Segment> render{{600, 1.0, 0.75}};
    // When the first recheck begins.
    std::optional<double> recheckAt;
    {
        CouplingLearner learner(config);
        std::vector<TickTargets> ticks;
        learnOn(plant, render, 2 * 3600, 0.4, learner, &ticks);
        const std::vector<Probe> probes = probesIn(ticks);
        const std::size_t first = firstRecheck(probes, config);
        if (first < probes.size()) recheckAt = double(probes[first].from);
    }
    ASSERT_TRUE(recheckAt) << "no recheck within two hours";

    CouplingLearner learner(config);
    std::vector<TickTargets> ticks;
    const auto learned =
        learnOn(plant, render, *recheckAt + 3600, 0.4, learner, &ticks, {}, {}, [&](double t) {
            if (t == *recheckAt + 5) learner.setEvidence({});
        });
    // Learning starts over at once: each fan is probed again within the next three swells (the
    // recheck under way goes on to its end), not after the rest of a recheck round.
    std::map<std::size_t, double> firstAfter;
    for (const TickTargets& tick : ticks)
        for (std::size_t f = 0; f < tick.sent.size(); ++f)
            if (tick.at - 1000 > *recheckAt + 5 && tick.sent[f] > tick.base[f])
                firstAfter.try_emplace(f, tick.at - 1000 - *recheckAt);
    ASSERT_EQ(firstAfter.size(), 2u);
    for (const auto& [fan, after] : firstAfter) EXPECT_LT(after, 6 * kHalf) << fan;
    // And both are known again as they are.
    ASSERT_EQ(learned.size(), 2u);
    EXPECT_EQ(coolsMostly(learned[0]), "CPU");
    EXPECT_EQ(coolsMostly(learned[1]), "GPU");
    EXPECT_GE(learned[0].probes, kCouplingProbesForConfidence);
}

TEST(CouplingLearner, RechecksThatCanSayNothingEndTheirRoundOnceEveryFanHasHadItsTurn) {
    // Learned under a CPU-only load; then the CPU's readings turn noisy (a flaky sensor) and the
    // GPU stays cool. No recheck can tell a sound fan from a weak one: each fan gets its turn, and
    // probing waits for the next recheck instead of going round for ever. Nothing is reported.
    const auto plant = shippedMachine("laptop-two-blowers");
    CouplingLearnerConfig config;
    config.recheckSeconds = 1800;
    const std::vector<Segment> build{{600, 1.0, 0.03}};
    const double learned = 90 * 60;
    {
        CouplingLearner learner(config);
        learnOn(plant, build, learned, 0.4, learner);
        ASSERT_TRUE(learner.done());
    }
    std::mt19937 dice(5);
    std::uniform_real_distribution<double> noise(-6, 6);
    CouplingLearner learner(config);
    std::vector<TickTargets> ticks;
    learnOn(plant, build, learned + 2 * config.recheckSeconds + 600, 0.4, learner, &ticks, {},
            [&](double t) { return t >= learned ? noise(dice) : 0.0; });
    EXPECT_TRUE(learner.takeFaded().empty());
    // Each probe after learning: the fan raised and its first second.
    std::vector<std::pair<std::size_t, std::size_t>> probes;
    for (std::size_t t = std::size_t(learned); t < ticks.size(); ++t)
        for (std::size_t f = 0; f < plant.fans.size(); ++f) {
            const bool raised = ticks[t].sent[f] > ticks[t].base[f];
            const bool wasRaised = ticks[t - 1].sent[f] > ticks[t - 1].base[f];
            if (raised && !wasRaised) probes.emplace_back(f, t);
        }
    // Rounds: probes with no more than a probe's length between them.
    std::vector<std::vector<std::size_t>> rounds;
    for (std::size_t i = 0; i < probes.size(); ++i) {
        if (i == 0 || double(probes[i].second - probes[i - 1].second) > 4 * config.halfSeconds)
            rounds.emplace_back();
        rounds.back().push_back(probes[i].first);
    }
    // Each round: recheckProbes probes of each fan in turn, then nothing until the next is due.
    ASSERT_EQ(rounds.size(), 2u);
    for (const auto& fans : rounds) {
        ASSERT_EQ(fans.size(), plant.fans.size() * std::size_t(config.recheckProbes));
        for (std::size_t i = 0; i < fans.size(); ++i)
            EXPECT_EQ(fans[i], fans[i - i % std::size_t(config.recheckProbes)]) << i;
        EXPECT_NE(fans.front(), fans.back());
    }
}

TEST(CouplingLearner, TicksThatDoNotComeEndTheProbeInFlight) {
    CouplingLearner learner;
    TelemetrySample sample;
    sample.gpuTemperatureC = 60;
    std::vector<ProbeFan> fans{{"a", 2000, 2000, 5000, true}, {"b", 2000, 2000, 5000, true}};
    double t = 0;
    for (; t < 150; ++t) {
        // A load that warmed the CPU well over where it began, and has held since.
        sample.cpuTemperatureC = t < 10 ? 45 : 70;
        std::vector<double> targets{2000, 2000};
        learner.step(t, sample, fans, targets);
    }
    ASSERT_TRUE(learner.probedFan());
    // Kelvo stops driving the fans for a minute (a fallback); when it drives them again nothing
    // of the old probe is left: no raised target.
    t += 60;
    std::vector<double> targets{2000, 2000};
    learner.step(t, sample, fans, targets);
    EXPECT_FALSE(learner.probedFan());
    EXPECT_DOUBLE_EQ(targets[0], 2000);
    EXPECT_DOUBLE_EQ(targets[1], 2000);
}

TEST(CouplingLearner, OneFanIsNeverProbed) {
    CouplingLearner learner;
    TelemetrySample sample;
    sample.cpuTemperatureC = 70;
    std::vector<ProbeFan> fans{{"a", 2000, 2000, 5000, true}, {"b", 0, 900, 5000, false}};
    for (double t = 0; t < 1000; ++t) {
        std::vector<double> targets{2000, 0};
        learner.step(t, sample, fans, targets);
        ASSERT_DOUBLE_EQ(targets[0], 2000) << t;
        ASSERT_DOUBLE_EQ(targets[1], 0) << t;
    }
}

TEST(CouplingLearner, ANewFanIsProbedAgainOnceTheOthersAreKnown) {
    const auto plant = shippedMachine("laptop-two-blowers");
    CouplingLearner learner;
    learnOn(plant, {{600, 1.0, 0.75}}, 90 * 60, 0.4, learner);
    ASSERT_TRUE(learner.done());
    // A third fan appears (a case fan plugged in): nothing is known of it, so probing resumes.
    TelemetrySample sample;
    sample.cpuTemperatureC = 90;
    sample.gpuTemperatureC = 80;
    std::vector<ProbeFan> fans{{plant.fans[0].name, 3000, 3000, 6000, true},
                               {plant.fans[1].name, 3000, 3000, 5400, true},
                               {"Case fan", 1000, 1000, 2000, true}};
    std::vector<double> targets{3000, 3000, 1000};
    learner.step(1e6, sample, fans, targets);
    EXPECT_FALSE(learner.done());
}

namespace {
// A die warmed by a load from `from` on (held at 70 °C against 45 before), two fans that may be
// probed; `cpuLoad(t)` and `gpuLoad(t)` are the loads each second. Returns the probed fan at
// each second.
std::vector<std::optional<std::string>> probesOn(CouplingLearner& learner, double from,
                                                 double seconds,
                                                 const std::function<double(double)>& cpuLoad,
                                                 const std::function<double(double)>& gpuLoad) {
    std::vector<std::optional<std::string>> probed;
    std::vector<ProbeFan> fans{{"a", 2000, 2000, 5000, true, true},
                               {"b", 2000, 2000, 5000, true, true}};
    for (double t = 0; t < seconds; ++t) {
        TelemetrySample sample;
        sample.cpuTemperatureC = t < from ? 45 : 70;
        sample.gpuTemperatureC = t < from ? 40 : 60;
        sample.cpuUtilizationPct = cpuLoad(t);
        sample.gpuUtilizationPct = gpuLoad(t);
        std::vector<double> targets{2000, 2000};
        learner.step(t, sample, fans, targets);
        probed.push_back(learner.probedFan());
    }
    return probed;
}
}  // namespace

TEST(CouplingLearner, AProbeWaitsUntilTheDieHasBeenWarmForTheWholeRestBeforeIt) {
    // Begun as the load begins, the die's own rise and the probe's would be read together.
    CouplingLearner learner;
    const auto probed = probesOn(
        learner, 300, 600, [](double t) { return t < 300 ? 2.0 : 95.0; },
        [](double) { return 2.0; });
    const auto rest = std::size_t(kHalf);
    for (std::size_t t = 0; t < 300 + rest; ++t) ASSERT_FALSE(probed[t]) << t;
    EXPECT_TRUE(probed[300 + rest + 5]);
}

TEST(CouplingLearner, NoProbeInTheFirstTwoMinutesAfterKelvoTakesTheFans) {
    // A render already running at launch warms the dies at once, but the fans are the policy's
    // to settle first, and a launch's first two minutes are to be no louder than the firmware's.
    CouplingLearner learner;
    const double settle = CouplingLearnerConfig{}.firstProbeAfterSeconds;
    ASSERT_GE(settle, 120);
    const auto probed = probesOn(
        learner, 5, settle + 30, [](double) { return 95.0; }, [](double) { return 60.0; });
    for (std::size_t t = 0; t < std::size_t(settle); ++t) ASSERT_FALSE(probed[t]) << t;
    EXPECT_TRUE(probed[std::size_t(settle) + 5]);

    // Kelvo hands the fans back for a minute (a fallback) and takes them again: as at a launch.
    std::vector<ProbeFan> fans{{"a", 2000, 2000, 5000, true, true},
                               {"b", 2000, 2000, 5000, true, true}};
    TelemetrySample sample;
    sample.cpuTemperatureC = 70;
    sample.gpuTemperatureC = 60;
    sample.cpuUtilizationPct = 95;
    sample.gpuUtilizationPct = 60;
    const double back = settle + 30 + 60;
    for (double t = back; t < back + settle + 30; ++t) {
        std::vector<double> targets{2000, 2000};
        learner.step(t, sample, fans, targets);
        if (t < back + settle) {
            ASSERT_FALSE(learner.probedFan()) << t;
        }
    }
    EXPECT_TRUE(learner.probedFan());
}

TEST(CouplingLearner, TheFanWithTheFewestProbesGoesFirst) {
    // Fan a has been measured three times, b never (its turns kept falling where a load ended):
    // b goes next, though a comes first in the rotation.
    CouplingLearner learner;
    FanCouplingEvidence measured;
    for (int i = 0; i < 3; ++i) measured.cpu.byLag[0].add(1e-4, 1);
    learner.setEvidence({{"a", measured}});
    const auto probed = probesOn(
        learner, 10, 200, [](double) { return 95.0; }, [](double) { return 2.0; });
    ASSERT_TRUE(probed.back());
    EXPECT_EQ(*probed.back(), "b");
}

TEST(CouplingLearner, SlowErrorCountsForLessThanNoiseOfTheSameSize) {
    // One probe under a steady render, its CPU readings off by as much either way: once by
    // noise that changes every second, once by a slow wander (a fan curve's hunting, a neighbour
    // warming the case) the fit cannot explain. The wander holds its error for many seconds, so
    // the probe saw far fewer independent seconds and counts for less. Read with probes of two
    // minutes a half: over a short probe such a wander is little more than a drift, which the
    // fit takes out.
    CouplingLearnerConfig config;
    config.halfSeconds = 120;
    const auto plant = shippedMachine("laptop-two-blowers");
    // Long enough for the first probe to be read, not the next.
    const double seconds = 420;
    std::mt19937 dice(11);
    std::normal_distribution<double> noise(0, 0.7);
    std::vector<double> offsets;
    for (int t = 0; t < seconds; ++t) offsets.push_back(noise(dice));
    CouplingLearner noisy(config);
    learnOn(plant, {{600, 1.0, 0.75}}, seconds, 0.4, noisy, nullptr, {},
            [&](double t) { return offsets[std::size_t(t)]; });
    CouplingLearner wandering(config);
    learnOn(plant, {{600, 1.0, 0.75}}, seconds, 0.4, wandering, nullptr, {},
            [](double t) { return std::sin(2 * std::numbers::pi * t / 150); });
    const auto& a = noisy.evidence().at(plant.fans[0].name).cpu.byLag;
    const auto& b = wandering.evidence().at(plant.fans[0].name).cpu.byLag;
    for (std::size_t l = 0; l < a.size(); ++l) {
        ASSERT_EQ(a[l].count, 1) << l;
        ASSERT_EQ(b[l].count, 1) << l;
        EXPECT_LT(b[l].weight, 0.2 * a[l].weight) << "lag " << kCouplingLagsS[l];
    }
}
