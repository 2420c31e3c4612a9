// Wraps up a stopped capture run: derives the run's model, exports the run, packages and reveals
// the export, clears the exported rows and sends out runs kept by earlier failed exports. A
// watchdog tells the user when that takes long; a newer start takes the card back from it.
#pragma once

#include <QCoroTask>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <QUuid>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "foundation/control/ControlLoop.h"
#include "foundation/core/ProfilingTypes.h"
#include "foundation/profiling/ProfilingService.h"

namespace kelvo {

class CaptureViewModel;
class CaptureWorker;

struct CaptureFinalizerOptions {
    std::function<QString()> profilesBaseDirectory;
    std::function<void(const QString&)> reveal;
    std::function<ProfilingResult<std::string>(const std::string&)> createBundle;
    std::chrono::milliseconds watchdog{15000};
    bool adaptiveRefresh = false;  // refit the adaptive predictor after every finalization
};

class CaptureFinalizer : public QObject {
    Q_OBJECT
public:
    // `published` shows the progress and the paths written; `baselineModel` answers with the
    // finished run's baseline; `historyDidChange` is told whenever stored runs change.
    CaptureFinalizer(ControlLoop& controlLoop, ProfilingService& profilingService,
                     CaptureWorker& worker, CaptureViewModel& published,
                     CaptureFinalizerOptions options,
                     std::function<std::optional<LearnedModel>()> baselineModel,
                     std::function<void()> historyDidChange, QObject* parent = nullptr);

    // Finalizes a stopped run; the watchdog starts unless it is over at once.
    void launch(std::int64_t runID, bool packageBundle);
    // Takes the card back from the finalization under way: it still writes its files, but no
    // longer publishes; with resetState the card shows no finalization.
    void cancel(bool resetState);

    // Runs that ended without an export that worked (it failed, or the run was closed at a
    // launch) are exported again, at launch and after every capture that exports, at most
    // kKeptRunsPerPass at a time; nothing is revealed for them, an event says where they went.
    static constexpr int kKeptRunsPerPass = 5;
    QCoro::Task<> exportKeptRuns(std::optional<std::int64_t> except);

    bool adaptiveRefreshEnabled() const { return options_.adaptiveRefresh; }

signals:
    // Every finalization ends with this, overtaken or not; empty paths for what was not made.
    void finished(qint64 runID, const QString& exportPath, const QString& bundlePath,
                  const QString& message);

private:
    QCoro::Task<> perform(std::int64_t runID, bool packageBundle, QUuid token);
    void handleWatchdog(QUuid token);
    void stopWatchdog();
    // The derived model (installed in the loop), or the loop's current one with a note.
    QCoro::Task<std::optional<LearnedModel>> modelForExport(std::int64_t runID, QStringList& notes);
    QCoro::Task<> clearRowsAfterExport(std::int64_t runID, QStringList& notes);
    QString newExportFolder() const;
    // The artifacts, or why they could not be written (the folder and the system's reason).
    QCoro::Task<ProfilingResult<ProfilingExportArtifacts>> exportProfileArtifacts(
        std::int64_t runID, std::optional<LearnedModel> modelOverride);
    QCoro::Task<> refreshAdaptiveModel(std::int64_t runID, std::optional<LearnedModel> baseline);

    QCoro::Task<bool> exportKeptRun(std::int64_t runID);
    QCoro::Task<> recordRuntimeEvent(RuntimeEvent event);

    ControlLoop& controlLoop_;
    ProfilingService& profilingService_;
    CaptureWorker& worker_;
    CaptureViewModel& published_;
    CaptureFinalizerOptions options_;
    std::function<std::optional<LearnedModel>()> baselineModel_;
    std::function<void()> historyDidChange_;
    QTimer watchdogTimer_;
    // The finalization that owns the card; any other one writes its files without publishing.
    QUuid token_ = QUuid::createUuid();
};

}  // namespace kelvo
