// Cost of storing one telemetry sample in the on-disk database, as the control loop does every
// ten seconds: a real file in the temporary folder, so the figure includes the commit.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "foundation/store/SQLiteStore.h"

namespace {

void BM_StoreAppendSample(benchmark::State& state) {
    using namespace kelvo;
    const auto dir = std::filesystem::temp_directory_path() /
                     ("kelvo_store_bench_" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    {
        SQLiteStore store((dir / "kelvo.sqlite").string());
        TelemetrySample sample;
        sample.cpuTemperatureC = 61.5;
        sample.gpuTemperatureC = 55.0;
        sample.cpuClockMHz = 3900;
        sample.gpuClockMHz = 1650;
        sample.totalPowerW = 42;
        sample.fanCurrentRPM = {2100, 1900};
        sample.timestamp = 1'700'000'000;
        for (auto _ : state) {
            sample.timestamp += SQLiteStore::kSampleSpacingSeconds;
            if (!store.appendSample(sample)) state.SkipWithError("append failed");
        }
    }
    std::filesystem::remove_all(dir);
}
BENCHMARK(BM_StoreAppendSample)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace
