#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "QualityMetrics.h"
#include "SoundLevel.h"

using namespace kelvo::quality;

namespace {

kelvo::sim::PlantConfig plant() {
    kelvo::sim::PlantConfig config;
    config.cpuMaxClockMHz = 4000;
    config.gpuMaxClockMHz = 2000;
    return config;
}

kelvo::sim::PlantState state(double cpuC, double gpuC, double rpm, double cpuMHz = 4000,
                             double gpuMHz = 2000) {
    kelvo::sim::PlantState s;
    s.cpuTemperatureC = cpuC;
    s.gpuTemperatureC = gpuC;
    s.cpuClockMHz = cpuMHz;
    s.gpuClockMHz = gpuMHz;
    s.fanCurrentRPM = {rpm, rpm};
    return s;
}

}  // namespace

TEST(QualityMetrics, OneJumpFollowedOverSeveralSecondsIsOneAudibleChange) {
    QualityMetrics metrics(plant());
    // Up from 1200 to 2100 rpm over three seconds (+10.6 dB): one change, however many seconds
    // the fans take. Six seconds steady settle it; the drop to 1700 rpm (-4.6 dB) is a second.
    const std::vector<double> speeds = {1200, 1200, 1700, 2000, 2100, 2100, 2100, 2100,
                                        2100, 2100, 2100, 1700, 1700, 1700, 1700, 1700};
    for (double rpm : speeds) metrics.add(state(60, 50, rpm), {0.1, 0.1}, 1.0);
    QualityRow row = metrics.result();
    EXPECT_DOUBLE_EQ(row.audibleChangesPerHour, 2 * 3600.0 / 16);
}

TEST(QualityMetrics, AChangeThatHasNotSettledIsNotCountedAgain) {
    QualityMetrics metrics(plant());
    // Up, and down again two seconds later: the fan never settled in between.
    for (double rpm : {1200.0, 1200.0, 2000.0, 2000.0, 1200.0, 1200.0, 1200.0})
        metrics.add(state(60, 50, rpm), {0.1, 0.1}, 1.0);
    EXPECT_DOUBLE_EQ(metrics.result().audibleChangesPerHour, 3600.0 / 7);
}

TEST(QualityMetrics, ARampUnderThreeDecibelsInFiveSecondsIsNotAnAudibleChange) {
    QualityMetrics metrics(plant());
    // One per cent a second: 1.1 dB in any five seconds, 8.5 dB over the forty.
    double rpm = 2000;
    for (int i = 0; i < 40; ++i, rpm *= 1.01) metrics.add(state(60, 50, rpm), {0.1, 0.1}, 1.0);
    EXPECT_DOUBLE_EQ(metrics.result().audibleChangesPerHour, 0.0);
}

TEST(QualityMetrics, TheQuietRampAddingThreeDecibelsInFiveSecondsIsAnAudibleChange) {
    // 120 rpm a second from 2000 rpm: 2600 rpm five seconds on, +5.7 dB in the fan's own level.
    QualityMetrics slow(plant());
    for (int i = 0; i < 10; ++i) slow.add(state(60, 50, 2000 + 120.0 * std::min(i, 5)), {}, 1.0);
    EXPECT_DOUBLE_EQ(slow.result().audibleChangesPerHour, 3600.0 / 10);
    // The same ramp from 5000 rpm adds 2.5 dB: not heard as a change.
    QualityMetrics fast(plant());
    for (int i = 0; i < 10; ++i) fast.add(state(60, 50, 5000 + 120.0 * std::min(i, 5)), {}, 1.0);
    EXPECT_DOUBLE_EQ(fast.result().audibleChangesPerHour, 0.0);
}

