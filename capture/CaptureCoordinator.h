// Runs captures: profiling runs recorded while the control loop keeps running. Starts a run
// (optionally with synthetic load), keeps its elapsed clock, stops it by hand or on its
// auto-stop plan, finalizes and exports it, watches every sample of the run for throttle
// signals, and at launch resumes or closes the run an earlier process left open.
// Main thread only. Database and packaging work runs on one worker thread of its own, so the
// service sees one call at a time and the main thread never waits on the disk.
#pragma once

#include <QCoroTask>
#include <QDateTime>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QThreadPool>
#include <QTimer>
#include <QUuid>
#include <QVariant>
#include <QtConcurrent/QtConcurrentRun>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "capture/CaptureSeam.h"
#include "capture/ProfilingWorkflowSource.h"
#include "capture/ProfilingWorkloadRunner.h"
#include "foundation/control/ControlLoop.h"
#include "foundation/profiling/ProfilingService.h"
#include "foundation/core/ProfilingTypes.h"

namespace kelvo {

struct CaptureCoordinatorOptions {
    QStringList arguments;  // "--adaptive-refresh-after-finalization" turns the refresh on
    std::function<QString()> profilesBaseDirectory;  // default: AppBuildInfo's
    std::function<void(const QString&)> reveal;      // default: the file manager
    std::function<ProfilingResult<std::string>(const std::string&)> createBundle;  // the bundler
    std::chrono::milliseconds finalizationWatchdog{15000};
    std::function<Timestamp()> now;  // default: the wall clock
    std::unique_ptr<ProfilingWorkloadRunner> workloadRunner;
};

class CaptureCoordinator : public QObject, public CaptureSeam {
    Q_OBJECT
    Q_PROPERTY(QString betaCaptureNotes READ betaCaptureNotes WRITE setBetaCaptureNotes NOTIFY
                   betaCaptureNotesChanged)
    Q_PROPERTY(
        QString operatorNotes READ operatorNotes WRITE setOperatorNotes NOTIFY operatorNotesChanged)
    Q_PROPERTY(QString profilingScenario READ profilingScenarioRaw NOTIFY profilingScenarioChanged)
    Q_PROPERTY(int profilingDurationMinutes READ profilingDurationMinutes WRITE
                   setProfilingDurationMinutes NOTIFY profilingDurationMinutesChanged)
    Q_PROPERTY(bool profilingIsRunning READ profilingIsRunning NOTIFY profilingIsRunningChanged)
    Q_PROPERTY(QVariant profilingRunID READ profilingRunIDValue NOTIFY profilingRunIDChanged)
    Q_PROPERTY(
        QVariant profilingStartedAt READ profilingStartedAtValue NOTIFY profilingStartedAtChanged)
    Q_PROPERTY(QString profilingElapsed READ profilingElapsed NOTIFY profilingElapsedChanged)
    Q_PROPERTY(QString profilingMessage READ profilingMessage NOTIFY profilingMessageChanged)
    Q_PROPERTY(
        QVariant lastCompletedRunID READ lastCompletedRunIDValue NOTIFY lastCompletedRunIDChanged)
    Q_PROPERTY(QVariant lastExportPath READ lastExportPathValue NOTIFY lastExportPathChanged)
    Q_PROPERTY(QVariant lastPackagedExportPath READ lastPackagedExportPathValue NOTIFY
                   lastPackagedExportPathChanged)
    Q_PROPERTY(QVariant lastAdaptiveExportPath READ lastAdaptiveExportPathValue NOTIFY
                   lastAdaptiveExportPathChanged)
    Q_PROPERTY(QString adaptivePredictorLabel READ adaptivePredictorLabel NOTIFY
                   adaptivePredictorLabelChanged)
    Q_PROPERTY(QString adaptivePredictorDetail READ adaptivePredictorDetail NOTIFY
                   adaptivePredictorDetailChanged)
    Q_PROPERTY(bool profilingPlanIsRunning READ profilingPlanIsRunning NOTIFY
                   profilingPlanIsRunningChanged)
    Q_PROPERTY(QString profilingPlanProgress READ profilingPlanProgress NOTIFY
                   profilingPlanProgressChanged)
    Q_PROPERTY(bool profilingStopInProgress READ profilingStopInProgress NOTIFY
                   profilingStopInProgressChanged)
    Q_PROPERTY(bool profilingFinalizationInProgress READ profilingFinalizationInProgress NOTIFY
                   profilingFinalizationInProgressChanged)
    Q_PROPERTY(QVariant activeWorkflowSource READ activeWorkflowSourceValue NOTIFY
                   activeWorkflowSourceChanged)
    Q_PROPERTY(QVariant lastCompletedWorkflowSource READ lastCompletedWorkflowSourceValue NOTIFY
                   lastCompletedWorkflowSourceChanged)
    Q_PROPERTY(QString currentWorkflowLabel READ currentWorkflowLabel NOTIFY workflowLabelChanged)
    Q_PROPERTY(
        bool captureInteractionLocked READ captureInteractionLocked NOTIFY interactionLockChanged)
    // The name of the dashboard's system colour: "orange" while a run is open or being wrapped
    // up, else "secondary".
    Q_PROPERTY(QString captureActivityTint READ captureActivityTintName NOTIFY activityTintChanged)

public:
    static constexpr int kDroopStreakSamples = 8;
    static constexpr double kDroopScoreThreshold = 0.12;
    static constexpr double kLoadGateUtilizationPct = 70.0;
    static constexpr double kLoadGatePowerW = 45.0;
    static constexpr double kHeatGateMarginC = 18.0;
    static constexpr double kBurstRampMHzPerSecond = 1800.0;
    static constexpr double kBurstUtilizationPct = 80.0;
    static constexpr double kBurstUtilizationRisePct = 18.0;
    static constexpr double kBurstPowerRampWPerSecond = 45.0;
    static constexpr double kBurstSpacingSeconds = 2.0;
    static constexpr double kMinimumSampleSpacingSeconds = 0.05;

    CaptureCoordinator(ControlLoop& controlLoop, ProfilingService& profilingService,
                       CaptureCoordinatorOptions options = {}, QObject* parent = nullptr);
    ~CaptureCoordinator() override;

    // CaptureSeam: what the runtime calls.
    void configure(std::function<ControlMode()> currentModeProvider,
                   std::function<void(ControlMode)> applyModeSelection,
                   std::function<void()> historyDidChange) override;
    QCoro::Task<> restorePersistentState() override;
    QCoro::Task<> evaluateProfilingThrottleSignals(const ControlSnapshot& snapshot) override;
    void updateProfilingClock(Timestamp now) override;
    void updateAdaptivePredictorSummary(const std::optional<AdaptiveLeadModel>& model) override;
    void setAdaptivePredictorLabel(const QString& label) override;
    void setAdaptivePredictorDetail(const QString& detail) override;

    // What the capture card calls.
    Q_INVOKABLE void startBetaCapture();
    Q_INVOKABLE void beginCaptureStop(bool packageBundle);

    QCoro::Task<> evaluateProfilingThrottleSignals(const TelemetrySample& sample);

    // Published fields.
    const QString& betaCaptureNotes() const { return betaCaptureNotes_; }
    void setBetaCaptureNotes(const QString& notes);
    const QString& operatorNotes() const { return operatorNotes_; }
    void setOperatorNotes(const QString& notes);
    ProfilingScenario profilingScenario() const { return profilingScenario_; }
    QString profilingScenarioRaw() const;
    int profilingDurationMinutes() const { return profilingDurationMinutes_; }
    void setProfilingDurationMinutes(int minutes);
    bool profilingIsRunning() const { return profilingIsRunning_; }
    std::optional<std::int64_t> profilingRunID() const { return profilingRunID_; }
    std::optional<Timestamp> profilingStartedAt() const { return profilingStartedAt_; }
    const QString& profilingElapsed() const { return profilingElapsed_; }
    const QString& profilingMessage() const { return profilingMessage_; }
    std::optional<std::int64_t> lastCompletedRunID() const { return lastCompletedRunID_; }
    const std::optional<QString>& lastExportPath() const { return lastExportPath_; }
    const std::optional<QString>& lastPackagedExportPath() const { return lastPackagedExportPath_; }
    const std::optional<QString>& lastAdaptiveExportPath() const { return lastAdaptiveExportPath_; }
    const QString& adaptivePredictorLabel() const { return adaptivePredictorLabel_; }
    const QString& adaptivePredictorDetail() const { return adaptivePredictorDetail_; }
    bool profilingPlanIsRunning() const { return profilingPlanIsRunning_; }
    const QString& profilingPlanProgress() const { return profilingPlanProgress_; }
    bool profilingStopInProgress() const { return profilingStopInProgress_; }
    bool profilingFinalizationInProgress() const { return profilingFinalizationInProgress_; }
    std::optional<ProfilingWorkflowSource> activeWorkflowSource() const {
        return activeWorkflowSource_;
    }
    std::optional<ProfilingWorkflowSource> lastCompletedWorkflowSource() const {
        return lastCompletedWorkflowSource_;
    }

    QString currentWorkflowLabel() const;
    bool captureInteractionLocked() const;
    enum class ActivityTint { secondary, orange };
    ActivityTint captureActivityTint() const;
    QString captureActivityTintName() const;

    bool adaptiveRefreshAfterFinalizationEnabled() const { return adaptiveRefreshEnabled_; }
    ProfilingWorkloadRunner& workloadRunner() { return *workloadRunner_; }
    // The throttle-signal state of the open run, for inspection.
    int droopConsecutiveSamples() const { return droopConsecutiveSamples_; }
    bool droopEventLatched() const { return droopEventLatched_; }
    bool autoStopPending() const { return autoStopTimer_.isActive() || autoStopQueued_; }

