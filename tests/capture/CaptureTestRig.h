// A capture coordinator on a real control loop, a real profiling service and a database in a
// temporary folder, with hooks that make the service fail or stall where a test needs it.
#pragma once

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include "app_common/LoopCall.h"
#include "capture/CaptureCoordinator.h"
#include "foundation/control/ControlLoop.h"
#include "foundation/control/HardwareCapabilityTracker.h"
#include "foundation/core/EventRing.h"
#include "foundation/profiling/ProfilingService.h"
#include "foundation/sim/SimulatedFanController.h"
#include "foundation/sim/SimulatedTelemetryProvider.h"
#include "foundation/store/SQLiteStore.h"
#include "tests/EventLoopWait.h"
#include "tests/QtTestPrinters.h"

namespace kelvo::testing {

// Holds a call on the coordinator's worker thread until the test opens it, so that the test can
// act while that call is certainly still under way, however slow the machine. It opens itself
// when it goes out of scope: declared after the rig, it never leaves the worker waiting.
class Gate {
public:
    Gate() = default;
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;
    ~Gate() { open(); }

    void open() {
        {
            std::lock_guard lock(state_->mutex);
            state_->open = true;
        }
        state_->opened.notify_all();
    }
    // For the held call: waits until the gate is open. It may outlive the gate.
    std::function<void()> waiter() const {
        return [state = state_] {
            std::unique_lock lock(state->mutex);
            state->opened.wait(lock, [&] { return state->open; });
        };
    }

private:
    struct State {
        std::mutex mutex;
        std::condition_variable opened;
        bool open = false;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

// The real service, with optional replacements for the calls a test wants to break or slow.
class HookedProfilingService : public ProfilingService {
public:
    using ProfilingService::ProfilingService;

    std::function<std::optional<std::string>()> failStart, failStop, failDerive, failExport;
    std::function<std::optional<int>()> clearedCount;
    std::function<void()> beforeExport;  // on the worker, e.g. a gate's waiter
    std::atomic<int> exportCalls{0};
    std::atomic<int> clearCalls{0};
    std::atomic<int> refreshCalls{0};

    ProfilingResult<std::int64_t> startRun(ProfilingScenario scenario, ControlMode mode,
                                           const std::string& modelID,
                                           const std::string& modelSource,
                                           const std::string& notes) override {
        if (failStart)
            if (auto error = failStart()) return ProfilingResult<std::int64_t>::failure(*error);
        return ProfilingService::startRun(scenario, mode, modelID, modelSource, notes);
    }
    ProfilingResult<bool> stopRun(std::int64_t runID) override {
        if (failStop)
            if (auto error = failStop()) return ProfilingResult<bool>::failure(*error);
        return ProfilingService::stopRun(runID);
    }
    ProfilingResult<LearnedModel> deriveModel(
        std::int64_t runID, const std::optional<LearnedModel>& baseline) override {
        if (failDerive)
            if (auto error = failDerive()) return ProfilingResult<LearnedModel>::failure(*error);
        return ProfilingService::deriveModel(runID, baseline);
    }
    ProfilingResult<ProfilingExportArtifacts> exportRun(
        std::int64_t runID, const std::string& folder,
        const std::optional<LearnedModel>& model) override {
        ++exportCalls;
        if (beforeExport) beforeExport();
        if (failExport)
            if (auto error = failExport())
                return ProfilingResult<ProfilingExportArtifacts>::failure(*error);
        return ProfilingService::exportRun(runID, folder, model);
    }
    ProfilingResult<int> clearCapturedRows(std::int64_t runID) override {
        ++clearCalls;
        if (clearedCount)
            if (auto count = clearedCount()) return ProfilingResult<int>::success(*count);
        return ProfilingService::clearCapturedRows(runID);
    }
    ProfilingResult<AdaptiveModelRefreshResult> refreshAdaptiveModel(
        std::int64_t runID, const std::optional<LearnedModel>& baseline) override {
        ++refreshCalls;
        return ProfilingService::refreshAdaptiveModel(runID, baseline);
    }
};

struct RigOptions {
    QStringList arguments;
    std::chrono::milliseconds watchdog{15000};
    std::function<Timestamp()> now;
    std::function<ProfilingResult<std::string>(const std::string&)> createBundle;
    QString profilesDirectory;  // empty: <rig folder>/profiles
    bool startLoop = false;
    ControlLoopConfig loopConfig;
    std::function<Timestamp()> loopNow;
    std::shared_ptr<sim::SimulatedMachine> machine;
    std::unique_ptr<ProfilingWorkloadRunner> runner;
};

class CaptureRig {
public:
    explicit CaptureRig(RigOptions options = {}, QString folder = {}) {
        if (folder.isEmpty()) {
            ownedDir = std::make_unique<QTemporaryDir>();
            folder = ownedDir->path();
        }
        dir = folder;
        dbPath = QDir(dir).filePath(QStringLiteral("kelvo.sqlite")).toStdString();
        ring = std::make_shared<EventRing>(160, 300.0);
        machine = options.machine ? options.machine : std::make_shared<sim::SimulatedMachine>();
        auto fans = std::make_shared<SimulatedFanController>(machine);
        auto telemetry = std::make_shared<SimulatedTelemetryProvider>(machine);
        store = std::make_shared<SQLiteStore>(dbPath);
        service = std::make_unique<HookedProfilingService>(ring, dbPath, options.now);
        loop = std::make_unique<ControlLoop>(
            telemetry, fans, store, ring, std::make_shared<HardwareCapabilityTracker>(),
            options.loopConfig, options.loopNow ? options.loopNow : wallClockNow);
        CaptureCoordinatorOptions captureOptions;
        captureOptions.arguments = options.arguments;
        captureOptions.finalizationWatchdog = options.watchdog;
        captureOptions.now = options.now;
        captureOptions.createBundle = options.createBundle;
        captureOptions.workloadRunner = std::move(options.runner);
        profilesDirectory = options.profilesDirectory.isEmpty()
                                ? QDir(dir).filePath(QStringLiteral("profiles"))
                                : options.profilesDirectory;
        captureOptions.profilesBaseDirectory = [this] { return profilesDirectory; };
        captureOptions.reveal = [this](const QString& path) { revealed << path; };
        coordinator =
            std::make_unique<CaptureCoordinator>(*loop, *service, std::move(captureOptions));
        coordinator->configure([this] { return mode; },
                               [this](ControlMode m) { appliedModes.push_back(m); },
                               [this] { ++historyChanges; });
        if (options.startLoop) loop->start();
    }

