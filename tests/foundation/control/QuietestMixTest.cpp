// The quietest mix as the quiet modes use it: weights Kelvo measured, loudness it assumes.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "foundation/control/QuietestMix.h"

using namespace kelvo;

namespace {

QuietestMix::Fan fan(double lo, double hi, double cpu, double gpu) {
    QuietestMix::Fan f;
    f.lo = lo;
    f.hi = hi;
    f.weight[0] = cpu;
    f.weight[1] = gpu;
    f.cost = std::pow(1.0 / hi, 5.0);
    return f;
}

}  // namespace

TEST(QuietestMixFans, EachDieGetsWhatItsLevelAsksFromTheFansThatCoolIt) {
    QuietestMix mix({fan(2000, 6000, 1.0, 0.1), fan(2000, 6000, 0.1, 1.0)});
    // Only the CPU asks: its fan does most of it; the other, which helps the CPU a tenth as
    // much, barely leaves its lowest (a little of it is cheaper than the last of the first).
    auto duties = mix.duties(mix.speeds(0.5, 0));
    ASSERT_EQ(duties.size(), 2u);
    EXPECT_GT(duties[0], 0.4);
    EXPECT_LT(duties[1], 0.1);
    // The CPU's air: at least what every fan at half its range would give it.
    const auto rpm = mix.speeds(0.5, 0);
    EXPECT_GE(1.0 * rpm[0] + 0.1 * rpm[1], (1.0 + 0.1) * 4000 - 1e-6);
    // Both at the top: every fan at its maximum.
    duties = mix.duties(mix.speeds(1, 1));
    EXPECT_NEAR(duties[0], 1, 1e-9);
    EXPECT_NEAR(duties[1], 1, 1e-9);
}

TEST(QuietestMixFans, EqualFansRunAsOneDutyAndNothingAskedIsTheirLowest) {
    QuietestMix mix({fan(1200, 5400, 0.5, 0.5), fan(1200, 5400, 0.5, 0.5)});
    for (double level : {0.0, 0.3, 0.8}) {
        const auto duties = mix.duties(mix.speeds(level, level / 2));
        EXPECT_NEAR(duties[0], level, 1e-6) << level;
        EXPECT_NEAR(duties[1], level, 1e-6) << level;
    }
    const double none = std::numeric_limits<double>::quiet_NaN();
    const auto idle = mix.duties(mix.speeds(none, none));
    EXPECT_NEAR(idle[0], 0, 1e-9);
    EXPECT_NEAR(idle[1], 0, 1e-9);
}

TEST(QuietestMixFans, MeasurementsThatAreNotNumbersOrNegativeCountAsNoCooling) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    QuietestMix mix({fan(1000, 3000, 1.0, 1.0), fan(1000, 3000, nan, -2.0)});
    // The second fan cools nothing as far as the mix knows: it stays at its lowest.
    const auto duties = mix.duties(mix.speeds(0.7, 0.7));
    EXPECT_GT(duties[0], 0.5);
    EXPECT_NEAR(duties[1], 0, 1e-9);
    for (double d : duties) EXPECT_TRUE(std::isfinite(d));
}

TEST(QuietestMixFans, TheLevelASinkGetsIsWhatItWouldAskForTheSameDuties) {
    QuietestMix mix(
        {fan(600, 1800, 1.0, 0.1), fan(900, 2400, 0.05, 1.0), fan(400, 1500, 0.3, 0.4)});
    // One duty for every fan is that duty's level, for either die.
    for (double duty : {0.0, 0.25, 0.6, 1.0})
        for (int die : {0, 1})
            EXPECT_NEAR(mix.levelAt(die, {duty, duty, duty}), duty, 1e-9) << duty << " " << die;
    // What a mix's speeds give the die that asked is what it asked; the other gets at least its
    // own.
    const auto duties = mix.duties(mix.speeds(0.45, 0.1));
    EXPECT_NEAR(mix.levelAt(0, duties), 0.45, 1e-6);
    EXPECT_GE(mix.levelAt(1, duties), 0.1 - 1e-6);
    // The CPU's fan alone faster gives the CPU more and the GPU almost nothing more.
    EXPECT_GT(mix.levelAt(0, {0.5, 0, 0}), 0.35);
    EXPECT_LT(mix.levelAt(1, {0.5, 0, 0}), 0.05);
}

TEST(QuietestMixFans, FansStandingStillGiveALevelUnderTheirLowest) {
    QuietestMix::Fan stops = fan(500, 1500, 1.0, 1.0);
    stops.canStop = true;
    QuietestMix mix({stops, fan(500, 1500, 1.0, 1.0)});
    // One of two alike fans standing still, the other at its lowest: half the air of both at
    // their lowest, level -0.5; both still is -1.
    EXPECT_NEAR(mix.levelAt(0, {-1, 0}), -0.5, 1e-9);
    EXPECT_NEAR(mix.levelAt(1, {-1, -1}), -1, 1e-9);
    EXPECT_NEAR(mix.levelAt(0, {0, 0}), 0, 1e-9);
}
