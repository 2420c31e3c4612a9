#include <gtest/gtest.h>

#include <sstream>

#include "CouplingReport.h"

using namespace kelvo;
using namespace kelvo::quality;

namespace {
// Two fans: the first cools only the CPU, the second only the GPU.
sim::PlantConfig twoBlowers() {
    sim::PlantConfig plant;
    plant.fans.resize(2);
    plant.fans[0].name = "CPU blower";
    plant.fans[0].cpuCooling = 1;
    plant.fans[0].gpuCooling = 0;
    plant.fans[1].name = "GPU blower";
    plant.fans[1].cpuCooling = 0;
    plant.fans[1].gpuCooling = 1;
    return plant;
}

// A run that learned the first fan's CPU share `off` away from the file's (every other share in
// step with it, as shares of one die sum to one); none learned at all with `unknown`.
SeededRow run(std::uint64_t seed, const std::string& machine, const std::string& trace, double off,
              bool unknown = false) {
    SeededRow out{seed, {machine, "quiet", trace, twoBlowers(), {}}};
    FanCoupling cpu;
    cpu.identity = "CPU blower";
    FanCoupling gpu;
    gpu.identity = "GPU blower";
    if (!unknown) {
        cpu.cpuShare = 1 - off;
        gpu.cpuShare = off;
        cpu.gpuShare = 0;
        gpu.gpuShare = 1;
    }
    out.row.learned = {cpu, gpu};
    return out;
}
}  // namespace

TEST(CouplingReport, ASummaryOverSeedsCountsTheSeedsWithinTheLineAndNamesTheWorst) {
    const std::vector<SeededRow> runs{
        run(1, "laptop", "mixed-use-30min", 0.05), run(1, "laptop", "mixed-use-60min", 0.01),
        run(2, "laptop", "mixed-use-30min", 0.2),  run(2, "laptop", "mixed-use-60min", 0.02),
        run(3, "laptop", "mixed-use-30min", 0.35), run(3, "laptop", "mixed-use-60min", 0.0, true),
    };
    const auto summaries = summarizeLearning(runs, 0.2);
    ASSERT_EQ(summaries.size(), 2u);

    const LearningSummary& half = summaries[0];
    EXPECT_EQ(half.machine, "laptop");
    EXPECT_EQ(half.trace, "mixed-use-30min");
    EXPECT_EQ(half.seeds, 3);
    EXPECT_EQ(half.within, 2);  // 0.2 itself is within the line
    EXPECT_EQ(half.unknown, 0);
    EXPECT_NEAR(half.meanGap, (0.05 + 0.2 + 0.35) / 3, 1e-9);
    EXPECT_NEAR(half.worstGap, 0.35, 1e-9);
    EXPECT_EQ(half.worstSeed, 3u);

    // A seed where a share is still unknown counts as a gap of 1, and is named.
    const LearningSummary& hour = summaries[1];
    EXPECT_EQ(hour.seeds, 3);
    EXPECT_EQ(hour.within, 2);
    EXPECT_EQ(hour.unknown, 1);
    EXPECT_NEAR(hour.meanGap, (0.01 + 0.02 + 1.0) / 3, 1e-9);
    EXPECT_EQ(hour.worstSeed, 3u);

    std::ostringstream text;
    printLearningSummary(text, summaries, 0.2);
    EXPECT_NE(text.str().find("within 0.20:   2 of   3  worst  0.35 (seed 3)"), std::string::npos)
        << text.str();
    EXPECT_NE(text.str().find("unknown on 1"), std::string::npos) << text.str();
}
