#include <gtest/gtest.h>

#include "foundation/telemetry/CpuSampler.h"
#include "tests/foundation/SamplerTestTrees.h"

namespace kelvo {
namespace {

using test_support::procStat;
using test_support::sysfsTree;
using test_support::TreeCopy;

TEST(SamplerCpu, FirstSampleOnEachTreeAveragesEveryCoreWithoutUtilisation) {
    struct Expected {
        const char* tree;
        double clockMHz;
        double maxClockMHz;
    };
    for (const Expected& expected :
         {Expected{"intel-laptop", 3100, 4700}, Expected{"amd-desktop", 3650, 4650},
          Expected{"no-fans", 2000, 3000}}) {
        SCOPED_TRACE(expected.tree);
        CpuSampler sampler(sysfsTree(expected.tree).string());
        const CpuReading reading = sampler.sample();
        EXPECT_FALSE(reading.utilizationPct.has_value());
        EXPECT_EQ(reading.clockMHz, expected.clockMHz);
        EXPECT_EQ(reading.maxClockMHz, expected.maxClockMHz);
    }
}

TEST(SamplerCpu, UtilisationIsTheBusyShareOfTheAggregateLineBetweenSamples) {
    TreeCopy tree("intel-laptop");
    CpuSampler sampler(tree.rootString());
    tree.write("proc/stat", procStat({{100, 0, 900}, {100, 0, 900}, {0, 0, 0}, {0, 0, 0}}));
    sampler.sample();
    // +300 user, +100 system, +600 idle over all CPUs: 40 % busy.
    tree.write("proc/stat", procStat({{250, 50, 1200}, {250, 50, 1200}, {0, 0, 0}, {0, 0, 0}}));
    EXPECT_EQ(sampler.sample().utilizationPct, 40.0);
    // Counters that did not move say nothing about the interval.
    EXPECT_FALSE(sampler.sample().utilizationPct.has_value());
}

TEST(SamplerCpu, IowaitCountsAsIdle) {
    TreeCopy tree("amd-desktop");
    CpuSampler sampler(tree.rootString());
    sampler.sample();  // the tree's own counters
    // +200 user, +300 idle, +500 iowait: 20 % busy.
    tree.write("proc/stat",
               "cpu  60200 0 12000 300300 2500 0 800 0 0 0\n"
               "cpu0 18200 0 3500 72300 1000 0 200 0 0 0\n");
    EXPECT_EQ(sampler.sample().utilizationPct, 20.0);
}

TEST(SamplerCpu, ClockFollowsTheBusiestClusterOfAHybridPart) {
    TreeCopy tree("intel-laptop");  // cpu0-1 rated 4.7 GHz, cpu2-3 rated 3.5 GHz
    CpuSampler sampler(tree.rootString());
    tree.write("proc/stat", procStat({{0, 0, 0}, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}}));
    EXPECT_EQ(sampler.sample().clockMHz, 3100);  // no per-core load yet: all cores

    // Efficiency cores 80 % busy, performance cores 10 %.
    tree.write("proc/stat", procStat({{10, 0, 90}, {10, 0, 90}, {80, 0, 20}, {70, 10, 20}}));
    EXPECT_EQ(sampler.sample().clockMHz, 2200);  // mean of 2.1 and 2.3 GHz

    // Now the performance cores carry the load.
    tree.write("proc/stat", procStat({{100, 0, 90}, {90, 10, 90}, {80, 0, 120}, {80, 10, 110}}));
    EXPECT_EQ(sampler.sample().clockMHz, 4000);  // mean of 3.9 and 4.1 GHz
}

TEST(SamplerCpu, EquallyBusyClustersPreferTheFasterOne) {
    TreeCopy tree("intel-laptop");
    CpuSampler sampler(tree.rootString());
    tree.write("proc/stat", procStat({{0, 0, 0}, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}}));
    sampler.sample();
    tree.write("proc/stat", procStat({{50, 0, 50}, {50, 0, 50}, {50, 0, 50}, {50, 0, 50}}));
    EXPECT_EQ(sampler.sample().clockMHz, 4000);
}

TEST(SamplerCpu, OneClusterAveragesEveryCoreWhateverTheLoad) {
    TreeCopy tree("amd-desktop");  // every core rated 4.65 GHz
    CpuSampler sampler(tree.rootString());
    tree.write("proc/stat", procStat({{0, 0, 0}, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}}));
    sampler.sample();
    tree.write("proc/stat", procStat({{0, 0, 100}, {0, 0, 100}, {100, 0, 0}, {0, 0, 100}}));
    const CpuReading reading = sampler.sample();
    EXPECT_EQ(reading.utilizationPct, 25.0);
    EXPECT_EQ(reading.clockMHz, 3650);
}

TEST(SamplerCpu, ClustersWithoutPerCoreCountersFallBackToAllCores) {
    TreeCopy tree("intel-laptop");
    CpuSampler sampler(tree.rootString());
    tree.write("proc/stat", "cpu  100 0 0 100 0 0 0 0 0 0");
    sampler.sample();
    tree.write("proc/stat", "cpu  200 0 0 200 0 0 0 0 0 0");
    const CpuReading reading = sampler.sample();
    EXPECT_EQ(reading.utilizationPct, 50.0);
    EXPECT_EQ(reading.clockMHz, 3100);
}

TEST(SamplerCpu, CoreWithoutCurrentFrequencyIsLeftOut) {
    TreeCopy tree("amd-desktop");
    tree.remove("sys/devices/system/cpu/cpu3/cpufreq/scaling_cur_freq");  // 2.9 GHz
    tree.remove("sys/devices/system/cpu/cpu2/cpufreq/cpuinfo_max_freq");
    const CpuReading reading = CpuSampler(tree.rootString()).sample();
    EXPECT_EQ(reading.clockMHz, (3600 + 3700 + 4400) / 3.0);
    EXPECT_EQ(reading.maxClockMHz, 4650);
}

TEST(SamplerCpu, MissingEverythingIsAbsent) {
    TreeCopy tree("no-fans");
    std::filesystem::remove_all(tree.root() / "sys");
    std::filesystem::remove_all(tree.root() / "proc");
    for (const std::string& root : {tree.rootString(), tree.rootString() + "/nowhere"}) {
        CpuSampler sampler(root);
        sampler.sample();
        EXPECT_EQ(sampler.sample(), CpuReading{});
    }
}

}  // namespace
}  // namespace kelvo
