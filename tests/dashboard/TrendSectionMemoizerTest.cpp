#include <gtest/gtest.h>

#include "dashboard/TrendSectionMemoizer.h"

using namespace kelvo;

namespace {
// A computation that says how often it ran and tags its value with the run number.
struct CountingComputation {
    int runs = 0;
    TrendSectionComputationValue operator()() {
        TrendSectionComputationValue value;
        value.fanScaleMaxRPM = ++runs;
        return value;
    }
};
}  // namespace

TEST(TrendSectionMemoizer, StartsEmpty) {
    TrendSectionMemoizer memo;
    EXPECT_FALSE(memo.cachedKey());
    EXPECT_FALSE(memo.cachedValue());
    EXPECT_EQ(memo.computationCount(), 0u);
}

TEST(TrendSectionMemoizer, RecomputesExactlyOncePerKeyChangeAndNeverOtherwise) {
    TrendSectionMemoizer memo;
    CountingComputation compute;
    TrendSectionComputationKey key;
    auto resolve = [&] { return memo.value(key, std::ref(compute)).fanScaleMaxRPM; };
    EXPECT_EQ(resolve(), 1);
    EXPECT_EQ(resolve(), 1);
    EXPECT_EQ(compute.runs, 1);

    auto runsAfter = [&](auto change) {
        const int before = compute.runs;
        change(key);
        resolve();
        resolve();
        resolve();
        EXPECT_EQ(memo.cachedKey(), key);
        EXPECT_EQ(memo.cachedValue()->fanScaleMaxRPM, compute.runs);
        return compute.runs - before;
    };
    EXPECT_EQ(runsAfter([](auto& k) { ++k.trendRevision; }), 1);
    EXPECT_EQ(runsAfter([](auto& k) { k.trendWindowModeRawValue = "oneMinute"; }), 1);
    EXPECT_EQ(runsAfter([](auto& k) { k.showGPUSeries = false; }), 1);
    EXPECT_EQ(runsAfter([](auto& k) { k.showCPUSeries = false; }), 1);
    EXPECT_EQ(runsAfter([](auto& k) { k.showFanSeries = false; }), 1);
    EXPECT_EQ(runsAfter([](auto& k) { k.showPowerSeries = false; }), 1);
    EXPECT_EQ(runsAfter([](auto& k) { k.runtimeModeRawValue = "quiet"; }), 1);
    EXPECT_EQ(runsAfter([](auto& k) { k.gpuClockWindowAnalysisConfig.referenceClockMHz = 1800; }),
              1);
    EXPECT_EQ(runsAfter([](auto& k) { k.gpuClockWindowAnalysisConfig.highLoadPowerW = 30; }), 1);
    EXPECT_EQ(runsAfter([](auto&) {}), 0);
    // Going back to an earlier key is a change too: only the last value is kept.
    EXPECT_EQ(runsAfter([](auto& k) { k = TrendSectionComputationKey{}; }), 1);
    EXPECT_EQ(memo.computationCount(), static_cast<std::uint64_t>(compute.runs));
}