TEST(QualityMetrics, OneFanOfThreeChangingAloneIsAnAudibleChange) {
    kelvo::sim::PlantConfig config = plant();
    config.fans = {
        {"a", 300, 1500, 30, 1500}, {"b", 300, 1500, 30, 1500}, {"c", 300, 1500, 30, 1500}};
    QualityMetrics metrics(config);
    // The third fan goes from 800 to 1200 rpm (+8.8 dB); the mean speed moves by 133 rpm.
    for (int i = 0; i < 12; ++i) {
        auto s = state(60, 50, 800);
        s.fanCurrentRPM = {800, 800, i < 4 ? 800.0 : 1200.0};
        metrics.add(s, {0.1, 0.1}, 1.0);
    }
    EXPECT_DOUBLE_EQ(metrics.result().audibleChangesPerHour, 3600.0 / 12);
}

TEST(QualityMetrics, AFanStartingFromStandstillIsAnAudibleChange) {
    QualityMetrics metrics(plant());
    for (int i = 0; i < 8; ++i) metrics.add(state(60, 50, i < 3 ? 0 : 1200), {0.1, 0.1}, 1.0);
    EXPECT_DOUBLE_EQ(metrics.result().audibleChangesPerHour, 3600.0 / 8);
}

TEST(QualityMetrics, SustainedLoadIsTwoMinutesLoadedWithShortDipsAllowed) {
    auto sustained = [](const std::vector<std::pair<int, LoadLevel>>& segments) {
        QualityMetrics metrics(plant());
        for (const auto& [seconds, load] : segments)
            for (int i = 0; i < seconds; ++i) metrics.add(state(60, 50, 2000), load, 1.0);
        return metrics.result().sustainedLoad;
    };
    const LoadLevel busy{0.9, 0.1};
    const LoadLevel gpuBusy{0.2, 0.9};
    const LoadLevel light{0.2, 0.1};
    // A build with short link steps: one stretch of 2.5 minutes.
    std::vector<std::pair<int, LoadLevel>> build;
    for (int i = 0; i < 6; ++i) build.insert(build.end(), {{20, busy}, {5, light}});
    EXPECT_TRUE(sustained(build));
    // The GPU counts as much as the CPU.
    EXPECT_TRUE(sustained({{30, light}, {120, gpuBusy}, {30, light}}));
    // A dip longer than ten seconds breaks the stretch: two of a hundred seconds are not it.
    EXPECT_FALSE(sustained({{100, busy}, {11, light}, {100, busy}}));
    // Five-second bursts once a minute, for twenty minutes.
    std::vector<std::pair<int, LoadLevel>> call;
    for (int i = 0; i < 20; ++i) call.insert(call.end(), {{55, light}, {5, busy}});
    EXPECT_FALSE(sustained(call));
}

TEST(QualityMetrics, LightSecondsAreLightAroundThemAndNotCoolingDown) {
    kelvo::sim::PlantConfig config = plant();
    QualityMetrics metrics(config);
    // Ten minutes idle at 1200 rpm, ten loaded at 2400 rpm, two idle at 1800 rpm while the
    // heatsink cools: the light seconds are the idle ones further than about a minute from the
    // load, all at 1200 rpm; the two minutes after the load are not light.
    for (int i = 0; i < 600; ++i) metrics.add(state(60, 50, 1200), {0.05, 0.05}, 1.0);
    for (int i = 0; i < 600; ++i) metrics.add(state(80, 50, 2400), {0.9, 0.05}, 1.0);
    for (int i = 0; i < 120; ++i) metrics.add(state(70, 50, 1800), {0.05, 0.05}, 1.0);
    QualityRow row = metrics.result();
    EXPECT_GT(row.lightS, 480);
    EXPECT_LT(row.lightS, 600);
    EXPECT_NEAR(row.lightMeanDb, soundLevelDb(config, {1200, 1200}), 1e-9);
    EXPECT_GT(row.meanDb, row.lightMeanDb + 3);
    EXPECT_EQ(row.secondDb.size(), 1320u);
    EXPECT_NEAR(row.secondDb[1199], soundLevelDb(config, {2400, 2400}), 1e-9);
}

