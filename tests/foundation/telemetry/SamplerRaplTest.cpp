#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "foundation/telemetry/RaplSampler.h"
#include "tests/foundation/SamplerTestTrees.h"

namespace kelvo {
namespace {

using test_support::sysfsTree;
using test_support::TreeCopy;

constexpr const char* kPackage = "sys/class/powercap/intel-rapl:0/energy_uj";
constexpr const char* kCore = "sys/class/powercap/intel-rapl:0:0/energy_uj";
constexpr const char* kDram = "sys/class/powercap/intel-rapl:0:2/energy_uj";
constexpr const char* kPsys = "sys/class/powercap/intel-rapl:1/energy_uj";
constexpr std::uint64_t kRange = 262143328850;  // the laptop's max_energy_range_uj

TEST(SamplerRapl, FirstSampleHasNoPower) {
    for (const char* name : {"intel-laptop", "amd-desktop", "no-fans"}) {
        SCOPED_TRACE(name);
        RaplSampler sampler(sysfsTree(name).string());
        EXPECT_FALSE(sampler.sample(100).has_value());
    }
}

TEST(SamplerRapl, PowerIsThePackageAndDramEnergyOverTime) {
    TreeCopy tree("intel-laptop");
    RaplSampler sampler(tree.rootString());
    ASSERT_FALSE(sampler.sample(100).has_value());
    tree.write(kPackage, 51234567890 + 15'000'000);
    tree.write(kDram, 3500000000 + 1'000'000);
    // Core is part of the package and psys covers the whole platform: neither adds.
    tree.write(kCore, 20000000000 + 10'000'000);
    tree.write(kPsys, 99000000000 + 50'000'000);
    EXPECT_EQ(sampler.sample(102), 8.0);  // 16 J in 2 s
}

TEST(SamplerRapl, AmdPackageAloneGivesPower) {
    TreeCopy tree("amd-desktop");
    RaplSampler sampler(tree.rootString());
    sampler.sample(10);
    tree.write(kPackage, 9876543210 + 45'500'000);
    EXPECT_EQ(sampler.sample(11), 45.5);
}

TEST(SamplerRapl, WrappedCounterIsUnwrappedWithItsRange) {
    TreeCopy tree("intel-laptop");
    RaplSampler sampler(tree.rootString());
    tree.write(kPackage, kRange - 1'000'000);
    sampler.sample(50);
    tree.write(kPackage, 2'000'000);
    EXPECT_EQ(sampler.sample(51), 3.0);  // 1 J to the top, 2 J after it; dram unchanged
}

TEST(SamplerRapl, WrapWithoutAReadableRangeGivesNoPower) {
    TreeCopy tree("amd-desktop");
    RaplSampler sampler(tree.rootString());
    sampler.sample(50);
    tree.write(kPackage, 1000);
    tree.remove("sys/class/powercap/intel-rapl:0/max_energy_range_uj");
    EXPECT_FALSE(sampler.sample(51).has_value());
    // The new reading is the next baseline.
    tree.write(kPackage, 1000 + 7'000'000);
    EXPECT_EQ(sampler.sample(53), 3.5);
}

TEST(SamplerRapl, TimeThatDidNotAdvanceGivesNoPower) {
    TreeCopy tree("amd-desktop");
    RaplSampler sampler(tree.rootString());
    sampler.sample(50);
    tree.write(kPackage, 9876543210 + 1'000'000);
    EXPECT_FALSE(sampler.sample(50).has_value());
}

TEST(SamplerRapl, UnreadableCountersAreReadThroughThePrivilegedReader) {
    TreeCopy tree("intel-laptop");
    tree.replaceWithDirectory(kPackage);
    tree.replaceWithDirectory(kDram);
    std::map<std::string, std::uint64_t> counters = {
        {"/sys/class/powercap/intel-rapl:0/energy_uj", 1'000'000'000},
        {"/sys/class/powercap/intel-rapl:0:2/energy_uj", 200'000'000}};
    std::vector<std::string> asked;
    RaplSampler sampler(tree.rootString(),
                        [&](const std::string& path) -> std::optional<std::uint64_t> {
                            asked.push_back(path);
                            const auto found = counters.find(path);
                            if (found == counters.end()) return std::nullopt;
                            return found->second;
                        });
    EXPECT_FALSE(sampler.sample(10).has_value());
    std::sort(asked.begin(), asked.end());
    EXPECT_EQ(asked, (std::vector<std::string>{"/sys/class/powercap/intel-rapl:0/energy_uj",
                                               "/sys/class/powercap/intel-rapl:0:2/energy_uj"}));
    counters["/sys/class/powercap/intel-rapl:0/energy_uj"] += 20'000'000;
    counters["/sys/class/powercap/intel-rapl:0:2/energy_uj"] += 4'000'000;
    EXPECT_EQ(sampler.sample(14), 6.0);
}

TEST(SamplerRapl, UnreadableCountersWithoutAReaderGiveNoPower) {
    TreeCopy tree("intel-laptop");
    tree.replaceWithDirectory(kPackage);
    RaplSampler sampler(tree.rootString());
    sampler.sample(1);
    tree.write(kDram, 3500000000 + 9'000'000);
    EXPECT_FALSE(sampler.sample(2).has_value());  // dram alone is not the machine's power

    RaplSampler refused(tree.rootString(),
                        [](const std::string&) -> std::optional<std::uint64_t> { return {}; });
    refused.sample(1);
    EXPECT_FALSE(refused.sample(2).has_value());
}

TEST(SamplerRapl, LongTermLimitOfThePackages) {
    EXPECT_EQ(RaplSampler(sysfsTree("intel-laptop").string()).packageLongTermLimitW(), 28.0);
    EXPECT_FALSE(RaplSampler(sysfsTree("amd-desktop").string()).packageLongTermLimitW());
    EXPECT_FALSE(RaplSampler(sysfsTree("no-fans").string()).packageLongTermLimitW());

    // The long-term constraint is found by name, wherever it sits.
    TreeCopy tree("intel-laptop");
    tree.write("sys/class/powercap/intel-rapl:0/constraint_0_name", "short_term");
    tree.write("sys/class/powercap/intel-rapl:0/constraint_1_name", "long_term");
    EXPECT_EQ(RaplSampler(tree.rootString()).packageLongTermLimitW(), 64.0);
}

}  // namespace
}  // namespace kelvo