    // Starts a run with every choice spelled out (the beta path passes its own fixed ones).
    struct StartRequest {
        std::optional<ControlMode> forcedMode;
        std::optional<ProfilingScenario> scenarioOverride;
        bool startWorkload = false;
        std::optional<QString> notesOverride;
        ProfilingWorkflowSource workflowSource = ProfilingWorkflowSource::betaCapture;
        QString modelID;
        QString modelSource;
    };

signals:
    void betaCaptureNotesChanged();
    void operatorNotesChanged();
    void profilingScenarioChanged();
    void profilingDurationMinutesChanged();
    void profilingIsRunningChanged();
    void profilingRunIDChanged();
    void profilingStartedAtChanged();
    void profilingElapsedChanged();
    void profilingMessageChanged();
    void lastCompletedRunIDChanged();
    void lastExportPathChanged();
    void lastPackagedExportPathChanged();
    void lastAdaptiveExportPathChanged();
    void adaptivePredictorLabelChanged();
    void adaptivePredictorDetailChanged();
    void profilingPlanIsRunningChanged();
    void profilingPlanProgressChanged();
    void profilingStopInProgressChanged();
    void profilingFinalizationInProgressChanged();
    void activeWorkflowSourceChanged();
    void lastCompletedWorkflowSourceChanged();
    void workflowLabelChanged();
    void interactionLockChanged();
    void activityTintChanged();
    // Every finalization ends with this, overtaken or not; empty paths for what was not made.
    void finalizationFinished(qint64 runID, const QString& exportPath, const QString& bundlePath,
                              const QString& message);
    // A start attempt has ended (the run is open, or the start failed).
    void startFinished(bool started);
    // A run left open by a killed process was taken up again at launch.
    void captureResumed(qint64 runID);
    // Notes given to a start that found a resumed run: added to it, or why not.
    void resumedNotesHandled(qint64 runID, bool added, const QString& message);

public:
    // The single entry that opens a run; startBetaCapture is its caller in the app.
    QCoro::Task<> startProfilingAsync(StartRequest request);
    // A start that finds the run resumed at launch adds its notes to that run instead.
    QCoro::Task<> addNotesToResumedRun(std::int64_t runID, QString notes);
    // Stops the open run; with exportArtifacts it goes on to finalization.
    QCoro::Task<> stopProfilingAsync(bool exportArtifacts, bool packageBundle);
    // What the auto-stop timer runs: stops only the run it was planned for.
    void handleAutoStopTimerFired(std::int64_t expectedRunID,
                                  ProfilingWorkflowSource expectedWorkflowSource,
                                  bool packageBundle);

private:
    void scheduleAutoStop(ProfilingWorkflowSource source, ProfilingScenario scenario,
                          bool startWorkload, Timestamp startedAt);
    void cancelAutoStop();
    void resetThrottleSignalState();
    void startWorkloadFor(ProfilingScenario scenario);

    // Finalization and export.
    void launchFinalization(std::int64_t runID, bool packageBundle);
    QCoro::Task<> performFinalization(std::int64_t runID, bool packageBundle, QUuid token);
    void cancelFinalizationTasks(bool resetState);
    void handleFinalizationWatchdog(QUuid token);
    // The derived model (installed in the loop), or the loop's current one with a note.
    QCoro::Task<std::optional<LearnedModel>> modelForExport(std::int64_t runID, QStringList& notes);
    QCoro::Task<> clearRowsAfterExport(std::int64_t runID, QStringList& notes);
    QString newExportFolder() const;
    // The artifacts, or why they could not be written (the folder and the system's reason).
    QCoro::Task<ProfilingResult<ProfilingExportArtifacts>> exportProfileArtifacts(
        std::int64_t runID, std::optional<LearnedModel> modelOverride, bool updateMessage);
    QCoro::Task<> refreshAdaptiveModelAfterFinalization(std::int64_t runID,
                                                        std::optional<LearnedModel> baseline);

    // Throttle signals.
    QCoro::Task<> recordRunEvent(std::int64_t runID, const TelemetrySample& sample,
                                 const char* kind, QString severity,
                                 std::vector<std::pair<std::string, double>> extra);
    QCoro::Task<> recordBurstRampEventIfNeeded(std::int64_t runID, const TelemetrySample& sample,
                                               double cpuDrop, double gpuDrop);

    // Database and file work runs on the one worker thread, in order.
    template <class F>
    auto onWorker(F job) {
        return QtConcurrent::run(&worker_, std::move(job));
    }