TEST(QualityMetrics, TemperaturesLimitsAndSpeedStatistics) {
    QualityMetrics metrics(plant());
    // Twenty seconds: the hotter die at 60..79 °C; the last two over the CPU's 88 °C limit.
    for (int i = 0; i < 18; ++i) metrics.add(state(60 + i, 50, 1000), {0.1, 0.1}, 1.0);
    metrics.add(state(90, 50, 3000), {0.1, 0.1}, 1.0);
    metrics.add(state(70, 86, 3000), {0.1, 0.1}, 1.0);
    QualityRow row = metrics.result();
    EXPECT_DOUBLE_EQ(row.peakC, 90);
    EXPECT_DOUBLE_EQ(row.p95C, 86);  // the 19th of 20 sorted
    EXPECT_DOUBLE_EQ(row.overLimitS, 2);
    EXPECT_DOUBLE_EQ(row.meanRPM, 1200);
    EXPECT_DOUBLE_EQ(row.rpmSD, 600);
}

TEST(QualityMetrics, RetentionCountsOnlyLoadedDevicesAndThrottlingCountsTime) {
    QualityMetrics metrics(plant());
    auto throttled = state(96, 50, 3000, 3000, 1000);
    throttled.cpuThrottling = true;
    metrics.add(throttled, {1.0, 0.1}, 1.0);                       // CPU loaded at 75 %, GPU idle
    metrics.add(state(70, 70, 3000), {1.0, 1.0}, 1.0);             // both loaded, both at 100 %
    metrics.add(state(70, 70, 3000, 1000, 500), {0.1, 0.1}, 1.0);  // idle: not counted
    QualityRow row = metrics.result();
    EXPECT_DOUBLE_EQ(row.retention, (0.75 + 1.0 + 1.0) / 3);
    EXPECT_DOUBLE_EQ(row.throttledS, 1);
}

TEST(SoundLevel, FanLawPerFanAndFansAddAsPower) {
    kelvo::sim::PlantConfig config;
    config.fans = {{"a", 1000, 4000, 40, 2000}, {"b", 1000, 4000, 40, 2000}};
    // One fan at its reference speed, the other stopped: the reference level.
    EXPECT_NEAR(soundLevelDb(config, {2000, 0}), 40.0, 1e-9);
    // Double the speed: 50·log10(2) = 15.05 dB more.
    EXPECT_NEAR(soundLevelDb(config, {4000, 0}), 55.05, 0.01);
    // Two equal fans: twice the power, 3.01 dB more than one.
    EXPECT_NEAR(soundLevelDb(config, {2000, 2000}), 43.01, 0.01);
    // A fan 10 dB quieter than the other adds 0.41 dB.
    EXPECT_NEAR(soundLevelDb(config, {2000, 2000 * std::pow(10.0, -10.0 / 50.0)}), 40.41, 0.01);
    // Under the threshold of hearing is 0 dB, not a negative level.
    EXPECT_DOUBLE_EQ(soundLevelDb(config, {100, 100}), 0.0);
}

TEST(SoundLevel, TheFansOwnPowerKeepsOrderingSpeedsUnderTheThreshold) {
    kelvo::sim::PlantConfig config;
    config.fans = {{"a", 100, 4000, 30, 2000}};
    // 30 dB at 2000 rpm: 1000 in power; a fifth of the speed is 5^5 times less.
    EXPECT_NEAR(fanSoundPower(config, {400}), 1000.0 / 3125, 1e-12);
    EXPECT_LT(fanSoundPower(config, {300}), fanSoundPower(config, {400}));
    EXPECT_DOUBLE_EQ(soundPower(config, {300}), 1.0);
    EXPECT_DOUBLE_EQ(soundPower(config, {2000}), fanSoundPower(config, {2000}));
}

