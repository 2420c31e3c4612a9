#include <gtest/gtest.h>

#include "dashboard/MergedThrottleSpans.h"

using namespace kelvo;

using Spans = std::vector<ClockWindowThrottleSpan>;

TEST(MergedThrottleSpans, TouchingSpansMergeAndSeparateOnesStayApart) {
    GPUClockWindowAnalysis gpu;
    CPUClockWindowAnalysis cpu;
    cpu.throttleSpans = {{10, 20}};
    gpu.throttleSpans = {{20, 25}};
    EXPECT_EQ(mergedThrottleSpans(gpu, cpu, {}), (Spans{{10, 25}}));
    gpu.throttleSpans = {{21, 25}};
    EXPECT_EQ(mergedThrottleSpans(gpu, cpu, {}), (Spans{{10, 20}, {21, 25}}));
}

TEST(MergedThrottleSpans, AllThreeSourcesAreSortedAndOverlapsMerged) {
    GPUClockWindowAnalysis gpu;
    CPUClockWindowAnalysis cpu;
    gpu.throttleSpans = {{50, 60}, {5, 8}};
    cpu.throttleSpans = {{12, 14}, {55, 58}};
    const Spans warnings = {{7, 12}, {30, 31}};
    EXPECT_EQ(mergedThrottleSpans(gpu, cpu, warnings), (Spans{{5, 14}, {30, 31}, {50, 60}}));
}

TEST(MergedThrottleSpans, ASpanInsideAnotherKeepsTheOuterEnd) {
    GPUClockWindowAnalysis gpu;
    gpu.throttleSpans = {{0, 100}};
    const Spans warnings = {{10, 20}, {100, 101}};
    EXPECT_EQ(mergedThrottleSpans(gpu, {}, warnings), (Spans{{0, 101}}));
}

TEST(MergedThrottleSpans, NoSpansGiveNoSpans) {
    EXPECT_TRUE(mergedThrottleSpans({}, {}, {}).empty());
}
