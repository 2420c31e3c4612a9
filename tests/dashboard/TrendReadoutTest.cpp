#include <gtest/gtest.h>

#include <cmath>

#include "DashboardTestSamples.h"
#include "dashboard/TrendReadout.h"
#include "foundation/core/FanController.h"

using namespace kelvo;
using test::loadedSample;

namespace {

std::vector<TelemetrySample> threeSamples() {
    std::vector<TelemetrySample> samples = {loadedSample(100), loadedSample(101),
                                            loadedSample(102)};
    samples[1].cpuTemperatureC = 71.6;
    samples[1].cpuClockMHz = 3890;
    samples[2].cpuTemperatureC = 80;
    return samples;
}

}  // namespace

TEST(TrendReadout, ThePointerReadsTheNearestSampleInEachSeriesOwnUnit) {
    const auto samples = threeSamples();
    const auto readout = trendReadout(samples, 101.3, {});
    ASSERT_TRUE(readout);
    EXPECT_EQ(readout->sampleTime, 101);
    EXPECT_EQ(readout->timeText.size(), 8u);  // HH:MM:SS, local time
    const std::vector<TrendReadoutRow> expected = {
        {"GPU Clock", "1500 MHz"}, {"GPU Temp", "55 °C"},           {"CPU Clock", "3890 MHz"},
        {"CPU Temp", "72 °C"},     {"Fan Speed", "2000, 2200 RPM"}, {"Watts", "40.0 W"}};
    EXPECT_EQ(readout->rows, expected);
    EXPECT_EQ(trendReadout(samples, 101.6, {})->sampleTime, 102);
}

TEST(TrendReadout, HiddenSeriesAreLeftOutAndTheToggleOrderIsKept) {
    const auto samples = threeSamples();
    const auto readout = trendReadout(samples, 100, {false, true, false, true});
    ASSERT_TRUE(readout);
    ASSERT_EQ(readout->rows.size(), 3u);
    EXPECT_EQ(readout->rows[0].series, "CPU Clock");
    EXPECT_EQ(readout->rows[1].series, "CPU Temp");
    EXPECT_EQ(readout->rows[2].series, "Watts");
    EXPECT_TRUE(trendReadout(samples, 100, {false, false, false, false})->rows.empty());
}

TEST(TrendReadout, AValueThatWasNotReadSaysSoInsteadOfZero) {
    auto samples = threeSamples();
    samples[0].gpuTemperatureC.reset();
    samples[0].totalPowerW.reset();
    samples[0].fanCurrentRPM = {kUnreadableRPM, 0};
    const auto readout = trendReadout(samples, 100, {});
    ASSERT_TRUE(readout);
    EXPECT_EQ(readout->rows[1], (TrendReadoutRow{"GPU Temp", "not read"}));
    EXPECT_EQ(readout->rows[4], (TrendReadoutRow{"Fan Speed", "not read, 0 RPM"}));
    samples[0].fanCurrentRPM = {kUnreadableRPM};
    EXPECT_EQ(trendReadout(samples, 100, {})->rows[4], (TrendReadoutRow{"Fan Speed", "not read"}));
    EXPECT_EQ(readout->rows[5], (TrendReadoutRow{"Watts", "not read"}));
    samples[0].fanCurrentRPM = {1234};
    EXPECT_EQ(trendReadout(samples, 100, {})->rows[4], (TrendReadoutRow{"Fan Speed", "1234 RPM"}));
}

TEST(TrendReadout, AFanKelvoHoldsStillReadsStopped) {
    auto samples = threeSamples();
    samples[0].fanCurrentRPM = {0, 1500};
    samples[0].fanTargetRPM = {kFanStopRPM, 1500};
    EXPECT_EQ(trendReadout(samples, 100, {})->rows[4],
              (TrendReadoutRow{"Fan Speed", "stopped, 1500 RPM"}));
}

TEST(TrendReadout, NoReadoutFarFromEverySample) {
    const auto samples = threeSamples();
    EXPECT_FALSE(trendReadout(samples, 100 - kTrendReadoutMaxGapSeconds - 0.01, {}));
    EXPECT_FALSE(trendReadout(samples, 102 + kTrendReadoutMaxGapSeconds + 0.01, {}));
    EXPECT_TRUE(trendReadout(samples, 102 + kTrendReadoutMaxGapSeconds - 0.01, {}));
    EXPECT_FALSE(trendReadout({}, 100, {}));
    EXPECT_FALSE(trendReadout(samples, std::nan(""), {}));
}

TEST(TrendReadout, TheNearestSampleIsFoundOnBothSidesOfTheTime) {
    const auto samples = threeSamples();
    EXPECT_EQ(nearestTrendSampleIndex(samples, 99), 0u);
    EXPECT_EQ(nearestTrendSampleIndex(samples, 100.49), 0u);
    EXPECT_EQ(nearestTrendSampleIndex(samples, 100.51), 1u);
    EXPECT_EQ(nearestTrendSampleIndex(samples, 103), 2u);
}
