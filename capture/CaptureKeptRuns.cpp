// Runs whose export did not work stay in the database; they are offered again here, so a folder
// that was unwritable once does not cost the user the capture.
#include <QCoroFuture>
#include <QPointer>

#include "app_common/LoopCall.h"
#include "capture/CaptureFinalizer.h"
#include "capture/CaptureWorker.h"

namespace kelvo {

QCoro::Task<> CaptureFinalizer::recordRuntimeEvent(RuntimeEvent event) {
    auto recorded = loopCall(controlLoop_, [event](ControlEngine& e) { e.recordEvent(event); });
    co_await recorded;
}

QCoro::Task<bool> CaptureFinalizer::exportKeptRun(std::int64_t runID) {
    QPointer<CaptureFinalizer> self(this);
    auto exportTask = exportProfileArtifacts(runID, std::nullopt);
    const auto artifacts = co_await exportTask;
    if (!self) co_return false;
    if (!artifacts.ok()) {
        auto failed = recordRuntimeEvent(RuntimeEvent::make(
            QStringLiteral("Capture run %1 stays in the database: its export failed again: %2")
                .arg(runID)
                .arg(QString::fromStdString(artifacts.error))
                .toStdString(),
            true));
        co_await failed;
        co_return false;
    }
    auto bundleFuture = worker_.run([bundle = options_.createBundle,
                                     folder = artifacts.value->folder] { return bundle(folder); });
    const auto bundle = co_await bundleFuture;
    if (!self) co_return false;
    if (!bundle.ok()) {
        auto failed = recordRuntimeEvent(RuntimeEvent::make(
            QStringLiteral("Capture run %1 was exported to %2 but packaging it failed (%3); its "
                           "rows stay in the database")
                .arg(runID)
                .arg(QString::fromStdString(artifacts.value->folder),
                     QString::fromStdString(bundle.error))
                .toStdString(),
            true));
        co_await failed;
        co_return false;
    }
    auto& service = profilingService_;
    auto clearFuture = worker_.run([&service, runID] { return service.clearCapturedRows(runID); });
    const auto cleared = co_await clearFuture;
    if (!self) co_return false;
    auto done = recordRuntimeEvent(RuntimeEvent::make(
        QStringLiteral("Capture run %1, kept after an earlier export failed, is exported: %2%3")
            .arg(runID)
            .arg(QString::fromStdString(*bundle.value),
                 cleared.ok() ? QString()
                              : QStringLiteral(" (its rows could not be cleared: %1)")
                                    .arg(QString::fromStdString(cleared.error)))
            .toStdString(),
        !cleared.ok()));
    co_await done;
    historyDidChange_();
    co_return true;
}

QCoro::Task<> CaptureFinalizer::exportKeptRuns(std::optional<std::int64_t> except) {
    QPointer<CaptureFinalizer> self(this);
    auto& service = profilingService_;
    // One more than the pass takes, so that skipping `except` still leaves a full pass.
    auto keptFuture = worker_.run([&service] { return service.keptRuns(kKeptRunsPerPass + 1); });
    const auto kept = co_await keptFuture;
    if (!self || !kept.ok()) co_return;
    int exported = 0;
    for (const std::int64_t runID : *kept.value) {
        if (runID == except || exported >= kKeptRunsPerPass) continue;
        ++exported;
        auto one = exportKeptRun(runID);
        // A folder that fails for one run fails for the next: stop at the first failure.
        const bool ok = co_await one;
        if (!self || !ok) co_return;
    }
}

}  // namespace kelvo
