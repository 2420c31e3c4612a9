// Time from "stop" to the packaged bundle for a 15-minute capture at one sample per second:
// stop the run, derive the model, export the four files, zip them and clear the run's rows,
// all through the capture coordinator as the app runs it. Reported per repetition; the median
// aggregate is the figure.
#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <chrono>

#include "BenchApplication.h"
#include "app_common/LoopCall.h"
#include "capture/CaptureCoordinator.h"
#include "capture/GPUStressWorker.h"
#include "foundation/control/HardwareCapabilityTracker.h"
#include "foundation/sim/SimulatedFanController.h"
#include "foundation/sim/SimulatedTelemetryProvider.h"

namespace {

bool waitFor(const std::function<bool()>& condition) {
    QElapsedTimer timer;
    timer.start();
    while (!condition() && timer.elapsed() < 60000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    return condition();
}

kelvo::TelemetrySample sampleAt(kelvo::Timestamp t, int i) {
    kelvo::TelemetrySample s;
    s.timestamp = t;
    s.cpuTemperatureC = 70 + (i % 60) * 0.3;
    s.gpuTemperatureC = 62 + (i % 45) * 0.2;
    s.cpuClockMHz = 4000 - (i % 30) * 10;
    s.gpuClockMHz = 1700 - (i % 20) * 5;
    s.gpuReferenceMaxClockMHz = 1800;
    s.cpuUtilizationPct = (i / 60) % 2 ? 95 : 20;
    s.gpuUtilizationPct = 40;
    s.totalPowerW = (i / 60) % 2 ? 110 : 30;
    s.fanCurrentRPM = {2200, 2300};
    s.thermalPressure = kelvo::ThermalPressureLevel::nominal;
    return s;
}

void BM_FinalizeExportPackage15MinuteCapture(benchmark::State& state) {
    kelvo::bench::benchApplication();
    constexpr int kSamples = 15 * 60;
    constexpr int kEvents = 12;
    for (auto _ : state) {
        QTemporaryDir dir;
        const std::string db = dir.filePath(QStringLiteral("kelvo.sqlite")).toStdString();
        auto ring = std::make_shared<kelvo::EventRing>(160, 300.0);
        auto fans = std::make_shared<kelvo::SimulatedFanController>();
        auto store = std::make_shared<kelvo::SQLiteStore>(db);
        kelvo::ProfilingService service(ring, db);
        kelvo::ControlLoop loop(
            std::make_shared<kelvo::SimulatedTelemetryProvider>(fans->machine()), fans, store, ring,
            std::make_shared<kelvo::HardwareCapabilityTracker>());
        kelvo::CaptureCoordinatorOptions options;
        options.profilesBaseDirectory = [&dir] { return dir.filePath(QStringLiteral("profiles")); };
        options.reveal = [](const QString&) {};
        kelvo::CaptureCoordinator coordinator(loop, service, std::move(options));
        coordinator.startBetaCapture();
        if (!waitFor([&] { return coordinator.profilingIsRunning(); })) {
            state.SkipWithError("the run did not start");
            break;
        }
        const auto runID = *coordinator.profilingRunID();
        const kelvo::Timestamp start = kelvo::wallClockNow() - kSamples;
        for (int i = 0; i < kSamples; ++i) store->appendRunSample(runID, sampleAt(start + i, i));
        for (int i = 0; i < kEvents; ++i)
            service.recordRunEvent(runID, {kelvo::Uuid::generate(),
                                           start + i * 70.0,
                                           "freq_droop",
                                           "moderate",
                                           {{"score", 0.2}}});

        QString bundle;
        QObject::connect(&coordinator, &kelvo::CaptureCoordinator::finalizationFinished,
                         [&bundle](qint64, const QString&, const QString& path, const QString&) {
                             bundle = path.isEmpty() ? QStringLiteral("failed") : path;
                         });
        const auto began = std::chrono::steady_clock::now();
        coordinator.beginCaptureStop(true);
        const bool finished = waitFor([&] { return !bundle.isEmpty(); });
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
        if (!finished || bundle == QStringLiteral("failed")) {
            state.SkipWithError("finalization did not produce a bundle");
            break;
        }
        state.SetIterationTime(took.count());
    }
    state.counters["samples"] = kSamples;
}
BENCHMARK(BM_FinalizeExportPackage15MinuteCapture)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);

}  // namespace

namespace {

// One pass of the GPU workload (1 048 576 invocations × 1024 iterations) on whatever Vulkan
// device the loader offers first by our preference (a software driver in CI).
void BM_GPUStressPass(benchmark::State& state) {
    auto worker = kelvo::GPUStressWorker::create();
    if (!worker) {
        state.SkipWithError("no Vulkan device");
        return;
    }
    state.SetLabel(worker->deviceName());
    for (auto _ : state)
        if (!worker->runPass()) state.SkipWithError("the pass failed");
}
BENCHMARK(BM_GPUStressPass)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace
