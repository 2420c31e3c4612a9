// Cost of one full SystemTelemetryProvider::sample on each fake sysfs tree (every sampler:
// /proc/stat, cpufreq, hwmon and fans, thermal zones and throttle counters, RAPL, GPU).
#include <benchmark/benchmark.h>

#include <array>
#include <cstdlib>
#include <filesystem>

#include "foundation/telemetry/SystemTelemetryProvider.h"

namespace {

constexpr std::array<const char*, 3> kTrees = {"intel-laptop", "amd-desktop", "no-fans"};

// The trees live in the source tree; KELVO_SYSFS_TREES points elsewhere when the bench runs
// away from its sources.
std::filesystem::path treesDir() {
    if (const char* dir = std::getenv("KELVO_SYSFS_TREES")) return dir;
    return std::filesystem::path(KELVO_SOURCE_DIR) / "tests/data/sysfs";
}

void BM_HwmonSample(benchmark::State& state) {
    using namespace kelvo;
    const char* tree = kTrees.at(static_cast<std::size_t>(state.range(0)));
    const std::filesystem::path root = treesDir() / tree;
    if (!std::filesystem::is_directory(root)) {
        state.SkipWithError(("no tree at " + root.string()).c_str());
        return;
    }
    SystemTelemetryOptions options;
    options.sysRoot = root.string();
    options.nvmlLibraryPath = "";  // the figure is the sysfs cost
    SystemTelemetryProvider provider(options);
    Timestamp now = 1'700'000'000;
    provider.sample(now);
    for (auto _ : state) {
        auto sample = provider.sample(now += 0.25);
        benchmark::DoNotOptimize(sample);
    }
    state.SetLabel(tree);
}
BENCHMARK(BM_HwmonSample)
    ->DenseRange(0, static_cast<int>(kTrees.size()) - 1)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace
