// The one runtime object of the process: composes the control loop and its fan back-end, holds
// the user's control mode, feeds every loop snapshot to the live store and the capture
// coordinator, accepts external requests when the launch allows it, and raises alerts. The
// concerns themselves live beside it: FanBackendSelection, ControlModeStore,
// ExternalRequestQueue, AlertFilter and BuildIdentity.
#pragma once

#include <QCoroTask>
#include <QFuture>
#include <QObject>
#include <QPointer>
#include <QSettings>
#include <QStringList>
#include <functional>
#include <memory>
#include <optional>

#include "app/AlertFilter.h"
#include "app/AppPresentationStore.h"
#include "app/ControlModeStore.h"
#include "app/ExternalControlBridge.h"
#include "app/ExternalRequestQueue.h"
#include "app/FanSettingsModel.h"
#include "app/NotificationCoordinator.h"
#include "app/SignalCoalescer.h"
#include "app/SleepWatcher.h"
#include "app_common/AppBuildInfo.h"
#include "app_common/LaunchPaths.h"
#include "capture/CaptureSeam.h"
#include "foundation/control/ControlLoop.h"
#include "foundation/control/HardwareCapabilityTracker.h"
#include "foundation/core/EventRing.h"
#include "foundation/core/FanController.h"
#include "foundation/core/TelemetryProvider.h"
#include "foundation/profiling/ProfilingService.h"
#include "foundation/store/SQLiteStore.h"
#include "live/LiveDashboardStore.h"

namespace kelvo {

struct AppRuntimeOptions {
    QStringList arguments;          // launch arguments (program name first or not)
    QSettings* settings = nullptr;  // the user defaults; null = Kelvo's own settings file
    ControlLoopConfig loopConfig;
    // Tests replace the back-end (a faulty one, say) or the telemetry; the launch flags choose
    // otherwise.
    std::shared_ptr<FanController> fanControllerOverride;
    std::shared_ptr<TelemetryProvider> telemetryOverride;
    std::function<std::unique_ptr<CaptureSeam>(ControlLoop&, ProfilingService&)> makeCapture;
    // Sees every runtime event as it is recorded, from the first one at start-up on, on
    // whichever thread records it (the headless run prints the failures).
    std::function<void(const RuntimeEvent&)> eventObserver;
    // How long a sleep announced by logind may fail to come before Kelvo takes the fans back.
    std::chrono::milliseconds sleepNeverCameAfter = SleepWatcher::kSleepNeverCameAfter;
};

class AppRuntime : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString mode READ modeRawValue NOTIFY modeChanged)
public:
    explicit AppRuntime(AppRuntimeOptions options = {}, QObject* parent = nullptr);
    ~AppRuntime() override;

    static std::shared_ptr<FanController> makeFanController(const QStringList& arguments);
    static ControlMode restoredMode(QSettings& settings);
    static QString fallbackAlertReason(const QString& message);

    ControlMode mode() const { return modeStore_->mode(); }
    QString modeRawValue() const { return modeStore_->modeRawValue(); }
    void setMode(ControlMode mode);

    AppPresentationStore* presentation() const { return presentation_; }
    LiveDashboardStore* live() const { return live_; }
    CaptureSeam* capture() const { return capture_.get(); }
    NotificationCoordinator* notifications() const { return notifications_; }
    FanSettingsModel* fanSettings() const { return fanSettings_; }
    ControlLoop& controlLoop() const { return *controlLoop_; }
    EventRing& eventRing() const { return *eventRing_; }
    ProfilingService& profilingService() const { return *profilingService_; }
    const std::shared_ptr<FanController>& fanController() const { return fanController_; }
    bool acceptsExternalModeControl() const { return acceptsExternalModeControl_; }
    bool hasExternalObservers() const { return externalBridge_ != nullptr; }
    // Mode and cooldown requests arrive here, also when they are not accepted (they are answered).
    ExternalControlBridge* externalRequestBridge() const { return externalBridge_; }
    // The watch for kelvoctl's FanSettingsChanged, always installed.
    ExternalControlBridge* fanSettingsWatch() const { return fanSettingsWatch_; }
    std::optional<Uuid> subscriptionID() const { return subscriptionID_; }
    const QString& buildIdentitySummary() const { return buildIdentitySummary_; }
    bool startupFinished() const { return startupFinished_; }
    SleepWatcher* sleepWatcher() const { return sleepWatcher_; }

    void handleAlerts(const std::optional<RuntimeEvent>& event);
    // handleAlerts for each event (oldest first) after the last one handled.
    void handleAlertsThrough(const std::vector<RuntimeEvent>& events);
    // Stops the loop, which gives the fans back to the firmware. Safe to call twice.
    void shutdown();

