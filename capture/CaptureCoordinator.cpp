#include "capture/CaptureCoordinator.h"

#include <QCoroFuture>
#include <QPointer>
#include <algorithm>
#include <cmath>
#include <utility>

#include "app_common/AppBuildInfo.h"
#include "app_common/LoopCall.h"
#include "capture/FileManagerReveal.h"
#include "foundation/profiling/CaptureAutoStopPolicy.h"
#include "foundation/profiling/ProfileExportBundler.h"

namespace kelvo {

namespace {

QString fromStd(const std::string& text) {
    return QString::fromStdString(text);
}

QString elapsedText(Timestamp now, Timestamp startedAt) {
    const double seconds = now - startedAt;
    // A clock stepped backwards shows no time yet; nonsense never reaches the formatter.
    if (!std::isfinite(seconds) || seconds < 0) return QStringLiteral("00:00");
    if (seconds >= 9.0e18) return QStringLiteral("--:--");
    return AppBuildInfo::formatDuration(seconds);
}

CaptureFinalizerOptions finalizerOptions(CaptureCoordinatorOptions& options) {
    CaptureFinalizerOptions out;
    out.profilesBaseDirectory =
        options.profilesBaseDirectory
            ? std::move(options.profilesBaseDirectory)
            : std::function<QString()>(AppBuildInfo::defaultProfilesBaseDirectory);
    out.reveal = options.reveal ? std::move(options.reveal)
                                : std::function<void(const QString&)>(revealInFileManager);
    out.createBundle = options.createBundle
                           ? std::move(options.createBundle)
                           : std::function<ProfilingResult<std::string>(const std::string&)>(
                                 ProfileExportBundler::createBundle);
    out.watchdog = options.finalizationWatchdog;
    out.adaptiveRefresh =
        options.arguments.contains(QStringLiteral("--adaptive-refresh-after-finalization"));
    return out;
}

}  // namespace

CaptureCoordinator::CaptureCoordinator(ControlLoop& controlLoop, ProfilingService& profilingService,
                                       CaptureCoordinatorOptions options, QObject* parent)
    : CaptureViewModel(parent),
      controlLoop_(controlLoop),
      profilingService_(profilingService),
      now_(options.now ? std::move(options.now) : std::function<Timestamp()>(wallClockNow)),
      workloadRunner_(options.workloadRunner ? std::move(options.workloadRunner)
                                             : std::make_unique<ProfilingWorkloadRunner>()),
      finalizer_(
          controlLoop, profilingService, worker_, *this, finalizerOptions(options),
          [this] { return profilingBaselineModel_; }, [this] { notifyHistoryChanged(); }) {
    connect(&finalizer_, &CaptureFinalizer::finished, this,
            &CaptureCoordinator::finalizationFinished);
}

CaptureCoordinator::~CaptureCoordinator() {
    autoStop_.cancel();
    workloadRunner_->stop();
    // Queued database work still refers to the service: let it finish first.
    worker_.waitForDone();
}

// ----- Wiring --------------------------------------------------------------------------------

void CaptureCoordinator::configure(std::function<ControlMode()> currentModeProvider,
                                   std::function<void(ControlMode)> applyModeSelection,
                                   std::function<void()> historyDidChange) {
    currentModeProvider_ = std::move(currentModeProvider);
    applyModeSelection_ = std::move(applyModeSelection);
    historyDidChange_ = std::move(historyDidChange);
}

void CaptureCoordinator::notifyHistoryChanged() const {
    if (historyDidChange_) historyDidChange_();
}

void CaptureCoordinator::setAdaptivePredictorLabel(const QString& label) {
    CaptureViewModel::setAdaptivePredictorLabel(label);
}

void CaptureCoordinator::setAdaptivePredictorDetail(const QString& detail) {
    CaptureViewModel::setAdaptivePredictorDetail(detail);
}

void CaptureCoordinator::updateAdaptivePredictorSummary(
    const std::optional<AdaptiveLeadModel>& model) {
    publishAdaptivePredictor(model);
}

// ----- Start ---------------------------------------------------------------------------------

void CaptureCoordinator::startBetaCapture() {
    // Relaunched after a kill, the open run goes on: the notes of this launch belong to it.
    if (profilingIsRunning() && resumedRunID_ && profilingRunID() == resumedRunID_) {
        addNotesToResumedRun(*std::exchange(resumedRunID_, std::nullopt), betaCaptureNotes());
        return;
    }
    if (profilingIsRunning() || profilingPlanIsRunning() || profilingStopInProgress()) return;
    // A second press while the first start is still talking to the database is the same press.
    if (startInFlight_) return;
    StartRequest request;
    request.scenarioOverride = ProfilingScenario::realWorkflow;
    request.notesOverride = betaCaptureNotes();
    request.workflowSource = ProfilingWorkflowSource::betaCapture;
    request.modelID = QStringLiteral("background-capture");
    request.modelSource = QStringLiteral("kelvo");
    startProfilingAsync(std::move(request));
}

void CaptureCoordinator::startWorkloadFor(ProfilingScenario scenario) {
    switch (scenario) {
        case ProfilingScenario::cpuStress: workloadRunner_->startCPUStressTasks(); break;
        case ProfilingScenario::gpuStress: workloadRunner_->startGPUStressTask(); break;
        case ProfilingScenario::mixedStress:
            workloadRunner_->startCPUStressTasks();
            workloadRunner_->startGPUStressTask();
            break;
        case ProfilingScenario::realWorkflow: break;
    }
}

QCoro::Task<> CaptureCoordinator::startProfilingAsync(StartRequest request) {
    QPointer<CaptureCoordinator> self(this);
    startInFlight_ = true;
    finalizer_.cancel(true);
    const ProfilingScenario scenario = request.scenarioOverride.value_or(profilingScenario());
    ControlMode mode = ControlMode::systemAuto;
    if (request.forcedMode)
        mode = *request.forcedMode;
    else if (currentModeProvider_)
        mode = currentModeProvider_();
    const QString notes = request.notesOverride.value_or(QString()).trimmed();

    if (request.forcedMode) {
        auto applied = loopCall(controlLoop_, [mode](ControlEngine& e) { e.applyMode(mode); });
        co_await applied;
        if (!self) co_return;
    }
    auto modelFuture = loopCall(controlLoop_, [](ControlEngine& e) { return e.currentModel(); });
    auto baseline = co_await modelFuture;
    if (!self) co_return;
    profilingBaselineModel_ = baseline;

    auto& service = profilingService_;
    auto startFuture =
        onWorker([&service, scenario, mode, modelID = request.modelID.toStdString(),
                  modelSource = request.modelSource.toStdString(), notes = notes.toStdString()] {
            return service.startRun(scenario, mode, modelID, modelSource, notes);
        });
    auto started = co_await startFuture;
    if (!self) co_return;
    if (!started.ok()) {
        startInFlight_ = false;
        setActiveWorkflowSource(std::nullopt);
        setProfilingMessage(QStringLiteral("Failed to start profiling: ") + fromStd(started.error));
        emit startFinished(false);
        co_return;
    }
    const std::int64_t runID = *started.value;
    auto activated =
        loopCall(controlLoop_, [runID](ControlEngine& e) { e.setActiveProfilingRunID(runID); });
    co_await activated;
    if (!self) co_return;

    workloadRunner_->stop();
    if (request.startWorkload) startWorkloadFor(scenario);
    if (request.forcedMode && applyModeSelection_) applyModeSelection_(*request.forcedMode);

    const Timestamp startedAt = now();
    setActiveWorkflowSource(request.workflowSource);
    setProfilingScenario(scenario);
    setProfilingRunID(runID);
    setProfilingStartedAt(startedAt);
    setProfilingIsRunning(true);
    setProfilingStopInProgress(false);
    setProfilingFinalizationInProgress(false);
    setProfilingElapsed(QStringLiteral("00:00"));
    setLastExportPath(std::nullopt);
    setLastPackagedExportPath(std::nullopt);
    throttleSignals_.reset();
    setProfilingMessage(request.startWorkload
                            ? QStringLiteral("Running scripted ") + scenarioLabel(scenario)
                            : backgroundStatusText(request.workflowSource));
    scheduleAutoStop(request.workflowSource, scenario, request.startWorkload, startedAt);
    startInFlight_ = false;
    emit startFinished(true);
}

QCoro::Task<> CaptureCoordinator::addNotesToResumedRun(std::int64_t runID, QString notes) {
    QPointer<CaptureCoordinator> self(this);
    notes = notes.trimmed();
    if (notes.isEmpty()) co_return;
    auto& service = profilingService_;
    auto appendFuture = onWorker([&service, runID, text = notes.toStdString()] {
        return service.appendRunNotes(runID, text);
    });
    const auto appended = co_await appendFuture;
    if (!self) co_return;
    const QString message =
        appended.ok()
            ? QStringLiteral("Notes added to resumed capture run %1: %2").arg(runID).arg(notes)
            : QStringLiteral("Notes for resumed capture run %1 were not saved: %2")
                  .arg(runID)
                  .arg(fromStd(appended.error));
    auto recorded =
        loopCall(controlLoop_, [event = RuntimeEvent::make(message.toStdString(), !appended.ok())](
                                   ControlEngine& e) { e.recordEvent(event); });
    co_await recorded;
    if (!self) co_return;
    if (!appended.ok()) setProfilingMessage(message);
    emit resumedNotesHandled(runID, appended.ok(), message);
}

// ----- Auto-stop -----------------------------------------------------------------------------

void CaptureCoordinator::scheduleAutoStop(ProfilingWorkflowSource source,
                                          ProfilingScenario scenario, bool startWorkload,
                                          Timestamp startedAt) {
    autoStop_.cancel();
    const auto plan = CaptureAutoStopPolicy::plan(workflowKind(source), scenario, startWorkload,
                                                  profilingDurationMinutes());
    if (!plan || !profilingRunID()) return;
    const double elapsed = std::max(0.0, now() - startedAt);
    const double delay = std::max(0.0, static_cast<double>(plan->seconds) - elapsed);
    const std::int64_t runID = *profilingRunID();
    const bool package = plan->packageBundle;
    QPointer<CaptureCoordinator> self(this);
    autoStop_.schedule(delay, [self, runID, source, package] {
        if (self) self->handleAutoStopTimerFired(runID, source, package);
    });
}

void CaptureCoordinator::handleAutoStopTimerFired(std::int64_t expectedRunID,
                                                  ProfilingWorkflowSource expectedWorkflowSource,
                                                  bool packageBundle) {
    if (!profilingIsRunning() || profilingStopInProgress()) return;
    if (!profilingRunID() || *profilingRunID() != expectedRunID) return;
    if (!activeWorkflowSource() || *activeWorkflowSource() != expectedWorkflowSource) return;
    beginCaptureStop(packageBundle);
}

// ----- Stop ----------------------------------------------------------------------------------

void CaptureCoordinator::beginCaptureStop(bool packageBundle) {
    if (!profilingIsRunning() || profilingStopInProgress()) return;
    setProfilingStopInProgress(true);
    setProfilingMessage(QStringLiteral("Stopping capture..."));
    stopProfilingAsync(true, packageBundle);
}

QCoro::Task<> CaptureCoordinator::stopProfilingAsync(bool exportArtifacts, bool packageBundle) {
    QPointer<CaptureCoordinator> self(this);
    if (!profilingRunID()) {
        setProfilingStopInProgress(false);
        setProfilingFinalizationInProgress(false);
        co_return;
    }
    autoStop_.cancel();
    workloadRunner_->stop();
    const auto source = activeWorkflowSource();
    const std::int64_t runID = *profilingRunID();
    auto& service = profilingService_;
    auto stopFuture = onWorker([&service, runID] { return service.stopRun(runID); });
    auto stopped = co_await stopFuture;
    if (!self) co_return;
    if (!stopped.ok()) {
        auto released =
            loopCall(controlLoop_, [](ControlEngine& e) { e.setActiveProfilingRunID({}); });
        co_await released;
        if (!self) co_return;
        setProfilingMessage(QStringLiteral("Failed to stop profiling: ") + fromStd(stopped.error));
        setProfilingStopInProgress(false);
        setProfilingFinalizationInProgress(false);
        co_return;
    }
    const QString finalElapsed = profilingElapsed();
    setProfilingIsRunning(false);
    setProfilingStartedAt(std::nullopt);
    setProfilingRunID(std::nullopt);
    setProfilingElapsed(finalElapsed);
    setLastCompletedRunID(runID);
    setLastCompletedWorkflowSource(source);
    setActiveWorkflowSource(std::nullopt);
    throttleSignals_.reset();
    notifyHistoryChanged();
    auto released = loopCall(controlLoop_, [](ControlEngine& e) { e.setActiveProfilingRunID({}); });
    co_await released;
    if (!self) co_return;
    setProfilingStopInProgress(false);
    if (exportArtifacts) {
        finalizer_.launch(runID, packageBundle);
    } else {
        setProfilingFinalizationInProgress(false);
        setProfilingMessage(source == ProfilingWorkflowSource::betaCapture
                                ? QStringLiteral("Capture stopped.")
                                : QStringLiteral("Run %1 completed.").arg(runID));
    }
}

// ----- Clock ---------------------------------------------------------------------------------

void CaptureCoordinator::updateProfilingClock(Timestamp now) {
    if (!profilingIsRunning() || !profilingStartedAt()) return;
    setProfilingElapsed(elapsedText(now, *profilingStartedAt()));
}

// ----- Restore -------------------------------------------------------------------------------

QCoro::Task<> CaptureCoordinator::restorePersistentState() {
    QPointer<CaptureCoordinator> self(this);
    setProfilingStopInProgress(false);
    setProfilingFinalizationInProgress(false);
    auto& service = profilingService_;
    const Timestamp at = now();
    auto closeFuture = onWorker([&service, at] { return service.closeAbandonedRuns(at); });
    auto closed = co_await closeFuture;
    if (!self) co_return;
    if (!closed.ok()) {
        setProfilingMessage(QStringLiteral("Failed to restore capture state: ") +
                            fromStd(closed.error));
        co_return;
    }
    auto latestFuture = onWorker([&service] { return service.latestCompletedRun(); });
    auto latest = co_await latestFuture;
    if (!self) co_return;
    if (!latest.ok()) {
        setProfilingMessage(QStringLiteral("Failed to restore capture state: ") +
                            fromStd(latest.error));
        co_return;
    }
    if (const auto& record = *latest.value) {
        setLastCompletedRunID(record->id);
        setLastCompletedWorkflowSource(profilingWorkflowSourceFromRaw(fromStd(record->modelID)));
    }
    auto keptTask = finalizer_.exportKeptRuns(std::nullopt);
    co_await keptTask;
    if (!self) co_return;
    const auto closedCount = closed.value->size();
    if (closedCount > 0)
        setProfilingMessage(
            QStringLiteral("Recovered %1 abandoned %2; previous run state was closed.")
                .arg(closedCount)
                .arg(closedCount == 1 ? QStringLiteral("capture") : QStringLiteral("captures")));
    auto activeFuture = onWorker([&service] { return service.activeRun(); });
    auto active = co_await activeFuture;
    if (!self) co_return;
    if (!active.ok()) {
        setProfilingMessage(QStringLiteral("Failed to restore capture state: ") +
                            fromStd(active.error));
        co_return;
    }
    const auto& open = *active.value;
    if (!open) co_return;
    const auto source = profilingWorkflowSourceFromRaw(fromStd(open->modelID));
    if (!source) co_return;
    const std::int64_t runID = open->id;
    auto activated =
        loopCall(controlLoop_, [runID](ControlEngine& e) { e.setActiveProfilingRunID(runID); });
    co_await activated;
    if (!self) co_return;
    const ProfilingScenario scenario = profilingScenarioFromRaw(open->scenario);
    setActiveWorkflowSource(source);
    setProfilingScenario(scenario);
    setProfilingRunID(runID);
    setProfilingStartedAt(open->startedAt);
    setProfilingIsRunning(true);
    setProfilingElapsed(elapsedText(now(), open->startedAt));
    setProfilingMessage(backgroundStatusText(*source));
    scheduleAutoStop(*source, scenario, false, open->startedAt);
    resumedRunID_ = runID;
    // Said once, so the user knows this is the earlier run going on and not a new one.
    auto recorded = loopCall(
        controlLoop_,
        [event = RuntimeEvent::make(
             QStringLiteral("Capture run %1 resumed after a restart").arg(runID).toStdString())](
            ControlEngine& e) { e.recordEvent(event); });
    co_await recorded;
    if (!self) co_return;
    emit captureResumed(runID);
}

// ----- Throttle signals ----------------------------------------------------------------------

QCoro::Task<> CaptureCoordinator::evaluateProfilingThrottleSignals(
    const ControlSnapshot& snapshot) {
    const TelemetrySample sample = snapshot.sample;
    auto evaluated = evaluateProfilingThrottleSignals(sample);
    co_await evaluated;
}

QCoro::Task<> CaptureCoordinator::evaluateProfilingThrottleSignals(const TelemetrySample& input) {
    QPointer<CaptureCoordinator> self(this);
    if (!profilingIsRunning() || !profilingRunID()) co_return;
    const TelemetrySample sample = input;
    const std::int64_t runID = *profilingRunID();
    // Each signal is recorded before the next step runs, so the run's events keep their order.
    if (const auto thermal = throttleSignals_.thermalPressure(sample)) {
        auto recorded = recordRunEvent(runID, sample, *thermal);
        co_await recorded;
        if (!self) co_return;
    }
    const DroopReading droop = throttleSignals_.droop(sample, baselineOrDefault());
    if (droop.signal) {
        auto recorded = recordRunEvent(runID, sample, *droop.signal);
        co_await recorded;
        if (!self) co_return;
    }
    if (const auto burst = throttleSignals_.burstRamp(sample, baselineOrDefault(), droop)) {
        auto recorded = recordRunEvent(runID, sample, *burst);
        co_await recorded;
        if (!self) co_return;
    }
    throttleSignals_.remember(sample);
}

QCoro::Task<> CaptureCoordinator::recordRunEvent(std::int64_t runID, const TelemetrySample& sample,
                                                 const ThrottleSignal& signal) {
    auto& service = profilingService_;
    // A database that refuses the event must not stop the evaluation of later samples; the
    // run keeps its samples either way.
    auto recordFuture =
        onWorker([&service, runID, event = ThrottleSignalDetector::runEvent(signal, sample)] {
            return service.recordRunEvent(runID, event);
        });
    co_await recordFuture;
}

}  // namespace kelvo
