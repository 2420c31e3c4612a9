#include "app/AppRuntime.h"

#include <QCoreApplication>
#include <QCoroFuture>

#include "app/BuildIdentity.h"
#include "app/FanBackendSelection.h"
#include "app/MachineExplanation.h"
#include "app/SleepWatcher.h"
#include "app_common/LoopCall.h"
#include "foundation/store/FanCurveStoreLink.h"

namespace kelvo {

namespace {
constexpr std::size_t kEventReadLimit = 160;
}  // namespace

std::shared_ptr<FanController> AppRuntime::makeFanController(const QStringList& arguments) {
    return FanBackendSelection::fromArguments(arguments).makeFanController();
}

ControlMode AppRuntime::restoredMode(QSettings& settings) {
    return ControlModeStore::restoredMode(settings);
}

QString AppRuntime::fallbackAlertReason(const QString& message) {
    return AlertFilter::fallbackReason(message);
}

AppRuntime::AppRuntime(AppRuntimeOptions options, QObject* parent)
    : QObject(parent), options_(std::move(options)) {
    // 1. Notifications; identity summary and the optional fields keep their initial values.
    notifications_ = new NotificationCoordinator(this);
    if (options_.settings) {
        settings_ = options_.settings;
    } else {
        // Native format: an INI file at $XDG_CONFIG_HOME/Kelvo/Kelvo.conf.
        ownedSettings_ =
            std::make_unique<QSettings>(QStringLiteral("Kelvo"), QStringLiteral("Kelvo"));
        settings_ = ownedSettings_.get();
    }
    // 2. The persisted mode.
    modeStore_ = new ControlModeStore(settings_, this);
    connect(modeStore_, &ControlModeStore::modeChanged, this, &AppRuntime::modeChanged);
    // 3. Stores.
    presentation_ = new AppPresentationStore(settings_, this);
    live_ = new LiveDashboardStore(this);
    // 4. One-time storage reset, before any database is opened.
    const auto reset = legacy::applyOneTimeStorageResetIfNeeded(*settings_);
    const QString databasePath = AppBuildInfo::defaultDatabasePath();
    // 5-6. Capabilities, fan back-end and telemetry.
    tracker_ = std::make_shared<HardwareCapabilityTracker>();
    const auto backend = FanBackendSelection::fromArguments(options_.arguments);
    fanController_ = options_.fanControllerOverride ? options_.fanControllerOverride
                                                    : backend.makeFanController();
    telemetry_ = options_.telemetryOverride ? options_.telemetryOverride
                                            : backend.makeTelemetryProvider(fanController_);
    // 7. External control policy.
    acceptsExternalModeControl_ =
        options_.arguments.contains(QStringLiteral("--allow-external-control"));
    // 8. Store and event ring.
    store_ = std::make_shared<SQLiteStore>(databasePath.toStdString());
    attachFanCurveStore();
    eventRing_ = std::make_shared<EventRing>(160, 300.0);
    if (options_.eventObserver) eventRing_->setAppendObserver(options_.eventObserver);
    // 9. The reset's outcome, then anything the store or the settings had to report.
    if (auto message = reset.startupMessage())
        eventRing_->append(
            RuntimeEvent::make(message->toStdString(), !reset.failedFiles.isEmpty()));
    for (auto& event : store_->takeStartupEvents()) {
        eventRing_->append(event);
        store_->appendEvent(event);
    }
    reportSettingsProblems();
    // 10. Profiling service and the loop.
    profilingService_ = std::make_unique<ProfilingService>(eventRing_, databasePath.toStdString());
    controlLoop_ = std::make_unique<ControlLoop>(telemetry_, fanController_, store_, eventRing_,
                                                 tracker_, options_.loopConfig);
    // The user's fan choices and limits, handed to the engine once the loop runs.
    fanSettings_ = new FanSettingsModel(
        settings_, backend.paths.sysfsRoot,
        [this](const FanChoices& choices, const UserLimits& limits) {
            loopCall(*controlLoop_, [choices, limits](ControlEngine& e) {
                e.setFanChoices(choices);
                e.setUserLimits(limits.cpuQuietC, limits.gpuQuietC, limits.performanceTargetC);
            });
        },
        this);
    fanSettings_->setApplyShare([this](bool share) {
        loopCall(*controlLoop_, [share](ControlEngine& e) { e.setShareAmongFans(share); });
    });
    fanSettings_->setMeasureAgain(
        [this] { loopCall(*controlLoop_, [](ControlEngine& e) { e.measureFansAgain(); }); });
    fanSettings_->setReport([this](const std::string& message) {
        recordThroughLoop(RuntimeEvent::make(message, true));
    });
    // A calibration the user asked for (the pane, or kelvoctl through the settings): the engine
    // records what it does and how it goes.
    fanSettings_->setCalibrate([this](const std::string& identity) {
        loopCall(*controlLoop_,
                 [identity](ControlEngine& e) { e.requestFanCalibration(identity); });
    });
    // Accepted without --allow-external-control: the signal only makes Kelvo re-read the user's
    // own settings file, which the sender could have edited anyway. Anyone on the bus may send it
    // as often as they like: a burst is one re-read per window and one event with its count.
    fanSettingsReloads_ = new SignalCoalescer(
        kFanSettingsReloadWindow, kLongestReportedBurst, [this] { fanSettings_->reload(); },
        [this](long notices, long reloads) {
            std::string message = "Fan choices and limits re-read from the settings";
            if (notices > 1)
                message += " (" + std::to_string(notices) + " change notices, " +
                           std::to_string(reloads) + (reloads == 1 ? " re-read)" : " re-reads)");
            recordThroughLoop(RuntimeEvent::make(message));
        },
        this);
    fanSettingsWatch_ = new ExternalControlBridge(this);
    fanSettingsWatch_->installFanSettingsWatch();
    connect(fanSettingsWatch_, &ExternalControlBridge::fanSettingsChanged, fanSettingsReloads_,
            &SignalCoalescer::notify);
    // 11. Capture coordinator; both callbacks hold the runtime weakly.
    if (options_.makeCapture) {
        capture_ = options_.makeCapture(*controlLoop_, *profilingService_);
        if (capture_) {
            QPointer<AppRuntime> weak(this);
            // The capture's selection is persisted but the loop keeps its mode.
            capture_->configure([weak] { return weak ? weak->mode() : ControlMode::systemAuto; },
                                [weak](ControlMode mode) {
                                    if (weak) weak->modeStore_->select(mode);
                                },
                                [] {});
        }
    }
    // 12. External control.
    // Listened to also when not accepted: kelvoctl is then told why nothing happened.
    installExternalModeObserver();
    // 12b. Sleep and resume, from logind on the system bus.
    SleepWatcher::Callbacks sleep;
    sleep.changed = [this](bool sleeping) {
        loopCall(*controlLoop_, [sleeping](ControlEngine& e) { e.setSleeping(sleeping); });
    };
    sleep.unavailable = [this](const QString& why) {
        recordThroughLoop(RuntimeEvent::make("Sleep and resume are not followed: no system bus (" +
                                             why.toStdString() + ")"));
    };
    sleep.sleepNeverCame = [this](std::chrono::milliseconds waited) {
        recordThroughLoop(RuntimeEvent::make(
            "The system announced a sleep that never came (still awake after " +
                std::to_string(std::chrono::duration_cast<std::chrono::seconds>(waited).count()) +
                " s); Kelvo takes the fans back",
            true));
    };
    sleepWatcher_ = new SleepWatcher(std::move(sleep), options_.sleepNeverCameAfter, this);
    sleepWatcher_->subscribe();
    // 13. Window visibility drives the live store's buffering.
    applyVisibility(presentation_->dashboardWindowVisibility());
    connect(presentation_, &AppPresentationStore::dashboardWindowVisibilityChanged, this,
            [this] { applyVisibility(presentation_->dashboardWindowVisibility()); });
    // 14. Start-up.
    startupTask();
}

AppRuntime::~AppRuntime() {
    shutdown();
    // The coordinator's queued database work uses the profiling service: it goes first.
    capture_.reset();
}

void AppRuntime::shutdown() {
    if (shutDown_) return;
    shutDown_ = true;
    // After stop() returns no snapshot handler is running or will run again.
    controlLoop_->stop();
    if (subscriptionID_) controlLoop_->unsubscribe(*subscriptionID_);
}

void AppRuntime::attachFanCurveStore() {
    kelvo::attachFanCurveStore(*fanController_, store_);
}

void AppRuntime::reportSettingsProblems() {
    if (settings_->status() == QSettings::NoError) return;
    const char* what =
        settings_->status() == QSettings::FormatError ? "format error" : "access error";
    eventRing_->append(RuntimeEvent::make("Settings file " + settings_->fileName().toStdString() +
                                              " could not be read (" + what + "); using defaults",
                                          true));
}

void AppRuntime::explainMachineOnce(const ControlSnapshot& snapshot) {
    if (ticksBeforeExplaining_ <= 0 || --ticksBeforeExplaining_ > 0) return;
    const auto sentence = explainMachine(snapshot);
    if (!sentence) return;
    eventRing_->append(RuntimeEvent::make(*sentence, false));
    emit machineExplained(QString::fromStdString(*sentence));
}

void AppRuntime::applyVisibility(DashboardWindowVisibility visibility) {
    live_->applyWindowVisibility(visibility);
}

void AppRuntime::installExternalModeObserver() {
    externalBridge_ = new ExternalControlBridge(this);
    externalBridge_->install();
    externalRequests_ = new ExternalRequestQueue(
        kExternalRequestCoalesceMs,
        [this](const ExternalRequestQueue::Batch& batch) { applyExternalRequests(batch); }, this);
    connect(externalBridge_, &ExternalControlBridge::modeRequested, this,
            &AppRuntime::queueExternalMode);
    connect(externalBridge_, &ExternalControlBridge::cooldownRequested, this,
            &AppRuntime::queueExternalCooldown);
}

void AppRuntime::queueExternalMode(ControlMode mode) {
    externalRequests_->queueMode(mode);
}

void AppRuntime::queueExternalCooldown(bool enabled) {
    externalRequests_->queueCooldown(enabled);
}

void AppRuntime::applyExternalRequests(const ExternalRequestQueue::Batch& batch) {
    const QString modeRequest =
        batch.mode ? QStringLiteral("mode ") + QString::fromUtf8(rawValue(*batch.mode).data())
                   : QString();
    const QString cooldownRequest =
        batch.cooldown ? QStringLiteral("cooldown ") +
                             (*batch.cooldown ? QStringLiteral("on") : QStringLiteral("off"))
                       : QString();
    if (!acceptsExternalModeControl_) {
        const QString why = QStringLiteral(
            "Kelvo takes no mode or cooldown requests from other programs: it was started "
            "without --allow-external-control. Choose in Kelvo's window, or start it with that "
            "flag.");
        for (const QString& request : {modeRequest, cooldownRequest})
            if (!request.isEmpty()) externalBridge_->answer(request, false, why);
        return;
    }
    // Only a change is applied: a repeated request writes no setting and records no event.
    if (batch.mode) {
        const QString name = QString::fromUtf8(displayName(*batch.mode).data());
        if (*batch.mode != mode()) {
            ++externalRequestsApplied_;
            setMode(*batch.mode);
            externalBridge_->answer(modeRequest, true,
                                    QStringLiteral("Kelvo switched to %1.").arg(name));
        } else {
            externalBridge_->answer(modeRequest, true,
                                    QStringLiteral("Kelvo was already in %1.").arg(name));
        }
    }
    if (batch.cooldown) {
        ++externalRequestsApplied_;
        loopCall(*controlLoop_,
                 [enabled = *batch.cooldown](ControlEngine& e) { e.setCooldownEnabled(enabled); });
        externalBridge_->answer(cooldownRequest, true,
                                *batch.cooldown ? QStringLiteral("Kelvo started a cooldown.")
                                                : QStringLiteral("Kelvo ended the cooldown."));
    }
}

void AppRuntime::setMode(ControlMode mode) {
    modeStore_->select(mode);
    applyModeTask(mode);
}

QCoro::Task<> AppRuntime::applyModeTask(ControlMode mode) {
    QPointer<AppRuntime> self(this);
    auto& loop = *controlLoop_;
    // GCC 12 mishandles temporaries inside co_await operands: keep every awaited future in a
    // named variable.
    auto applied = loopCall(loop, [mode](ControlEngine& e) {
        e.applyMode(mode);
        return std::make_pair(e.currentStatus(), e.isThrottleWarningActive());
    });
    auto state = co_await applied;
    if (!self) co_return;
    live_->setStatus(state.first);
    live_->setThrottleWarning(state.second);
    live_->clearPreview();
    auto events = eventRing_->recent(kEventReadLimit);
    live_->applyEventSnapshot(events);
    handleAlertsThrough(events);
}

QCoro::Task<> AppRuntime::restorePersistedModeIfNeeded() {
    QPointer<AppRuntime> self(this);
    auto& loop = *controlLoop_;
    const ControlMode wanted = mode();
    auto currentFuture = loopCall(loop, [](ControlEngine& e) { return e.currentMode(); });
    const ControlMode current = co_await currentFuture;
    if (!self || current == wanted) co_return;
    auto applied = loopCall(loop, [wanted](ControlEngine& e) {
        e.applyMode(wanted);
        return std::make_pair(e.currentStatus(), e.isThrottleWarningActive());
    });
    auto state = co_await applied;
    if (!self) co_return;
    auto events = eventRing_->recent(kEventReadLimit);
    live_->setStatus(state.first);
    live_->setThrottleWarning(state.second);
    live_->applyEventSnapshot(events);
    handleAlertsThrough(events);
}

QFuture<void> AppRuntime::recordThroughLoop(const RuntimeEvent& event) {
    return loopCall(*controlLoop_, [event](ControlEngine& e) { e.recordEvent(event); });
}

QCoro::Task<> AppRuntime::logBuildIdentityEvent(const char* prefix) {
    QPointer<AppRuntime> self(this);
    BuildIdentity identity;
    identity.shortVersion = AppBuildInfo::bundleValue(QString::fromLatin1(legacy::kShortVersionKey))
                                .value_or(QStringLiteral("unknown"));
    identity.build = AppBuildInfo::bundleValue(QString::fromLatin1(legacy::kBuildNumberKey))
                         .value_or(QStringLiteral("unknown"));
    identity.backend = AppBuildInfo::fanBackendLabel(*fanController_);
    auto helperTask = AppBuildInfo::resolveHelperVersion(fanController_);
    identity.helper = co_await helperTask;
    if (!self) co_return;
    identity.bundlePath = QCoreApplication::applicationDirPath();
    identity.fingerprint = AppBuildInfo::executableFingerprint();
    identity.stamp = AppBuildInfo::executableBuildStamp();

    buildIdentitySummary_ = identity.summary();
    live_->setBuildVersionLabel(identity.versionLabel());
    live_->setBuildVersionDetail(identity.versionDetail());
    auto recorded = recordThroughLoop(RuntimeEvent::make(
        (QString::fromUtf8(prefix) + QStringLiteral(": ") + buildIdentitySummary_).toStdString(),
        false, true));
    co_await recorded;
}

QCoro::Task<> AppRuntime::restoreAdaptivePredictor() {
    QPointer<AppRuntime> self(this);
    auto learned = profilingService_->activeLearnedModel();
    auto restored = profilingService_->restoreAdaptiveModel();
    if (restored.error) {
        eventRing_->append(
            RuntimeEvent::make("Failed to restore adaptive predictor: " + *restored.error, true));
        co_return;
    }
    auto model = restored.model;
    auto installed = loopCall(*controlLoop_, [model, learned](ControlEngine& e) {
        e.setAdaptiveLeadModel(model);
        if (learned) e.setLearnedModel(learned);
    });
    co_await installed;
    if (!self || !capture_) co_return;
    if (model) {
        capture_->updateAdaptivePredictorSummary(model);
    } else {
        capture_->setAdaptivePredictorLabel(QStringLiteral("Baseline"));
        capture_->setAdaptivePredictorDetail(QStringLiteral("No adaptive model active"));
    }
}

QCoro::Task<> AppRuntime::startupTask() {
    QPointer<AppRuntime> self(this);
    // 1. Subscribe, then start. The handler runs on the loop thread and only queues work here;
    // queued calls die with the runtime because it is their context object.
    subscriptionID_ = controlLoop_->subscribe([this](const ControlSnapshot& snapshot) {
        auto shared = std::make_shared<const ControlSnapshot>(snapshot);
        QMetaObject::invokeMethod(
            this, [this, shared] { handleSnapshot(shared); }, Qt::QueuedConnection);
    });
    controlLoop_->start();
    fanSettings_->applyToEngine();
    // 2. The external-control policy of this launch.
    co_await recordThroughLoop(RuntimeEvent::make(
        acceptsExternalModeControl_ ? "External mode control enabled for this launch"
                                    : "External mode control disabled for this launch"));
    if (!self) co_return;
    // 3-6.
    auto restoreMode = restorePersistedModeIfNeeded();
    co_await restoreMode;
    if (!self) co_return;
    if (capture_) {
        auto restoreCapture = capture_->restorePersistentState();
        co_await restoreCapture;
    }
    if (!self) co_return;
    auto identity = logBuildIdentityEvent("Startup build identity");
    co_await identity;
    if (!self) co_return;
    auto predictor = restoreAdaptivePredictor();
    co_await predictor;
    if (!self) co_return;
    startupFinished_ = true;
    emit startupCompleted();
}

QCoro::Task<> AppRuntime::handleSnapshot(std::shared_ptr<const ControlSnapshot> shared) {
    const ControlSnapshot& snapshot = *shared;
    QPointer<AppRuntime> self(this);
    if (capture_) {
        auto evaluated = capture_->evaluateProfilingThrottleSignals(snapshot);
        co_await evaluated;
        if (!self) co_return;
        capture_->updateProfilingClock(snapshot.sample.timestamp);
    }
    fanSettings_->updateFromSnapshot(snapshot);
    explainMachineOnce(snapshot);
    const auto events = eventRing_->recent(kEventReadLimit);
    if (!live_->shouldRefresh(snapshot.sample.timestamp)) {
        handleAlertsThrough(events);
        emit snapshotHandled(snapshot);
        co_return;
    }
    // The loop's state travels with the snapshot: it is the state at the end of the tick that
    // produced the sample, so the cards never mix two ticks.
    LiveSnapshot ingest;
    ingest.sample = snapshot.sample;
    ingest.decision = snapshot.decision;
    ingest.previewDecision = snapshot.previewDecision;
    ingest.previewActive = snapshot.previewActive;
    ingest.assessment = snapshot.assessment;
    ingest.status = snapshot.status;
    ingest.authority = snapshot.authority;
    ingest.throttleWarning = snapshot.throttleWarning;
    ingest.gpuConfig = snapshot.gpuConfig;
    ingest.events = events;
    live_->ingest(ingest);
    handleAlertsThrough(events);
    emit snapshotHandled(snapshot);
}

void AppRuntime::handleAlertsThrough(const std::vector<RuntimeEvent>& events) {
    if (events.empty()) {
        handleAlerts(eventRing_->latest());
        return;
    }
    // Every event since the last one handled, not only the newest: two events in one tick (the
    // fallback and a start-up record, say) must not swallow an alert.
    for (auto next = alertFilter_.firstUnhandled(events); next != events.end(); ++next)
        handleAlerts(*next);
}

void AppRuntime::handleAlerts(const std::optional<RuntimeEvent>& event) {
    if (!event) return;
    for (const auto& alert : alertFilter_.admit(*event, mode()))
        notifications_->post(alert.title, alert.body);
}

}  // namespace kelvo