TEST(QualityMetrics, MeanLevelIsTheEnergyMeanAndPeakTheLoudestSecond) {
    kelvo::sim::PlantConfig config = plant();
    config.fans = {{"a", 1000, 4000, 40, 2000}, {"b", 1000, 4000, 40, 2000}};
    QualityMetrics metrics(config);
    // Nine seconds at 43.0 dB and one at 58.1 dB (both fans at twice the reference speed).
    for (int i = 0; i < 9; ++i) metrics.add(state(60, 50, 2000), {0.1, 0.1}, 1.0);
    metrics.add(state(60, 50, 4000), {0.1, 0.1}, 1.0);
    QualityRow row = metrics.result();
    const double quiet = 2 * 1e4;
    const double loud = 2 * 1e4 * 32;
    EXPECT_NEAR(row.meanDb, 10 * std::log10((9 * quiet + loud) / 10), 1e-9);
    EXPECT_NEAR(row.peakDb, 10 * std::log10(loud), 1e-9);
    // The energy mean sits far above the plain mean of the levels (44.5 dB): loud seconds count.
    EXPECT_GT(row.meanDb, 49.0);
}

TEST(QualityMetrics, EachFansMeanSpeedAndLevelOnItsOwn) {
    kelvo::sim::PlantConfig config = plant();
    config.fans = {{"loud", 1000, 4000, 40, 4000}, {"quiet", 300, 800, 20, 800}};
    QualityMetrics metrics(config);
    // Ten seconds: the loud fan at 4000 rpm for two and at rest for eight; the quiet one at
    // 800 rpm throughout.
    for (int i = 0; i < 10; ++i) {
        kelvo::sim::PlantState s = state(50, 50, 0);
        s.fanCurrentRPM = {i < 2 ? 4000.0 : 0.0, 800.0};
        metrics.add(s, {0.1, 0.1}, 1.0);
    }
    const QualityRow row = metrics.result();
    EXPECT_EQ(row.fanNames, (std::vector<std::string>{"loud", "quiet"}));
    ASSERT_EQ(row.fanMeanRPM.size(), 2u);
    EXPECT_DOUBLE_EQ(row.fanMeanRPM[0], 800);
    EXPECT_DOUBLE_EQ(row.fanMeanRPM[1], 800);
    // The loud fan's energy mean: 40 dB for a fifth of the time is 40 + 10·log10(0.2).
    EXPECT_NEAR(row.fanMeanDb[0], 40 + 10 * std::log10(0.2), 1e-9);
    EXPECT_NEAR(row.fanMeanDb[1], 20, 1e-9);
}

// Only fans the same in everything but their names leave sharing nothing to gain.
TEST(QualityMetrics, FansAreAlikeOnlyWhenEachIsTheSameButForItsName) {
    auto alike = [](std::vector<kelvo::sim::FanConfig> fans) {
        kelvo::sim::PlantConfig config = plant();
        config.fans = std::move(fans);
        QualityMetrics metrics(config);
        kelvo::sim::PlantState s = state(50, 50, 0);
        s.fanCurrentRPM.assign(config.fans.size(), 1000.0);
        metrics.add(s, {0.1, 0.1}, 1.0);
        return metrics.result().fansAlike;
    };
    const kelvo::sim::FanConfig fan{"a", 300, 1500, 30, 1500};
    kelvo::sim::FanConfig twin = fan;
    twin.name = "b";
    EXPECT_TRUE(alike({fan, twin}));
    EXPECT_FALSE(alike({fan}));
    // The same loudness told at another speed is the same fan.
    kelvo::sim::FanConfig toldElsewhere = twin;
    toldElsewhere.soundRefRPM = 750;
    toldElsewhere.soundRefDb = 30 + 50 * std::log10(750.0 / 1500);
    EXPECT_TRUE(alike({fan, toldElsewhere}));
    kelvo::sim::FanConfig quieter = twin;
    quieter.soundRefDb = 29;
    EXPECT_FALSE(alike({fan, twin, quieter}));
    kelvo::sim::FanConfig faster = twin;
    faster.maxRPM = 1800;
    EXPECT_FALSE(alike({fan, faster}));
    kelvo::sim::FanConfig cooler = fan, card = twin;
    cooler.cpuCooling = 0.9;
    cooler.gpuCooling = 0.1;
    card.cpuCooling = 0.1;
    card.gpuCooling = 0.9;
    EXPECT_FALSE(alike({cooler, card}));
}