    ~CaptureRig() {
        coordinator.reset();
        loop.reset();
    }

    // Leaves the run open, as a killed process would: nothing is stopped or finalized.
    void abandon() {
        coordinator.reset();
        loop.reset();
        service.reset();
        store.reset();
    }

    void setBaselineModel(const LearnedModel& model) {
        auto installed = loopCall(*loop, [model](ControlEngine& e) { e.setLearnedModel(model); });
        installed.waitForFinished();
    }

    std::int64_t startBeta() {
        coordinator->startBetaCapture();
        EXPECT_TRUE(waitFor([&] { return coordinator->profilingIsRunning(); }));
        return coordinator->profilingRunID().value_or(-1);
    }

    void evaluate(const TelemetrySample& sample) {
        auto task = coordinator->evaluateProfilingThrottleSignals(sample);
        QCoro::waitFor(task);
    }

    std::vector<ProfilingRunEvent> events(std::int64_t runID, const std::string& kind = {}) {
        std::vector<ProfilingRunEvent> out;
        for (auto& e : service->store().runEventRecords(runID))
            if (kind.empty() || e.kind == kind) out.push_back(e);
        return out;
    }

    // Stops the open run and waits for its finalization to end; returns the final message.
    struct Finalized {
        std::int64_t runID = 0;
        QString exportPath, bundlePath, message;
    };
    std::optional<Finalized> stopAndFinalize(bool packageBundle, int timeoutMs = 30000) {
        std::optional<Finalized> result;
        auto connection =
            QObject::connect(coordinator.get(), &CaptureCoordinator::finalizationFinished,
                             [&result](qint64 id, const QString& folder, const QString& bundle,
                                       const QString& message) {
                                 result = Finalized{id, folder, bundle, message};
                             });
        coordinator->beginCaptureStop(packageBundle);
        waitFor([&] { return result.has_value(); }, timeoutMs);
        QObject::disconnect(connection);
        return result;
    }

    int rowCount(std::int64_t runID) { return service->store().countRunRows(runID).value_or(-1); }

    // Adds run samples straight to the database, as the loop would have recorded them.
    void addSamples(std::int64_t runID, int count, Timestamp start = 1000, double spacing = 1) {
        for (int i = 0; i < count; ++i) {
            TelemetrySample s;
            s.timestamp = start + i * spacing;
            s.cpuTemperatureC = 60 + i % 5;
            s.gpuTemperatureC = 55;
            s.cpuClockMHz = 4000;
            s.gpuClockMHz = 1700;
            s.cpuUtilizationPct = 90;
            s.gpuUtilizationPct = 20;
            s.totalPowerW = 80;
            s.fanCurrentRPM = {2000, 2100};
            s.thermalPressure = ThermalPressureLevel::nominal;
            store->appendRunSample(runID, s);
        }
    }

    std::unique_ptr<QTemporaryDir> ownedDir;
    QString dir;
    std::string dbPath;
    QString profilesDirectory;
    std::shared_ptr<EventRing> ring;
    std::shared_ptr<sim::SimulatedMachine> machine;
    std::shared_ptr<SQLiteStore> store;
    std::unique_ptr<HookedProfilingService> service;
    std::unique_ptr<ControlLoop> loop;
    std::unique_ptr<CaptureCoordinator> coordinator;
    ControlMode mode = ControlMode::quiet;
    std::vector<ControlMode> appliedModes;
    QStringList revealed;
    int historyChanges = 0;
};

}  // namespace kelvo::testing
