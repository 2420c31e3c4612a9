#include "capture/CaptureFinalizer.h"

#include <QCoroFuture>
#include <QDir>
#include <QFileInfo>
#include <QPointer>
#include <utility>

#include "app_common/AppBuildInfo.h"
#include "app_common/LoopCall.h"
#include "capture/CaptureViewModel.h"
#include "capture/CaptureWorker.h"

namespace kelvo {

namespace {

constexpr const char* kClosedDuringExport = "the capture was closed during the export";

QString fromStd(const std::string& text) {
    return QString::fromStdString(text);
}

}  // namespace

CaptureFinalizer::CaptureFinalizer(ControlLoop& controlLoop, ProfilingService& profilingService,
                                   CaptureWorker& worker, CaptureViewModel& published,
                                   CaptureFinalizerOptions options,
                                   std::function<std::optional<LearnedModel>()> baselineModel,
                                   std::function<void()> historyDidChange, QObject* parent)
    : QObject(parent),
      controlLoop_(controlLoop),
      profilingService_(profilingService),
      worker_(worker),
      published_(published),
      options_(std::move(options)),
      baselineModel_(std::move(baselineModel)),
      historyDidChange_(std::move(historyDidChange)) {
    watchdogTimer_.setSingleShot(true);
}

// ----- Ownership of the card -----------------------------------------------------------------

void CaptureFinalizer::stopWatchdog() {
    watchdogTimer_.stop();
    watchdogTimer_.disconnect(this);
}

void CaptureFinalizer::cancel(bool resetState) {
    token_ = QUuid::createUuid();
    stopWatchdog();
    if (resetState) published_.setProfilingFinalizationInProgress(false);
}

void CaptureFinalizer::launch(std::int64_t runID, bool packageBundle) {
    cancel(false);
    const QUuid token = QUuid::createUuid();
    token_ = token;
    published_.setProfilingFinalizationInProgress(true);
    published_.setProfilingMessage(QStringLiteral("Capture stopped. Finalizing export..."));
    perform(runID, packageBundle, token);
    // Over before its first wait (or overtaken already): nothing left to watch.
    if (token_ != token || !published_.profilingFinalizationInProgress()) return;
    connect(&watchdogTimer_, &QTimer::timeout, this, [this, token] { handleWatchdog(token); });
    watchdogTimer_.start(options_.watchdog);
}

void CaptureFinalizer::handleWatchdog(QUuid token) {
    if (token_ != token || !published_.profilingFinalizationInProgress()) return;
    published_.setProfilingFinalizationInProgress(false);
    published_.setProfilingMessage(
        QStringLiteral("Capture stopped. Finalization is taking longer than expected. The file "
                       "manager will open when "
                       "the export is ready."));
}

// ----- The finalization ----------------------------------------------------------------------

QCoro::Task<> CaptureFinalizer::perform(std::int64_t runID, bool packageBundle, QUuid token) {
    QPointer<CaptureFinalizer> self(this);
    QStringList notes;
    auto modelTask = modelForExport(runID, notes);
    const std::optional<LearnedModel> exportModel = co_await modelTask;
    if (!self) co_return;

    auto exportTask = exportProfileArtifacts(runID, exportModel);
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
            options_.reveal(exportPath);
            clearRows = true;
        } else {
            auto bundleFuture =
                worker_.run([bundle = options_.createBundle, folder = artifacts.value->folder] {
                    return bundle(folder);
                });
            const auto bundle = co_await bundleFuture;
            if (!self) co_return;
            if (bundle.ok()) {
                bundlePath = fromStd(*bundle.value);
                // The token guards the published state only: the bundle exists either way.
                if (token_ == token) published_.setLastPackagedExportPath(bundlePath);
                outcome = QStringLiteral(
                    "Capture stopped. Export packaged and revealed in the file manager.");
                options_.reveal(bundlePath);
                clearRows = true;
            } else {
                outcome = QStringLiteral(
                    "Capture stopped. Export created and revealed in the file manager, but "
                    "packaging "
                    "failed.");
                notes << retained;
                options_.reveal(exportPath);
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

    if (token_ == token) {
        stopWatchdog();
        published_.setProfilingFinalizationInProgress(false);
        published_.setProfilingMessage(message);
        if (options_.adaptiveRefresh) refreshAdaptiveModel(runID, exportModel);
    }
    emit finished(runID, exportPath, bundlePath, message);
}

QCoro::Task<std::optional<LearnedModel>> CaptureFinalizer::modelForExport(std::int64_t runID,
                                                                          QStringList& notes) {
    QPointer<CaptureFinalizer> self(this);
    auto currentFuture = loopCall(controlLoop_, [](ControlEngine& e) { return e.currentModel(); });
    const std::optional<LearnedModel> current = co_await currentFuture;
    if (!self) co_return current;
    auto& service = profilingService_;
    const auto baseline = baselineModel_();
    auto deriveFuture =
        worker_.run([&service, runID, baseline] { return service.deriveModel(runID, baseline); });
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

QCoro::Task<> CaptureFinalizer::clearRowsAfterExport(std::int64_t runID, QStringList& notes) {
    QPointer<CaptureFinalizer> self(this);
    auto& service = profilingService_;
    auto clearFuture = worker_.run([&service, runID] { return service.clearCapturedRows(runID); });
    const auto cleared = co_await clearFuture;
    if (!self) co_return;
    if (!cleared.ok()) {
        notes << QStringLiteral("Export succeeded but local SQLite cleanup failed: ") +
                     fromStd(cleared.error);
        co_return;
    }
    notes << QStringLiteral("Local SQLite capture rows were cleared after export (%1 rows).")
                 .arg(*cleared.value);
    historyDidChange_();
}

QString CaptureFinalizer::newExportFolder() const {
    const QDir base(options_.profilesBaseDirectory());
    const QString name = AppBuildInfo::profileTimestampFolderName();
    // Two exports within one second must not collide.
    QString folder = base.filePath(name);
    for (int n = 2; QFileInfo::exists(folder) && n < 100; ++n)
        folder = base.filePath(name + QStringLiteral("-%1").arg(n));
    return folder;
}

QCoro::Task<ProfilingResult<ProfilingExportArtifacts>> CaptureFinalizer::exportProfileArtifacts(
    std::int64_t runID, std::optional<LearnedModel> modelOverride) {
    QPointer<CaptureFinalizer> self(this);
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
    auto exportFuture = worker_.run([&service, runID, folder = folder.toStdString(), model] {
        return service.exportRun(runID, folder, model);
    });
    auto exported = co_await exportFuture;
    if (!self) co_return ProfilingResult<ProfilingExportArtifacts>::failure(kClosedDuringExport);
    if (!exported.ok()) co_return exported;
    published_.setLastExportPath(fromStd(exported.value->folder));
    historyDidChange_();
    co_return exported;
}

QCoro::Task<> CaptureFinalizer::refreshAdaptiveModel(std::int64_t runID,
                                                     std::optional<LearnedModel> baseline) {
    QPointer<CaptureFinalizer> self(this);
    auto& service = profilingService_;
    auto refreshFuture = worker_.run(
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
    published_.publishAdaptivePredictor(model);
}

}  // namespace kelvo