    // Runs that ended without an export that worked (it failed, or the run was closed at a
    // launch) are exported again, at launch and after every capture that exports, at most
    // kKeptRunsPerPass at a time; nothing is revealed for them, an event says where they went.
    static constexpr int kKeptRunsPerPass = 5;
    QCoro::Task<> exportKeptRuns(std::optional<std::int64_t> except);
    QCoro::Task<bool> exportKeptRun(std::int64_t runID);
    QCoro::Task<> recordRuntimeEvent(RuntimeEvent event);

    // Publishing: each setter compares first and emits only on change.
    void setProfilingScenario(ProfilingScenario scenario);
    void setProfilingIsRunning(bool running);
    void setProfilingRunID(std::optional<std::int64_t> id);
    void setProfilingStartedAt(std::optional<Timestamp> startedAt);
    void setProfilingElapsed(const QString& elapsed);
    void setProfilingMessage(const QString& message);
    void setLastCompletedRunID(std::optional<std::int64_t> id);
    void setLastExportPath(const std::optional<QString>& path);
    void setLastPackagedExportPath(const std::optional<QString>& path);
    void setProfilingStopInProgress(bool value);
    void setProfilingFinalizationInProgress(bool value);
    void setActiveWorkflowSource(std::optional<ProfilingWorkflowSource> source);
    void setLastCompletedWorkflowSource(std::optional<ProfilingWorkflowSource> source);
    void emitDerivedChanges();
    QVariant profilingRunIDValue() const;
    QVariant profilingStartedAtValue() const;
    QVariant lastCompletedRunIDValue() const;
    QVariant lastExportPathValue() const;
    QVariant lastPackagedExportPathValue() const;
    QVariant lastAdaptiveExportPathValue() const;
    QVariant activeWorkflowSourceValue() const;
    QVariant lastCompletedWorkflowSourceValue() const;
    Timestamp now() const { return now_(); }

    // Published.
    QString betaCaptureNotes_;
    QString operatorNotes_;
    ProfilingScenario profilingScenario_ = ProfilingScenario::realWorkflow;
    int profilingDurationMinutes_ = 15;
    bool profilingIsRunning_ = false;
    std::optional<std::int64_t> profilingRunID_;
    std::optional<Timestamp> profilingStartedAt_;
    QString profilingElapsed_ = QStringLiteral("00:00");
    QString profilingMessage_ = QStringLiteral("Idle");
    std::optional<std::int64_t> lastCompletedRunID_;
    std::optional<QString> lastExportPath_;
    std::optional<QString> lastPackagedExportPath_;
    std::optional<QString> lastAdaptiveExportPath_;
    QString adaptivePredictorLabel_ = QStringLiteral("Baseline");
    QString adaptivePredictorDetail_ = QStringLiteral("No adaptive model active");
    bool profilingPlanIsRunning_ = false;
    QString profilingPlanProgress_;
    bool profilingStopInProgress_ = false;
    bool profilingFinalizationInProgress_ = false;
    std::optional<ProfilingWorkflowSource> activeWorkflowSource_;
    std::optional<ProfilingWorkflowSource> lastCompletedWorkflowSource_;

    // Private.
    ControlLoop& controlLoop_;
    ProfilingService& profilingService_;
    std::unique_ptr<ProfilingWorkloadRunner> workloadRunner_;
    std::function<ControlMode()> currentModeProvider_;
    std::function<void(ControlMode)> applyModeSelection_;
    std::function<void()> historyDidChange_;
    QTimer autoStopTimer_;
    bool autoStopQueued_ = false;
    std::uint64_t autoStopGeneration_ = 0;
    std::optional<LearnedModel> profilingBaselineModel_;
    std::optional<ThermalPressureLevel> lastThermalThrottleState_;
    int droopConsecutiveSamples_ = 0;
    bool droopEventLatched_ = false;
    std::optional<TelemetrySample> lastProfilingSample_;
    std::optional<Timestamp> lastBurstEventAt_;
    bool finalizationTaskRunning_ = false;
    QTimer finalizationWatchdogTimer_;
    QUuid finalizationToken_ = QUuid::createUuid();
    bool adaptiveRefreshEnabled_ = false;

    bool startInFlight_ = false;
    std::optional<std::int64_t> resumedRunID_;  // until a start has taken up its notes
    // The derived values as last announced, so their signals fire only on a change.
    QString publishedWorkflowLabel_ = QStringLiteral("Idle");
    bool publishedInteractionLock_ = false;
    ActivityTint publishedTint_ = ActivityTint::secondary;
    std::function<QString()> profilesBaseDirectory_;
    std::function<void(const QString&)> reveal_;
    std::function<ProfilingResult<std::string>(const std::string&)> createBundle_;
    std::chrono::milliseconds finalizationWatchdog_;
    std::function<Timestamp()> now_;
    QThreadPool worker_;  // one thread: the service sees one call at a time
};

}  // namespace kelvo