signals:
    void modeChanged();
    void startupCompleted();
    // After every snapshot has been handled on the main thread (the headless log listens).
    void snapshotHandled(const kelvo::ControlSnapshot& snapshot);
    // Once, a few ticks after the start, when the machine offers Kelvo no fan (the sentence is
    // also in the event list).
    void machineExplained(const QString& sentence);

public:
    // How long requests from other processes gather before the newest is applied: well under
    // a control tick, long enough that a flood costs a handful of applications a second.
    static constexpr int kExternalRequestCoalesceMs = 50;
    // External requests applied so far (after coalescing), for tests and the flood benchmark.
    int externalRequestsApplied() const { return externalRequestsApplied_; }
    // FanSettingsChanged: settings re-read at most once per window, the last notice of a burst
    // always followed by a re-read; a burst is one event, or one per longest burst in a flood.
    static constexpr std::chrono::milliseconds kFanSettingsReloadWindow{250};
    static constexpr std::chrono::milliseconds kLongestReportedBurst{60000};
    SignalCoalescer* fanSettingsReloads() const { return fanSettingsReloads_; }

private:
    void queueExternalMode(ControlMode mode);
    void queueExternalCooldown(bool enabled);
    void applyExternalRequests(const ExternalRequestQueue::Batch& batch);
    int externalRequestsApplied_ = 0;

    QCoro::Task<> startupTask();
    QCoro::Task<> handleSnapshot(std::shared_ptr<const ControlSnapshot> snapshot);
    QCoro::Task<> applyModeTask(ControlMode mode);
    QCoro::Task<> restorePersistedModeIfNeeded();
    QCoro::Task<> logBuildIdentityEvent(const char* prefix);
    QCoro::Task<> restoreAdaptivePredictor();
    QFuture<void> recordThroughLoop(const RuntimeEvent& event);
    void attachFanCurveStore();
    void installExternalModeObserver();
    void applyVisibility(DashboardWindowVisibility visibility);
    void reportSettingsProblems();
    void explainMachineOnce(const ControlSnapshot& snapshot);

    AppRuntimeOptions options_;
    std::unique_ptr<QSettings> ownedSettings_;
    QSettings* settings_ = nullptr;
    ControlModeStore* modeStore_ = nullptr;
    AppPresentationStore* presentation_ = nullptr;
    LiveDashboardStore* live_ = nullptr;
    std::unique_ptr<CaptureSeam> capture_;
    std::shared_ptr<HardwareCapabilityTracker> tracker_;
    std::shared_ptr<TelemetryProvider> telemetry_;
    std::shared_ptr<FanController> fanController_;
    bool acceptsExternalModeControl_ = false;
    std::shared_ptr<SQLiteStore> store_;
    std::shared_ptr<EventRing> eventRing_;
    std::unique_ptr<ProfilingService> profilingService_;
    std::unique_ptr<ControlLoop> controlLoop_;
    NotificationCoordinator* notifications_ = nullptr;
    ExternalControlBridge* externalBridge_ = nullptr;
    FanSettingsModel* fanSettings_ = nullptr;
    ExternalControlBridge* fanSettingsWatch_ = nullptr;
    SignalCoalescer* fanSettingsReloads_ = nullptr;
    ExternalRequestQueue* externalRequests_ = nullptr;
    SleepWatcher* sleepWatcher_ = nullptr;
    std::optional<Uuid> subscriptionID_;
    AlertFilter alertFilter_;
    QString buildIdentitySummary_ =
        QStringLiteral("app unknown (unknown), backend unknown, helper unknown");
    bool startupFinished_ = false;
    int ticksBeforeExplaining_ = kTicksBeforeExplainingMachine;
    // Sensors may give their first reading a tick or two late.
    static constexpr int kTicksBeforeExplainingMachine = 5;
    bool shutDown_ = false;
};

}  // namespace kelvo
