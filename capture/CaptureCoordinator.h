// Runs captures: profiling runs recorded while the control loop keeps running. Starts a run
// (optionally with synthetic load), keeps its elapsed clock, stops it by hand or on its
// auto-stop plan, hands it to the finalizer, watches every sample of the run for throttle
// signals, and at launch resumes or closes the run an earlier process left open.
// Main thread only. Database and packaging work runs on one worker thread of its own, so the
// service sees one call at a time and the main thread never waits on the disk.
#pragma once

#include <QCoroTask>
#include <QObject>
#include <QStringList>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "capture/CaptureAutoStopTimer.h"
#include "capture/CaptureFinalizer.h"
#include "capture/CaptureSeam.h"
#include "capture/CaptureViewModel.h"
#include "capture/CaptureWorker.h"
#include "capture/ProfilingWorkflowSource.h"
#include "capture/ProfilingWorkloadRunner.h"
#include "foundation/control/ControlLoop.h"
#include "foundation/core/ProfilingTypes.h"
#include "foundation/profiling/ProfilingService.h"
#include "foundation/profiling/ThrottleSignalDetector.h"

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

// The published state lives in CaptureViewModel; the coordinator is the object the capture card
// binds to, with the two calls the card makes.
class CaptureCoordinator : public CaptureViewModel, public CaptureSeam {
    Q_OBJECT

public:
    CaptureCoordinator(ControlLoop& controlLoop, ProfilingService& profilingService,
                       CaptureCoordinatorOptions options = {}, QObject* parent = nullptr);
    ~CaptureCoordinator() override;

    // CaptureSeam: what the runtime calls.
    QObject* viewModel() override { return this; }
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

    bool adaptiveRefreshAfterFinalizationEnabled() const {
        return finalizer_.adaptiveRefreshEnabled();
    }
    ProfilingWorkloadRunner& workloadRunner() { return *workloadRunner_; }
    // The throttle-signal state of the open run, for inspection.
    int droopConsecutiveSamples() const { return throttleSignals_.droopConsecutiveSamples(); }
    bool droopEventLatched() const { return throttleSignals_.droopEventLatched(); }
    bool autoStopPending() const { return autoStop_.pending(); }

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

signals:
    // Every finalization ends with this, overtaken or not; empty paths for what was not made.
    void finalizationFinished(qint64 runID, const QString& exportPath, const QString& bundlePath,
                              const QString& message);
    // A start attempt has ended (the run is open, or the start failed).
    void startFinished(bool started);
    // A run left open by a killed process was taken up again at launch.
    void captureResumed(qint64 runID);
    // Notes given to a start that found a resumed run: added to it, or why not.
    void resumedNotesHandled(qint64 runID, bool added, const QString& message);

private:
    void scheduleAutoStop(ProfilingWorkflowSource source, ProfilingScenario scenario,
                          bool startWorkload, Timestamp startedAt);
    void startWorkloadFor(ProfilingScenario scenario);
    QCoro::Task<> recordRunEvent(std::int64_t runID, const TelemetrySample& sample,
                                 const ThrottleSignal& signal);
    LearnedModel baselineOrDefault() const {
        return profilingBaselineModel_.value_or(LearnedModel{});
    }
    void notifyHistoryChanged() const;
    Timestamp now() const { return now_(); }

    // Database and file work runs on the one worker thread, in order.
    template <class F>
    auto onWorker(F job) {
        return worker_.run(std::move(job));
    }

    ControlLoop& controlLoop_;
    ProfilingService& profilingService_;
    std::function<Timestamp()> now_;
    CaptureWorker worker_;
    std::unique_ptr<ProfilingWorkloadRunner> workloadRunner_;
    std::function<ControlMode()> currentModeProvider_;
    std::function<void(ControlMode)> applyModeSelection_;
    std::function<void()> historyDidChange_;
    CaptureAutoStopTimer autoStop_;
    std::optional<LearnedModel> profilingBaselineModel_;
    ThrottleSignalDetector throttleSignals_;
    CaptureFinalizer finalizer_;

    bool startInFlight_ = false;
    std::optional<std::int64_t> resumedRunID_;  // until a start has taken up its notes
};

}  // namespace kelvo
