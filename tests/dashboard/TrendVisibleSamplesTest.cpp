#include <gtest/gtest.h>

#include "DashboardTestSamples.h"
#include "dashboard/TrendVisibleSamples.h"

using namespace kelvo;
using test::loadedSample;

namespace {
std::vector<TelemetrySample> at(std::initializer_list<Timestamp> times) {
    std::vector<TelemetrySample> samples;
    for (Timestamp t : times) samples.push_back(loadedSample(t));
    return samples;
}
}  // namespace

TEST(TrendVisibleSamples, SamplesNewerThanTheUpperBoundAreExcludedAndTheOneBeforeTheLowerIsKept) {
    const auto samples = at({90, 95, 100, 105, 110, 110.001, 115});
    const auto visible = trendVisibleSamples(samples, 100, 110);
    ASSERT_EQ(visible.size(), 4u);
    EXPECT_EQ(visible.front().timestamp, 95);  // just before the lower bound
    EXPECT_EQ(visible.back().timestamp, 110);  // at the upper bound: still in
    EXPECT_EQ(visible.data(), samples.data() + 1);
    // Between samples, the lower bound still pulls in the one before it.
    const auto between = trendVisibleSamples(samples, 101, 109);
    ASSERT_EQ(between.size(), 2u);
    EXPECT_EQ(between.front().timestamp, 100);
    EXPECT_EQ(between.back().timestamp, 105);
}

TEST(TrendVisibleSamples, TheWholeHistoryInRangeIsTheInputItself) {
    const auto samples = at({90, 95, 100});
    const std::span<const TelemetrySample> input(samples);
    const auto visible = trendVisibleSamples(input, 90, 100);
    EXPECT_EQ(visible.data(), input.data());
    EXPECT_EQ(visible.size(), input.size());
    const auto wider = trendVisibleSamples(input, -1e9, 1e9);
    EXPECT_EQ(wider.data(), input.data());
    EXPECT_EQ(wider.size(), input.size());
}

TEST(TrendVisibleSamples, NothingAtOrBeforeTheUpperBoundGivesNothing) {
    const auto samples = at({90, 95, 100});
    EXPECT_TRUE(trendVisibleSamples(samples, 0, 89.9).empty());
    EXPECT_TRUE(trendVisibleSamples({}, 0, 100).empty());
    // Everything before the lower bound: only the line's entry point remains.
    const auto old = trendVisibleSamples(samples, 200, 300);
    ASSERT_EQ(old.size(), 1u);
    EXPECT_EQ(old.front().timestamp, 100);
}

TEST(TrendVisibleSamples, FirstIndexIsTheLowestAtOrAfterTheDate) {
    const auto samples = at({90, 95, 100, 105});
    EXPECT_EQ(firstTrendSampleIndex(95, samples), 1u);
    EXPECT_EQ(firstTrendSampleIndex(96, samples), 2u);
    EXPECT_EQ(firstTrendSampleIndex(0, samples), 0u);
    EXPECT_EQ(firstTrendSampleIndex(106, samples), 4u);
    EXPECT_EQ(firstTrendSampleIndex(1, {}), 0u);
}
