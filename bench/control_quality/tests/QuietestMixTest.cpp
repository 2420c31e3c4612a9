#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "MachineProfile.h"
#include "PlantMix.h"
#include "SoundLevel.h"
#include "foundation/core/FanController.h"

using namespace kelvo;
using namespace kelvo::quality;

namespace {

double airflow(const sim::PlantConfig& plant, sim::Die die, const std::vector<double>& rpm) {
    return sim::coolingAirflow(plant, die, rpm);
}

std::vector<double> at(const sim::PlantConfig& plant, bool maximum) {
    std::vector<double> rpm;
    for (const auto& fan : plant.fans) rpm.push_back(maximum ? fan.maxRPM : fan.minRPM);
    return rpm;
}

// What a level asks of a die's sink, as QuietestMix reads it.
double need(const sim::PlantConfig& plant, sim::Die die, double level) {
    const double low = airflow(plant, die, at(plant, false));
    return low + level * (airflow(plant, die, at(plant, true)) - low);
}

}  // namespace

TEST(QuietestMix, EqualFansOnASharedSinkRunAsOneDuty) {
    const sim::PlantConfig plant = simulatedDefault().plant;
    QuietestMix mix = quietestMixFor(plant);
    for (double level : {0.0, 0.25, 0.6, 1.0}) {
        const std::vector<double> rpm = mix.speeds(level, level / 2);
        for (std::size_t i = 0; i < rpm.size(); ++i) {
            const auto& fan = plant.fans[i];
            EXPECT_NEAR(rpm[i], fan.minRPM + level * (fan.maxRPM - fan.minRPM), 0.01) << level;
        }
        const std::vector<double> duties = mix.duties(rpm);
        for (double duty : duties) EXPECT_NEAR(duty, level, 1e-5);
    }
}

TEST(QuietestMix, GivesEachSinkWhatItsLevelAsksAndNoFanMoreThanItNeeds) {
    const sim::PlantConfig plant = desktopCoolerGpuCase().plant;
    QuietestMix mix = quietestMixFor(plant);
    // The CPU loaded, the GPU idle: the card's loud fans stay at their minimum.
    const std::vector<double> cpuOnly = mix.speeds(0.6, 0);
    EXPECT_GE(airflow(plant, sim::Die::cpu, cpuOnly), need(plant, sim::Die::cpu, 0.6) - 1e-9);
    EXPECT_NEAR(cpuOnly[1], plant.fans[1].minRPM, 1e-6);
    EXPECT_GT(cpuOnly[0], plant.fans[0].minRPM + 100);
    // The GPU loaded: the quiet case fans, which help the card's sink too, rise before its own.
    const std::vector<double> gpuOnly = mix.speeds(0, 0.4);
    EXPECT_GE(airflow(plant, sim::Die::gpu, gpuOnly), need(plant, sim::Die::gpu, 0.4) - 1e-9);
    const auto fraction = [&](const std::vector<double>& rpm, std::size_t fan) {
        return (rpm[fan] - plant.fans[fan].minRPM) /
               (plant.fans[fan].maxRPM - plant.fans[fan].minRPM);
    };
    EXPECT_GT(fraction(gpuOnly, 2), fraction(gpuOnly, 1));
    // Both at full: every fan at full speed; both at nothing: every fan at its minimum. Levels
    // out of range are clamped, and one that is not a number asks for nothing.
    EXPECT_EQ(mix.speeds(1, 1), at(plant, true));
    EXPECT_EQ(mix.speeds(0, 0), at(plant, false));
    EXPECT_EQ(mix.speeds(7, 1.5), at(plant, true));
    EXPECT_EQ(mix.speeds(std::nan(""), -3), at(plant, false));
}

// No feasible change of the mix is quieter: nudging fans up and down, keeping both sinks' air,
// never lowers the sound power.
TEST(QuietestMix, NoNearbyMixThatKeepsBothSinksIsQuieter) {
    for (const MachineProfile& machine :
         {desktopCoolerGpuCase(), laptopTwoBlowers(), desktopUnequalFans()}) {
        SCOPED_TRACE(machine.name);
        const sim::PlantConfig& plant = machine.plant;
        QuietestMix mix = quietestMixFor(plant);
        std::mt19937 random(7);
        std::uniform_real_distribution<double> level(0, 1);
        std::normal_distribution<double> nudge(0, 40);
        for (int trial = 0; trial < 40; ++trial) {
            const double cpu = level(random);
            const double gpu = level(random);
            const std::vector<double> best = mix.speeds(cpu, gpu);
            const double power = fanSoundPower(plant, best);
            for (int tries = 0; tries < 200; ++tries) {
                std::vector<double> other = best;
                for (std::size_t i = 0; i < other.size(); ++i)
                    other[i] = std::clamp(other[i] + nudge(random), plant.fans[i].minRPM,
                                          plant.fans[i].maxRPM);
                if (airflow(plant, sim::Die::cpu, other) < need(plant, sim::Die::cpu, cpu) ||
                    airflow(plant, sim::Die::gpu, other) < need(plant, sim::Die::gpu, gpu))
                    continue;
                EXPECT_GE(fanSoundPower(plant, other), power * (1 - 1e-6)) << cpu << " " << gpu;
            }
        }
    }
}

TEST(QuietestMix, FansThatCanStopStandStillWhereTheOthersSuffice) {
    const sim::PlantConfig plant = desktopFanStop().plant;
    QuietestMix mix = quietestMixFor(plant);
    EXPECT_EQ(mix.lowestLevel(), -1);
    const std::vector<double> still = mix.speeds(-1, -1);
    for (double rpm : still) EXPECT_EQ(rpm, kFanStopRPM);
    EXPECT_EQ(mix.duties(still), std::vector<double>(plant.fans.size(), -1));
    // Half the air of every fan at its minimum: some fans stand still, the rest turn.
    const std::vector<double> half = mix.speeds(-0.5, -0.5);
    const auto stopped = std::count(half.begin(), half.end(), kFanStopRPM);
    EXPECT_GT(stopped, 0);
    EXPECT_LT(stopped, static_cast<long>(plant.fans.size()));
    EXPECT_GE(airflow(plant, sim::Die::cpu, half), need(plant, sim::Die::cpu, 0) / 2 - 1e-9);
    // A machine whose fans cannot stop never goes under its minimum.
    EXPECT_EQ(quietestMixFor(simulatedDefault().plant).speeds(-1, -1),
              at(simulatedDefault().plant, false));
}
