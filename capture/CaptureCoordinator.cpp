#include "capture/CaptureCoordinator.h"

#include <QCoroFuture>
#include <QDir>
#include <QFileInfo>
#include <QtConcurrent/QtConcurrentRun>
#include <algorithm>
#include <cmath>
#include <utility>

#include "app_common/AppBuildInfo.h"
#include "app_common/LoopCall.h"
#include "capture/FileManagerReveal.h"
#include "foundation/profiling/CaptureAutoStopPolicy.h"
#include "foundation/profiling/DroopSignal.h"
#include "foundation/profiling/ProfileExportBundler.h"

namespace kelvo {

namespace {

constexpr const char* kClosedDuringExport = "the capture was closed during the export";

QString fromStd(const std::string& text) {
    return QString::fromStdString(text);
}

double valueOrZero(const std::optional<double>& value) {
    return value && std::isfinite(*value) ? *value : 0.0;
}

// The drop of a clock under its reference, as a fraction when the reference is usable; a
// missing clock reads as no drop rather than a total one.
double clockDrop(double reference, const std::optional<double>& clock) {
    if (!clock || !std::isfinite(*clock)) return 0.0;
    const double drop = reference >= 1.0 ? (reference - *clock) / reference : reference - *clock;
    return std::max(0.0, drop);
}

QString elapsedText(Timestamp now, Timestamp startedAt) {
    const double seconds = now - startedAt;
    // A clock stepped backwards shows no time yet; nonsense never reaches the formatter.
    if (!std::isfinite(seconds) || seconds < 0) return QStringLiteral("00:00");
    if (seconds >= 9.0e18) return QStringLiteral("--:--");
    return AppBuildInfo::formatDuration(seconds);
}

}  // namespace

CaptureCoordinator::CaptureCoordinator(ControlLoop& controlLoop, ProfilingService& profilingService,
                                       CaptureCoordinatorOptions options, QObject* parent)
    : QObject(parent),
      controlLoop_(controlLoop),
      profilingService_(profilingService),
      workloadRunner_(options.workloadRunner ? std::move(options.workloadRunner)
                                             : std::make_unique<ProfilingWorkloadRunner>()),
      adaptiveRefreshEnabled_(
          options.arguments.contains(QStringLiteral("--adaptive-refresh-after-finalization"))),
      profilesBaseDirectory_(
          options.profilesBaseDirectory
              ? std::move(options.profilesBaseDirectory)
              : std::function<QString()>(AppBuildInfo::defaultProfilesBaseDirectory)),
      reveal_(options.reveal ? std::move(options.reveal)
                             : std::function<void(const QString&)>(revealInFileManager)),
      createBundle_(options.createBundle
                        ? std::move(options.createBundle)
                        : std::function<ProfilingResult<std::string>(const std::string&)>(
                              ProfileExportBundler::createBundle)),
      finalizationWatchdog_(options.finalizationWatchdog),
      now_(options.now ? std::move(options.now) : std::function<Timestamp()>(wallClockNow)) {
    worker_.setMaxThreadCount(1);
    worker_.setExpiryTimeout(-1);
    autoStopTimer_.setSingleShot(true);
    finalizationWatchdogTimer_.setSingleShot(true);
}

CaptureCoordinator::~CaptureCoordinator() {
    autoStopTimer_.stop();
    finalizationWatchdogTimer_.stop();
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

// ----- Derived values ------------------------------------------------------------------------

QString CaptureCoordinator::currentWorkflowLabel() const {
    if (activeWorkflowSource_) return workflowLabel(*activeWorkflowSource_);
    if (lastCompletedWorkflowSource_) return workflowLabel(*lastCompletedWorkflowSource_);
    return QStringLiteral("Idle");
}

bool CaptureCoordinator::captureInteractionLocked() const {
    return profilingPlanIsRunning_ || profilingStopInProgress_ || profilingFinalizationInProgress_;
}

CaptureCoordinator::ActivityTint CaptureCoordinator::captureActivityTint() const {
    return profilingIsRunning_ || profilingStopInProgress_ || profilingFinalizationInProgress_
               ? ActivityTint::orange
               : ActivityTint::secondary;
}

QString CaptureCoordinator::captureActivityTintName() const {
    return captureActivityTint() == ActivityTint::orange ? QStringLiteral("orange")
                                                         : QStringLiteral("secondary");
}

void CaptureCoordinator::emitDerivedChanges() {
    const QString label = currentWorkflowLabel();
    if (label != publishedWorkflowLabel_) {
        publishedWorkflowLabel_ = label;
        emit workflowLabelChanged();
    }
    const bool locked = captureInteractionLocked();
    if (locked != publishedInteractionLock_) {
        publishedInteractionLock_ = locked;
        emit interactionLockChanged();
    }
    const ActivityTint tint = captureActivityTint();
    if (tint != publishedTint_) {
        publishedTint_ = tint;
        emit activityTintChanged();
    }
}

// ----- Start ---------------------------------------------------------------------------------

void CaptureCoordinator::startBetaCapture() {
    // Relaunched after a kill, the open run goes on: the notes of this launch belong to it.
    if (profilingIsRunning_ && resumedRunID_ && profilingRunID_ == resumedRunID_) {
        addNotesToResumedRun(*std::exchange(resumedRunID_, std::nullopt), betaCaptureNotes_);
        return;
    }
    if (profilingIsRunning_ || profilingPlanIsRunning_ || profilingStopInProgress_) return;
    // A second press while the first start is still talking to the database is the same press.
    if (startInFlight_) return;
    StartRequest request;
    request.scenarioOverride = ProfilingScenario::realWorkflow;
    request.notesOverride = betaCaptureNotes_;
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
    cancelFinalizationTasks(true);
    const ProfilingScenario scenario = request.scenarioOverride.value_or(profilingScenario_);
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
    resetThrottleSignalState();
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

void CaptureCoordinator::cancelAutoStop() {
    ++autoStopGeneration_;
    autoStopTimer_.stop();
    autoStopQueued_ = false;
    autoStopTimer_.disconnect(this);
}

void CaptureCoordinator::scheduleAutoStop(ProfilingWorkflowSource source,
                                          ProfilingScenario scenario, bool startWorkload,
                                          Timestamp startedAt) {
    cancelAutoStop();
    const auto plan = CaptureAutoStopPolicy::plan(workflowKind(source), scenario, startWorkload,
                                                  profilingDurationMinutes_);
    if (!plan || !profilingRunID_) return;
    const double elapsed = std::max(0.0, now() - startedAt);
    const double delay = std::max(0.0, static_cast<double>(plan->seconds) - elapsed);
    const std::int64_t runID = *profilingRunID_;
    const bool package = plan->packageBundle;
    const std::uint64_t generation = autoStopGeneration_;
    QPointer<CaptureCoordinator> self(this);
    auto fire = [self, generation, runID, source, package] {
        if (!self || self->autoStopGeneration_ != generation) return;  // cancelled
        self->autoStopQueued_ = false;
        self->handleAutoStopTimerFired(runID, source, package);
    };
    if (delay <= 0) {
        // Already due: at once, but after the caller has finished publishing.
        autoStopQueued_ = true;
        QMetaObject::invokeMethod(this, fire, Qt::QueuedConnection);
        return;
    }
    connect(&autoStopTimer_, &QTimer::timeout, this, fire);
    const double ms = std::min(delay * 1000.0, 2147483647.0);
    autoStopTimer_.start(static_cast<int>(std::ceil(ms)));
}

void CaptureCoordinator::handleAutoStopTimerFired(std::int64_t expectedRunID,
                                                  ProfilingWorkflowSource expectedWorkflowSource,
                                                  bool packageBundle) {
    if (!profilingIsRunning_ || profilingStopInProgress_) return;
    if (!profilingRunID_ || *profilingRunID_ != expectedRunID) return;
    if (!activeWorkflowSource_ || *activeWorkflowSource_ != expectedWorkflowSource) return;
    beginCaptureStop(packageBundle);
}

// ----- Stop ----------------------------------------------------------------------------------

void CaptureCoordinator::beginCaptureStop(bool packageBundle) {
    if (!profilingIsRunning_ || profilingStopInProgress_) return;
    setProfilingStopInProgress(true);
    setProfilingMessage(QStringLiteral("Stopping capture..."));
    stopProfilingAsync(true, packageBundle);
}

void CaptureCoordinator::resetThrottleSignalState() {
    lastThermalThrottleState_.reset();
    droopConsecutiveSamples_ = 0;
    droopEventLatched_ = false;
    lastProfilingSample_.reset();
    lastBurstEventAt_.reset();
}

QCoro::Task<> CaptureCoordinator::stopProfilingAsync(bool exportArtifacts, bool packageBundle) {
    QPointer<CaptureCoordinator> self(this);
    if (!profilingRunID_) {
        setProfilingStopInProgress(false);
        setProfilingFinalizationInProgress(false);
        co_return;
    }
    cancelAutoStop();
    workloadRunner_->stop();
    const auto source = activeWorkflowSource_;
    const std::int64_t runID = *profilingRunID_;
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
    const QString finalElapsed = profilingElapsed_;
    setProfilingIsRunning(false);
    setProfilingStartedAt(std::nullopt);
    setProfilingRunID(std::nullopt);
    setProfilingElapsed(finalElapsed);
    setLastCompletedRunID(runID);
    setLastCompletedWorkflowSource(source);
    setActiveWorkflowSource(std::nullopt);
    resetThrottleSignalState();
    if (historyDidChange_) historyDidChange_();
    auto released = loopCall(controlLoop_, [](ControlEngine& e) { e.setActiveProfilingRunID({}); });
    co_await released;
    if (!self) co_return;
    setProfilingStopInProgress(false);
    if (exportArtifacts) {
        launchFinalization(runID, packageBundle);
    } else {
        setProfilingFinalizationInProgress(false);
        setProfilingMessage(source == ProfilingWorkflowSource::betaCapture
                                ? QStringLiteral("Capture stopped.")
                                : QStringLiteral("Run %1 completed.").arg(runID));
    }
}

// ----- Clock ---------------------------------------------------------------------------------

void CaptureCoordinator::updateProfilingClock(Timestamp now) {
    if (!profilingIsRunning_ || !profilingStartedAt_) return;
    setProfilingElapsed(elapsedText(now, *profilingStartedAt_));
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
    auto keptTask = exportKeptRuns(std::nullopt);
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

// ----- Finalization --------------------------------------------------------------------------

void CaptureCoordinator::cancelFinalizationTasks(bool resetState) {
    finalizationToken_ = QUuid::createUuid();
    finalizationTaskRunning_ = false;
    finalizationWatchdogTimer_.stop();
    finalizationWatchdogTimer_.disconnect(this);
    if (resetState) setProfilingFinalizationInProgress(false);
}

void CaptureCoordinator::launchFinalization(std::int64_t runID, bool packageBundle) {
    cancelFinalizationTasks(false);
    const QUuid token = QUuid::createUuid();
    finalizationToken_ = token;
    setProfilingFinalizationInProgress(true);
    setProfilingMessage(QStringLiteral("Capture stopped. Finalizing export..."));
    finalizationTaskRunning_ = true;
    performFinalization(runID, packageBundle, token);
    if (finalizationToken_ != token || !profilingFinalizationInProgress_) return;
    connect(&finalizationWatchdogTimer_, &QTimer::timeout, this,
            [this, token] { handleFinalizationWatchdog(token); });
    finalizationWatchdogTimer_.start(finalizationWatchdog_);
}

void CaptureCoordinator::handleFinalizationWatchdog(QUuid token) {
    if (finalizationToken_ != token || !profilingFinalizationInProgress_) return;
    setProfilingFinalizationInProgress(false);
    setProfilingMessage(
        QStringLiteral("Capture stopped. Finalization is taking longer than expected. The file "
                       "manager will open when "
                       "the export is ready."));
}

QCoro::Task<> CaptureCoordinator::performFinalization(std::int64_t runID, bool packageBundle,
                                                      QUuid token) {
    QPointer<CaptureCoordinator> self(this);
    QStringList notes;
    auto modelTask = modelForExport(runID, notes);
    const std::optional<LearnedModel> exportModel = co_await modelTask;
    if (!self) co_return;

    auto exportTask = exportProfileArtifacts(runID, exportModel, false);
    const auto artifacts = co_await exportTask;
    if (!self) co_return;

    QString outcome;
    QString exportPath, bundlePath;
    bool clearRows = false;
    const QString retained = QStringLiteral(
        "Local SQLite capture rows were retained because package export did not finish.");
    if (!artifacts.ok()) {
        // The reason names the folder and the system's error, so the user can fix it.
        outcome = QStringLiteral("Capture stopped. Export failed: ") + fromStd(artifacts.error) +
                  QLatin1Char('.');
        if (packageBundle) notes << retained;
    } else {
        exportPath = fromStd(artifacts.value->folder);
        if (!packageBundle) {
            outcome =
                QStringLiteral("Capture stopped. Export created and revealed in the file manager.");
            reveal_(exportPath);
            clearRows = true;
        } else {
            auto bundleFuture = QtConcurrent::run(
                &worker_, [bundle = createBundle_, folder = artifacts.value->folder] {
                    return bundle(folder);
                });
            const auto bundle = co_await bundleFuture;
            if (!self) co_return;
            if (bundle.ok()) {
                bundlePath = fromStd(*bundle.value);
                // The token guards the published state only: the bundle exists either way.
                if (finalizationToken_ == token) setLastPackagedExportPath(bundlePath);
                outcome = QStringLiteral(
                    "Capture stopped. Export packaged and revealed in the file manager.");
                reveal_(bundlePath);
                clearRows = true;
            } else {
                outcome = QStringLiteral(
                    "Capture stopped. Export created and revealed in the file manager, but "
                    "packaging "
                    "failed.");
                notes << retained;
                reveal_(exportPath);
            }
        }
    }
    if (clearRows) {
        auto clearTask = clearRowsAfterExport(runID, notes);
        co_await clearTask;
        if (!self) co_return;
        // The folder works now: runs kept by earlier failures go out too.
        auto keptTask = exportKeptRuns(runID);
        co_await keptTask;
        if (!self) co_return;
    }
    QString message = outcome;
    if (!notes.isEmpty()) message += QLatin1Char(' ') + notes.join(QLatin1Char(' '));

    if (finalizationToken_ == token) {
        finalizationWatchdogTimer_.stop();
        finalizationWatchdogTimer_.disconnect(this);
        finalizationTaskRunning_ = false;
        setProfilingFinalizationInProgress(false);
        setProfilingMessage(message);
        if (adaptiveRefreshEnabled_) refreshAdaptiveModelAfterFinalization(runID, exportModel);
    }
    emit finalizationFinished(runID, exportPath, bundlePath, message);
}

QCoro::Task<std::optional<LearnedModel>> CaptureCoordinator::modelForExport(std::int64_t runID,
                                                                            QStringList& notes) {
    QPointer<CaptureCoordinator> self(this);
    auto currentFuture = loopCall(controlLoop_, [](ControlEngine& e) { return e.currentModel(); });
    const std::optional<LearnedModel> current = co_await currentFuture;
    if (!self) co_return current;
    auto& service = profilingService_;
    const auto baseline = profilingBaselineModel_;
    auto deriveFuture =
        onWorker([&service, runID, baseline] { return service.deriveModel(runID, baseline); });
    auto derived = co_await deriveFuture;
    if (!self) co_return current;
    if (!derived.ok()) {
        notes << QStringLiteral(
                     "Used the current model because post-run model derivation failed: ") +
                     fromStd(derived.error);
        co_return current;
    }
    auto installed = loopCall(
        controlLoop_, [model = *derived.value](ControlEngine& e) { e.setLearnedModel(model); });
    co_await installed;
    co_return derived.value;
}

QCoro::Task<> CaptureCoordinator::clearRowsAfterExport(std::int64_t runID, QStringList& notes) {
    QPointer<CaptureCoordinator> self(this);
    auto& service = profilingService_;
    auto clearFuture = onWorker([&service, runID] { return service.clearCapturedRows(runID); });
    const auto cleared = co_await clearFuture;
    if (!self) co_return;
    if (!cleared.ok()) {
        notes << QStringLiteral("Export succeeded but local SQLite cleanup failed: ") +
                     fromStd(cleared.error);
        co_return;
    }
    notes << QStringLiteral("Local SQLite capture rows were cleared after export (%1 rows).")
                 .arg(*cleared.value);
    if (historyDidChange_) historyDidChange_();
}

QString CaptureCoordinator::newExportFolder() const {
    const QDir base(profilesBaseDirectory_());
    const QString name = AppBuildInfo::profileTimestampFolderName();
    // Two exports within one second must not collide.
    QString folder = base.filePath(name);
    for (int n = 2; QFileInfo::exists(folder) && n < 100; ++n)
        folder = base.filePath(name + QStringLiteral("-%1").arg(n));
    return folder;
}

QCoro::Task<ProfilingResult<ProfilingExportArtifacts>> CaptureCoordinator::exportProfileArtifacts(
    std::int64_t runID, std::optional<LearnedModel> modelOverride, bool updateMessage) {
    QPointer<CaptureCoordinator> self(this);
    std::optional<LearnedModel> model = modelOverride;
    if (!model) {
        auto currentFuture =
            loopCall(controlLoop_, [](ControlEngine& e) { return e.currentModel(); });
        model = co_await currentFuture;
        if (!self)
            co_return ProfilingResult<ProfilingExportArtifacts>::failure(kClosedDuringExport);
    }
    const QString folder = newExportFolder();
    auto& service = profilingService_;
    auto exportFuture = onWorker([&service, runID, folder = folder.toStdString(), model] {
        return service.exportRun(runID, folder, model);
    });
    auto exported = co_await exportFuture;
    if (!self) co_return ProfilingResult<ProfilingExportArtifacts>::failure(kClosedDuringExport);
    if (!exported.ok()) {
        if (updateMessage)
            setProfilingMessage(QStringLiteral("Export failed: ") + fromStd(exported.error));
        co_return exported;
    }
    setLastExportPath(fromStd(exported.value->folder));
    if (updateMessage) setProfilingMessage(QStringLiteral("Exported run %1 artifacts").arg(runID));
    if (historyDidChange_) historyDidChange_();
    co_return exported;
}

QCoro::Task<> CaptureCoordinator::refreshAdaptiveModelAfterFinalization(
    std::int64_t runID, std::optional<LearnedModel> baseline) {
    QPointer<CaptureCoordinator> self(this);
    auto& service = profilingService_;
    auto refreshFuture = onWorker(
        [&service, runID, baseline] { return service.refreshAdaptiveModel(runID, baseline); });
    const auto refreshed = co_await refreshFuture;
    if (!self || !refreshed.ok()) co_return;
    const auto model = refreshed.value->model;
    if (model) {
        auto installed =
            loopCall(controlLoop_, [model](ControlEngine& e) { e.setAdaptiveLeadModel(model); });
        co_await installed;
        if (!self) co_return;
    }
    updateAdaptivePredictorSummary(model);
}

void CaptureCoordinator::updateAdaptivePredictorSummary(
    const std::optional<AdaptiveLeadModel>& model) {
    if (!model) {
        setAdaptivePredictorLabel(QStringLiteral("Baseline"));
        setAdaptivePredictorDetail(QStringLiteral("No adaptive model active"));
        return;
    }
    setAdaptivePredictorLabel(fromStd(model->name) + QStringLiteral(" v") +
                              QString::number(model->version));
    // Our threshold is kept in percent already.
    setAdaptivePredictorDetail(QString::asprintf("threshold %.0f%%, avg lead %.0fms, misses %d",
                                                 model->utilizationThresholdPct,
                                                 model->averageLeadMs, model->misses));
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
    if (!profilingIsRunning_ || !profilingRunID_) co_return;
    const TelemetrySample sample = input;
    const std::int64_t runID = *profilingRunID_;

    // 1. Thermal pressure.
    const auto level = sample.thermalPressure.value_or(ThermalPressureLevel::nominal);
    if (level == ThermalPressureLevel::serious || level == ThermalPressureLevel::critical) {
        if (lastThermalThrottleState_ != level) {
            lastThermalThrottleState_ = level;
            auto recorded = recordRunEvent(runID, sample, "thermal_pressure",
                                           QString::fromUtf8(rawValue(level).data()), {});
            co_await recorded;
            if (!self) co_return;
        }
    } else {
        lastThermalThrottleState_.reset();
    }

    // 2-6. Droop against the baseline model, under load and heat.
    const LearnedModel baseline = profilingBaselineModel_.value_or(LearnedModel{});
    const double cpuDrop =
        clockDrop(valueOrZero(baseline.cpuReferenceClockMHz), sample.cpuClockMHz);
    const double gpuDrop =
        clockDrop(valueOrZero(baseline.gpuReferenceClockMHz), sample.gpuClockMHz);
    const double cpuUtil = valueOrZero(sample.cpuUtilizationPct);
    const double gpuUtil = valueOrZero(sample.gpuUtilizationPct);
    const double score = DroopSignal::peakAligned(cpuDrop, gpuDrop, cpuUtil, gpuUtil, 1.0);
    const bool loadGate = std::max(cpuUtil, gpuUtil) >= kLoadGateUtilizationPct &&
                          valueOrZero(sample.totalPowerW) >= kLoadGatePowerW;
    const double hottest =
        std::max(valueOrZero(sample.cpuTemperatureC), valueOrZero(sample.gpuTemperatureC));
    const bool heatGate = valueOrZero(baseline.temperatureReferenceC) - kHeatGateMarginC <= hottest;
    if (score >= kDroopScoreThreshold && loadGate && heatGate) {
        ++droopConsecutiveSamples_;
        if (droopConsecutiveSamples_ >= kDroopStreakSamples && !droopEventLatched_) {
            droopEventLatched_ = true;
            auto recorded =
                recordRunEvent(runID, sample, "freq_droop", QStringLiteral("moderate"),
                               {{"score", score}, {"cpuDrop", cpuDrop}, {"gpuDrop", gpuDrop}});
            co_await recorded;
            if (!self) co_return;
        }
    } else {
        droopConsecutiveSamples_ = 0;
        droopEventLatched_ = false;
    }

    // 7. Burst ramps, then remember this sample.
    auto burst = recordBurstRampEventIfNeeded(runID, sample, cpuDrop, gpuDrop);
    co_await burst;
    if (!self) co_return;
    lastProfilingSample_ = sample;
}

QCoro::Task<> CaptureCoordinator::recordBurstRampEventIfNeeded(std::int64_t runID,
                                                               const TelemetrySample& sample,
                                                               double cpuDrop, double gpuDrop) {
    if (!lastProfilingSample_) co_return;
    const TelemetrySample prev = *lastProfilingSample_;
    const double dt = std::max(kMinimumSampleSpacingSeconds, sample.timestamp - prev.timestamp);
    const double gpuRampRate =
        std::max(0.0, valueOrZero(sample.gpuClockMHz) - valueOrZero(prev.gpuClockMHz)) / dt;
    if (gpuRampRate < kBurstRampMHzPerSecond) co_return;
    const double gpuUtil = valueOrZero(sample.gpuUtilizationPct);
    const double utilRise = std::max(0.0, gpuUtil - valueOrZero(prev.gpuUtilizationPct));
    const double powerRamp =
        std::max(0.0, valueOrZero(sample.totalPowerW) - valueOrZero(prev.totalPowerW)) / dt;
    const LearnedModel baseline = profilingBaselineModel_.value_or(LearnedModel{});
    const double hottest =
        std::max(valueOrZero(sample.cpuTemperatureC), valueOrZero(sample.gpuTemperatureC));
    if (!(gpuUtil >= kBurstUtilizationPct || utilRise >= kBurstUtilizationRisePct)) co_return;
    if (powerRamp < kBurstPowerRampWPerSecond) co_return;
    if (valueOrZero(baseline.temperatureReferenceC) - kHeatGateMarginC > hottest) co_return;
    if (lastBurstEventAt_ && sample.timestamp - *lastBurstEventAt_ < kBurstSpacingSeconds)
        co_return;
    lastBurstEventAt_ = sample.timestamp;
    auto recorded = recordRunEvent(runID, sample, "burst_ramp", QStringLiteral("high"),
                                   {{"cpuDrop", cpuDrop},
                                    {"gpuDrop", gpuDrop},
                                    {"gpuRampMHzPerS", gpuRampRate},
                                    {"powerRampWPerS", powerRamp}});
    co_await recorded;
}

QCoro::Task<> CaptureCoordinator::recordRunEvent(
    std::int64_t runID, const TelemetrySample& sample, const char* kind, QString severity,
    std::vector<std::pair<std::string, double>> extra) {
    ProfilingRunEvent event;
    event.id = Uuid::generate();
    event.timestamp = sample.timestamp;
    event.kind = kind;
    event.severity = severity.toStdString();
    auto add = [&event](const char* name, const std::optional<double>& value) {
        if (value && std::isfinite(*value)) event.values.emplace_back(name, *value);
    };
    add("cpuTemperatureC", sample.cpuTemperatureC);
    add("gpuTemperatureC", sample.gpuTemperatureC);
    add("cpuClockMHz", sample.cpuClockMHz);
    add("gpuClockMHz", sample.gpuClockMHz);
    add("cpuUtilizationPct", sample.cpuUtilizationPct);
    add("gpuUtilizationPct", sample.gpuUtilizationPct);
    add("totalPowerW", sample.totalPowerW);
    for (auto& value : extra) event.values.push_back(std::move(value));
    auto& service = profilingService_;
    // A database that refuses the event must not stop the evaluation of later samples; the
    // run keeps its samples either way.
    auto recordFuture =
        onWorker([&service, runID, event] { return service.recordRunEvent(runID, event); });
    co_await recordFuture;
}

// ----- Publishing ----------------------------------------------------------------------------

void CaptureCoordinator::setBetaCaptureNotes(const QString& notes) {
    if (betaCaptureNotes_ == notes) return;
    betaCaptureNotes_ = notes;
    emit betaCaptureNotesChanged();
}

void CaptureCoordinator::setOperatorNotes(const QString& notes) {
    if (operatorNotes_ == notes) return;
    operatorNotes_ = notes;
    emit operatorNotesChanged();
}

QString CaptureCoordinator::profilingScenarioRaw() const {
    return QString::fromUtf8(rawValue(profilingScenario_).data());
}

void CaptureCoordinator::setProfilingScenario(ProfilingScenario scenario) {
    if (profilingScenario_ == scenario) return;
    profilingScenario_ = scenario;
    emit profilingScenarioChanged();
}

void CaptureCoordinator::setProfilingDurationMinutes(int minutes) {
    if (profilingDurationMinutes_ == minutes) return;
    profilingDurationMinutes_ = minutes;
    emit profilingDurationMinutesChanged();
}

void CaptureCoordinator::setProfilingIsRunning(bool running) {
    if (profilingIsRunning_ == running) return;
    profilingIsRunning_ = running;
    emit profilingIsRunningChanged();
    emitDerivedChanges();
}

void CaptureCoordinator::setProfilingRunID(std::optional<std::int64_t> id) {
    if (profilingRunID_ == id) return;
    profilingRunID_ = id;
    emit profilingRunIDChanged();
}

void CaptureCoordinator::setProfilingStartedAt(std::optional<Timestamp> startedAt) {
    if (profilingStartedAt_ == startedAt) return;
    profilingStartedAt_ = startedAt;
    emit profilingStartedAtChanged();
}

void CaptureCoordinator::setProfilingElapsed(const QString& elapsed) {
    if (profilingElapsed_ == elapsed) return;
    profilingElapsed_ = elapsed;
    emit profilingElapsedChanged();
}

void CaptureCoordinator::setProfilingMessage(const QString& message) {
    if (profilingMessage_ == message) return;
    profilingMessage_ = message;
    emit profilingMessageChanged();
}

void CaptureCoordinator::setLastCompletedRunID(std::optional<std::int64_t> id) {
    if (lastCompletedRunID_ == id) return;
    lastCompletedRunID_ = id;
    emit lastCompletedRunIDChanged();
}

void CaptureCoordinator::setLastExportPath(const std::optional<QString>& path) {
    if (lastExportPath_ == path) return;
    lastExportPath_ = path;
    emit lastExportPathChanged();
}

void CaptureCoordinator::setLastPackagedExportPath(const std::optional<QString>& path) {
    if (lastPackagedExportPath_ == path) return;
    lastPackagedExportPath_ = path;
    emit lastPackagedExportPathChanged();
}

void CaptureCoordinator::setAdaptivePredictorLabel(const QString& label) {
    if (adaptivePredictorLabel_ == label) return;
    adaptivePredictorLabel_ = label;
    emit adaptivePredictorLabelChanged();
}

void CaptureCoordinator::setAdaptivePredictorDetail(const QString& detail) {
    if (adaptivePredictorDetail_ == detail) return;
    adaptivePredictorDetail_ = detail;
    emit adaptivePredictorDetailChanged();
}

void CaptureCoordinator::setProfilingStopInProgress(bool value) {
    if (profilingStopInProgress_ == value) return;
    profilingStopInProgress_ = value;
    emit profilingStopInProgressChanged();
    emitDerivedChanges();
}

void CaptureCoordinator::setProfilingFinalizationInProgress(bool value) {
    if (profilingFinalizationInProgress_ == value) return;
    profilingFinalizationInProgress_ = value;
    emit profilingFinalizationInProgressChanged();
    emitDerivedChanges();
}

void CaptureCoordinator::setActiveWorkflowSource(std::optional<ProfilingWorkflowSource> source) {
    if (activeWorkflowSource_ == source) return;
    activeWorkflowSource_ = source;
    emit activeWorkflowSourceChanged();
    emitDerivedChanges();
}

void CaptureCoordinator::setLastCompletedWorkflowSource(
    std::optional<ProfilingWorkflowSource> source) {
    if (lastCompletedWorkflowSource_ == source) return;
    lastCompletedWorkflowSource_ = source;
    emit lastCompletedWorkflowSourceChanged();
    emitDerivedChanges();
}

namespace {
template <class T>
QVariant optionalVariant(const std::optional<T>& value) {
    return value ? QVariant::fromValue(*value) : QVariant();
}
}  // namespace

QVariant CaptureCoordinator::profilingRunIDValue() const {
    return profilingRunID_ ? QVariant::fromValue(qint64(*profilingRunID_)) : QVariant();
}
QVariant CaptureCoordinator::profilingStartedAtValue() const {
    if (!profilingStartedAt_) return {};
    return QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(*profilingStartedAt_ * 1000));
}
QVariant CaptureCoordinator::lastCompletedRunIDValue() const {
    return lastCompletedRunID_ ? QVariant::fromValue(qint64(*lastCompletedRunID_)) : QVariant();
}
QVariant CaptureCoordinator::lastExportPathValue() const {
    return optionalVariant(lastExportPath_);
}
QVariant CaptureCoordinator::lastPackagedExportPathValue() const {
    return optionalVariant(lastPackagedExportPath_);
}
QVariant CaptureCoordinator::lastAdaptiveExportPathValue() const {
    return optionalVariant(lastAdaptiveExportPath_);
}
QVariant CaptureCoordinator::activeWorkflowSourceValue() const {
    return activeWorkflowSource_ ? QVariant(rawValue(*activeWorkflowSource_)) : QVariant();
}
QVariant CaptureCoordinator::lastCompletedWorkflowSourceValue() const {
    return lastCompletedWorkflowSource_ ? QVariant(rawValue(*lastCompletedWorkflowSource_))
                                        : QVariant();
}

}  // namespace kelvo
