#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "CaptureTestRig.h"

namespace kelvo::testing {
namespace {

TEST(CaptureLifecycleTest, BetaCapturePublishesTheOpenRun) {
    CaptureRig rig;
    rig.coordinator->setBetaCaptureNotes(QStringLiteral("  fan noise at idle \n"));
    const auto runID = rig.startBeta();
    auto& c = *rig.coordinator;
    EXPECT_EQ(c.activeWorkflowSource(), ProfilingWorkflowSource::betaCapture);
    EXPECT_EQ(c.profilingScenario(), ProfilingScenario::realWorkflow);
    EXPECT_TRUE(c.profilingStartedAt().has_value());
    EXPECT_EQ(c.profilingElapsed(), QStringLiteral("00:00"));
    EXPECT_EQ(c.profilingMessage(), QStringLiteral("Beta capture is running in the background"));
    EXPECT_TRUE(c.autoStopPending());
    EXPECT_EQ(c.currentWorkflowLabel(), QStringLiteral("Beta Capture"));
    EXPECT_EQ(c.captureActivityTint(), CaptureCoordinator::ActivityTint::orange);
    auto record = rig.service->store().run(runID);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->notes, "fan noise at idle");
    EXPECT_EQ(record->mode, "quiet");  // from the runtime's mode provider
    EXPECT_EQ(record->modelID, "background-capture");
    EXPECT_EQ(record->modelSource, "kelvo");
    EXPECT_TRUE(rig.appliedModes.empty());  // no forced mode
}

TEST(CaptureLifecycleTest, ElapsedClockFollowsTheSampleTime) {
    CaptureRig rig;
    rig.startBeta();
    const Timestamp started = *rig.coordinator->profilingStartedAt();
    rig.coordinator->updateProfilingClock(started + 125.7);
    EXPECT_EQ(rig.coordinator->profilingElapsed(), QStringLiteral("02:05"));
    rig.coordinator->updateProfilingClock(started - 30);  // clock stepped back
    EXPECT_EQ(rig.coordinator->profilingElapsed(), QStringLiteral("00:00"));
    rig.coordinator->updateProfilingClock(std::nan(""));
    EXPECT_EQ(rig.coordinator->profilingElapsed(), QStringLiteral("00:00"));
}

TEST(CaptureLifecycleTest, TheLoopRecordsSamplesForTheActiveRunOnly) {
    RigOptions options;
    options.startLoop = true;
    options.loopConfig.tickSeconds = 0.25;
    CaptureRig rig(std::move(options));
    const auto runID = rig.startBeta();
    ASSERT_TRUE(waitFor([&] { return rig.store->runSamples(runID).size() >= 3; }));
    QCoro::waitFor(rig.coordinator->stopProfilingAsync(false, false));
    auto active = loopCall(*rig.loop, [](ControlEngine& e) { return e.activeProfilingRunID(); });
    active.waitForFinished();
    EXPECT_FALSE(active.result().has_value());
    // Ticks after the stop add nothing to the run: three of them, however long they take.
    const auto recorded = rig.store->runSamples(runID).size();
    auto ticks = std::make_shared<std::atomic<int>>(0);
    const auto counting = rig.loop->subscribe([ticks](const ControlSnapshot&) { ++*ticks; });
    const bool ticked = waitFor([&] { return *ticks >= 3; });
    rig.loop->unsubscribe(counting);
    ASSERT_TRUE(ticked);
    EXPECT_EQ(rig.store->runSamples(runID).size(), recorded);
}

TEST(CaptureLifecycleTest, StartDuringStoppingDoesNothing) {
    CaptureRig rig;
    const auto runID = rig.startBeta();
    // The stop stays on the worker until the start and the second stop have been tried.
    Gate stopGate;
    rig.service->failStop = [wait = stopGate.waiter()] {
        wait();
        return std::optional<std::string>();
    };
    rig.coordinator->beginCaptureStop(false);
    EXPECT_TRUE(rig.coordinator->profilingStopInProgress());
    EXPECT_TRUE(rig.coordinator->captureInteractionLocked());
    rig.coordinator->startBetaCapture();
    rig.coordinator->beginCaptureStop(true);  // a second stop is ignored too
    stopGate.open();
    ASSERT_TRUE(waitFor([&] { return !rig.coordinator->profilingStopInProgress(); }));
    EXPECT_FALSE(rig.coordinator->profilingIsRunning());
    EXPECT_EQ(rig.coordinator->lastCompletedRunID(), runID);
    EXPECT_FALSE(rig.service->store().activeRun().has_value());  // no second run was opened
}

TEST(CaptureLifecycleTest, StartDuringFinalizingOpensANewRunAndTheOldOutcomeIsIgnored) {
    CaptureRig rig;
    const auto first = rig.startBeta();
    rig.addSamples(first, 5);
    Gate exportGate;
    rig.service->beforeExport = exportGate.waiter();
    int finished = 0;
    QObject::connect(rig.coordinator.get(), &CaptureCoordinator::finalizationFinished,
                     [&](qint64, const QString&, const QString&, const QString&) { ++finished; });
    rig.coordinator->beginCaptureStop(true);
    // The old run's export is under way and held there while the new run is asked for.
    ASSERT_TRUE(waitFor([&] { return rig.service->exportCalls == 1; }));
    ASSERT_TRUE(rig.coordinator->profilingFinalizationInProgress());
    rig.coordinator->startBetaCapture();
    // The worker is single-threaded: the new run's start waits behind the held export.
    exportGate.open();
    ASSERT_TRUE(waitFor([&] { return rig.coordinator->profilingIsRunning(); }));
    const auto second = *rig.coordinator->profilingRunID();
    EXPECT_NE(second, first);
    EXPECT_FALSE(rig.coordinator->profilingFinalizationInProgress());
    ASSERT_TRUE(waitFor([&] { return finished == 1; }));
    // The old export was still made and shown, but the card belongs to the new run.
    EXPECT_EQ(rig.revealed.size(), 1);
    EXPECT_TRUE(rig.coordinator->profilingIsRunning());
    EXPECT_FALSE(rig.coordinator->profilingFinalizationInProgress());
    EXPECT_EQ(rig.coordinator->profilingMessage(),
              QStringLiteral("Beta capture is running in the background"));
    EXPECT_EQ(rig.coordinator->profilingRunID(), second);
}

TEST(CaptureLifecycleTest, AnAutoStopAlreadyDueAtRestoreFiresAtOnce) {
    QTemporaryDir folder;
    const Timestamp t0 = wallClockNow() - 20 * 60;
    std::int64_t runID = 0;
    {
        RigOptions options;
        options.now = [t0] { return t0; };
        CaptureRig before(std::move(options), folder.path());
        runID = before.startBeta();
        // Still recording a moment ago: the run can be resumed.
        before.addSamples(runID, 3, wallClockNow() - 30, 10);
        before.abandon();
    }
    CaptureRig after({}, folder.path());
    QString bundle;
    QObject::connect(
        after.coordinator.get(), &CaptureCoordinator::finalizationFinished,
        [&](qint64, const QString&, const QString& path, const QString&) { bundle = path; });
    QCoro::waitFor(after.coordinator->restorePersistentState());
    // 20 minutes into a 15-minute plan: the stop comes at once, then the packaged export.
    ASSERT_TRUE(waitFor([&] { return !bundle.isEmpty(); }));
    EXPECT_EQ(after.coordinator->lastCompletedRunID(), runID);
    EXPECT_FALSE(after.coordinator->profilingIsRunning());
    EXPECT_TRUE(after.coordinator->profilingMessage().startsWith(
        QStringLiteral("Capture stopped. Export packaged and revealed in the file manager.")));
}

TEST(CaptureLifecycleTest, TheAutoStopHandlerStopsOnlyItsOwnRun) {
    CaptureRig rig;
    const auto runID = rig.startBeta();
    // The stop may finish before the handler returns when the worker is quick, so the test
    // watches the flag's transitions instead of reading it afterwards.
    int stopsBegun = 0;
    QObject::connect(rig.coordinator.get(), &CaptureCoordinator::profilingStopInProgressChanged,
                     [&] { stopsBegun += rig.coordinator->profilingStopInProgress() ? 1 : 0; });
    rig.coordinator->handleAutoStopTimerFired(runID + 1, ProfilingWorkflowSource::betaCapture,
                                              false);
    EXPECT_EQ(stopsBegun, 0);
    rig.coordinator->handleAutoStopTimerFired(runID, ProfilingWorkflowSource::developerTools,
                                              false);
    EXPECT_EQ(stopsBegun, 0);
    EXPECT_TRUE(rig.coordinator->profilingIsRunning());
    rig.coordinator->handleAutoStopTimerFired(runID, ProfilingWorkflowSource::betaCapture, false);
    EXPECT_EQ(stopsBegun, 1);
    ASSERT_TRUE(waitFor([&] { return !rig.coordinator->profilingIsRunning(); }));
    EXPECT_EQ(rig.coordinator->lastCompletedRunID(), runID);
}

TEST(CaptureLifecycleTest, AZeroMinutePlanStopsAtOnceAfterCheckingTheRun) {
    CaptureRig rig;
    rig.coordinator->setProfilingDurationMinutes(0);
    rig.coordinator->startBetaCapture();
    ASSERT_TRUE(waitFor([&] { return rig.coordinator->lastCompletedRunID().has_value(); }));
    EXPECT_FALSE(rig.coordinator->profilingIsRunning());
}

TEST(CaptureLifecycleTest, StoppingWithNoRunClearsTheFlagsAndKeepsTheMessage) {
    CaptureRig rig;
    QCoro::waitFor(rig.coordinator->stopProfilingAsync(true, true));
    EXPECT_FALSE(rig.coordinator->profilingStopInProgress());
    EXPECT_FALSE(rig.coordinator->profilingFinalizationInProgress());
    EXPECT_EQ(rig.coordinator->profilingMessage(), QStringLiteral("Idle"));
}

TEST(CaptureLifecycleTest, StopWithoutExportSaysCaptureStopped) {
    CaptureRig rig;
    rig.startBeta();
    QCoro::waitFor(rig.coordinator->stopProfilingAsync(false, false));
    EXPECT_EQ(rig.coordinator->profilingMessage(), QStringLiteral("Capture stopped."));
    EXPECT_EQ(rig.historyChanges, 1);
}

TEST(CaptureLifecycleTest, WorkflowLabelFallsBackToTheLastCompletedSourceThenIdle) {
    CaptureRig rig;
    EXPECT_EQ(rig.coordinator->currentWorkflowLabel(), QStringLiteral("Idle"));
    EXPECT_EQ(rig.coordinator->captureActivityTint(), CaptureCoordinator::ActivityTint::secondary);
    rig.startBeta();
    QCoro::waitFor(rig.coordinator->stopProfilingAsync(false, false));
    EXPECT_FALSE(rig.coordinator->activeWorkflowSource());
    EXPECT_EQ(rig.coordinator->currentWorkflowLabel(), QStringLiteral("Beta Capture"));
}

TEST(CaptureLifecycleTest, ScriptedStartForcesTheModeAndRunsTheWorkload) {
    RigOptions options;
    options.runner =
        std::make_unique<ProfilingWorkloadRunner>([] { return 4; }, [] { return nullptr; });
    CaptureRig rig(std::move(options));
    CaptureCoordinator::StartRequest request;
    request.forcedMode = ControlMode::performance;
    request.scenarioOverride = ProfilingScenario::cpuStress;
    request.startWorkload = true;
    request.workflowSource = ProfilingWorkflowSource::scriptedMatrix;
    request.modelID = QStringLiteral("scripted-workload");
    request.modelSource = QStringLiteral("kelvo");
    QCoro::waitFor(rig.coordinator->startProfilingAsync(request));
    EXPECT_TRUE(rig.coordinator->profilingIsRunning());
    EXPECT_EQ(rig.coordinator->profilingMessage(), QStringLiteral("Running scripted CPU Stress"));
    EXPECT_EQ(rig.appliedModes, std::vector<ControlMode>{ControlMode::performance});
    EXPECT_EQ(rig.coordinator->workloadRunner().taskCount(), 2u);
    auto mode = loopCall(*rig.loop, [](ControlEngine& e) { return e.currentMode(); });
    mode.waitForFinished();
    EXPECT_EQ(mode.result(), ControlMode::performance);
    QCoro::waitFor(rig.coordinator->stopProfilingAsync(false, false));
    EXPECT_EQ(rig.coordinator->workloadRunner().taskCount(), 0u);
    EXPECT_EQ(rig.coordinator->profilingMessage(),
              QStringLiteral("Run %1 completed.").arg(*rig.coordinator->lastCompletedRunID()));
}

// ----- Restore -------------------------------------------------------------------------------

void openStaleRuns(const QString& folder, int count) {
    SQLiteStore store(QDir(folder).filePath(QStringLiteral("kelvo.sqlite")).toStdString());
    for (int i = 0; i < count; ++i)
        ASSERT_TRUE(store.startRun("realWorkflow", ControlMode::quiet, "background-capture",
                                   "kelvo", "", 1000 + i));
}

TEST(CaptureRestoreTest, OneAbandonedRunIsReportedInTheSingular) {
    QTemporaryDir folder;
    openStaleRuns(folder.path(), 1);
    CaptureRig rig({}, folder.path());
    QCoro::waitFor(rig.coordinator->restorePersistentState());
    EXPECT_EQ(rig.coordinator->profilingMessage(),
              QStringLiteral("Recovered 1 abandoned capture; previous run state was closed."));
    EXPECT_FALSE(rig.coordinator->profilingIsRunning());
    // Closed, then exported like any run whose export has not happened: gone from the database.
    EXPECT_EQ(rig.rowCount(1), 0);
    EXPECT_FALSE(rig.service->store().run(1).has_value());
}

TEST(CaptureRestoreTest, ThreeAbandonedRunsAreReportedInThePlural) {
    QTemporaryDir folder;
    openStaleRuns(folder.path(), 3);
    CaptureRig rig({}, folder.path());
    QCoro::waitFor(rig.coordinator->restorePersistentState());
    EXPECT_EQ(rig.coordinator->profilingMessage(),
              QStringLiteral("Recovered 3 abandoned captures; previous run state was closed."));
}

TEST(CaptureRestoreTest, TheLastCompletedRunAndItsSourceAreRestored) {
    QTemporaryDir folder;
    std::int64_t runID = 0;
    {
        CaptureRig before({}, folder.path());
        runID = before.startBeta();
        QCoro::waitFor(before.coordinator->stopProfilingAsync(false, false));
    }
    CaptureRig after({}, folder.path());
    QCoro::waitFor(after.coordinator->restorePersistentState());
    EXPECT_EQ(after.coordinator->lastCompletedRunID(), runID);
    EXPECT_EQ(after.coordinator->lastCompletedWorkflowSource(),
              ProfilingWorkflowSource::betaCapture);
    EXPECT_EQ(after.coordinator->profilingMessage(), QStringLiteral("Idle"));
}

TEST(CaptureRestoreTest, ARunKilledMidwayResumesAtTheNextLaunchWithItsRows) {
    QTemporaryDir folder;
    std::int64_t runID = 0;
    {
        CaptureRig before({}, folder.path());
        runID = before.startBeta();
        before.addSamples(runID, 12, wallClockNow() - 12);
        auto hot = TelemetrySample{};
        hot.timestamp = wallClockNow();
        hot.thermalPressure = ThermalPressureLevel::serious;
        before.evaluate(hot);
        before.abandon();  // killed: no stop, no finalization
    }
    CaptureRig after({}, folder.path());
    EXPECT_EQ(after.rowCount(runID), 12 + 1 + 1);
    QCoro::waitFor(after.coordinator->restorePersistentState());
    EXPECT_TRUE(after.coordinator->profilingIsRunning());
    EXPECT_EQ(after.coordinator->profilingRunID(), runID);
    EXPECT_EQ(after.coordinator->profilingMessage(),
              QStringLiteral("Beta capture is running in the background"));
    auto active = loopCall(*after.loop, [](ControlEngine& e) { return e.activeProfilingRunID(); });
    active.waitForFinished();
    EXPECT_EQ(active.result(), runID);
    // Its export holds what was recorded before the kill.
    QString exportPath;
    QObject::connect(after.coordinator.get(), &CaptureCoordinator::finalizationFinished,
                     [&](qint64, const QString& folderPath, const QString&, const QString&) {
                         exportPath = folderPath;
                     });
    after.coordinator->beginCaptureStop(false);
    ASSERT_TRUE(waitFor([&] { return !exportPath.isEmpty(); }));
    QFile csv(QDir(exportPath).filePath(QStringLiteral("samples.csv")));
    ASSERT_TRUE(csv.open(QIODevice::ReadOnly));
    EXPECT_EQ(csv.readAll().count('\n'), 1 + 12);
    EXPECT_EQ(after.rowCount(runID), 0);
}

TEST(CaptureRestoreTest, AResumedRunSaysSoAndTakesTheNotesOfTheRelaunch) {
    QTemporaryDir folder;
    std::int64_t runID = 0;
    {
        CaptureRig before({}, folder.path());
        before.coordinator->setBetaCaptureNotes(QStringLiteral("first run"));
        runID = before.startBeta();
        before.addSamples(runID, 3, wallClockNow() - 3);
        before.abandon();
    }
    CaptureRig after({}, folder.path());
    std::optional<qint64> resumed;
    QObject::connect(after.coordinator.get(), &CaptureCoordinator::captureResumed,
                     [&resumed](qint64 id) { resumed = id; });
    std::optional<QString> notesMessage;
    QObject::connect(after.coordinator.get(), &CaptureCoordinator::resumedNotesHandled,
                     [&notesMessage](qint64, bool added, const QString& message) {
                         EXPECT_TRUE(added);
                         notesMessage = message;
                     });
    QCoro::waitFor(after.coordinator->restorePersistentState());
    EXPECT_EQ(resumed, runID);
    auto hasEvent = [&](const std::string& message) {
        for (const auto& event : after.store->recentEvents(50))
            if (event.message == message) return true;
        return false;
    };
    EXPECT_TRUE(hasEvent("Capture run " + std::to_string(runID) + " resumed after a restart"));

    // What the relaunch with --capture --capture-notes does once startup is over.
    after.coordinator->setBetaCaptureNotes(QStringLiteral("  second run "));
    after.coordinator->startBetaCapture();
    ASSERT_TRUE(waitFor([&] { return notesMessage.has_value(); }));
    EXPECT_EQ(*notesMessage,
              QStringLiteral("Notes added to resumed capture run %1: second run").arg(runID));
    EXPECT_TRUE(
        hasEvent("Notes added to resumed capture run " + std::to_string(runID) + ": second run"));
    const auto record = after.store->run(runID);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->notes, "first run\nsecond run");
    EXPECT_EQ(record->status, "active");
    EXPECT_EQ(after.coordinator->profilingRunID(), runID);
    EXPECT_FALSE(after.store->run(runID + 1));  // no second run was opened
}

TEST(CaptureRestoreTest, ARunKilledLongAgoIsClosedAndExportedByTheNextLaunch) {
    QTemporaryDir folder;
    std::int64_t runID = 0;
    {
        CaptureRig before({}, folder.path());
        runID = before.startBeta();
        before.addSamples(runID, 5, wallClockNow() - 3600);
        before.store->appendRunSample(runID, TelemetrySample{});  // timestamp 0: long ago
        before.abandon();
    }
    RigOptions options;
    options.now = [] { return wallClockNow() + 3600; };
    CaptureRig after(std::move(options), folder.path());
    QCoro::waitFor(after.coordinator->restorePersistentState());
    EXPECT_FALSE(after.coordinator->profilingIsRunning());
    EXPECT_EQ(after.coordinator->profilingMessage(),
              QStringLiteral("Recovered 1 abandoned capture; previous run state was closed."));
    // Closed, the run is exported like one whose export failed: bundle made, rows gone.
    EXPECT_EQ(after.rowCount(runID), 0);
    EXPECT_TRUE(after.revealed.isEmpty()) << "nothing opens by itself at launch";
    bool said = false;
    for (const auto& event : after.ring->recent(160))
        said |= event.message.starts_with("Capture run " + std::to_string(runID) +
                                          ", kept after an earlier export failed, is exported: ");
    EXPECT_TRUE(said);
}

// A folder that could not be written once does not cost the capture: the next launch, or the
// next capture that exports, takes the kept run out too.
TEST(CaptureRestoreTest, ARunKeptByAFailedExportGoesOutWithTheNextLaunchOrCapture) {
    for (const bool byLaunch : {true, false}) {
        SCOPED_TRACE(byLaunch ? "next launch" : "next capture");
        QTemporaryDir folder;
        QFile blocker(QDir(folder.path()).filePath(QStringLiteral("not-a-folder")));
        ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        std::int64_t keptID = 0;
        RigOptions failing;
        failing.profilesDirectory = QDir(blocker.fileName()).filePath(QStringLiteral("profiles"));
        auto rig = std::make_unique<CaptureRig>(std::move(failing), folder.path());
        keptID = rig->startBeta();
        rig->addSamples(keptID, 4);
        ASSERT_TRUE(rig->stopAndFinalize(true));
        ASSERT_EQ(rig->rowCount(keptID), 4 + 1) << "kept after the failed export";

        if (byLaunch) {
            rig.reset();
            CaptureRig relaunched({}, folder.path());
            QCoro::waitFor(relaunched.coordinator->restorePersistentState());
            EXPECT_EQ(relaunched.rowCount(keptID), 0);
            const QStringList bundles =
                QDir(relaunched.profilesDirectory).entryList({QStringLiteral("*.kelvocapture")});
            EXPECT_EQ(bundles.size(), 1) << bundles.join(QLatin1Char(' ')).toStdString();
        } else {
            rig->profilesDirectory = QDir(folder.path()).filePath(QStringLiteral("profiles"));
            const auto next = rig->startBeta();
            rig->addSamples(next, 3);
            const auto finished = rig->stopAndFinalize(true);
            ASSERT_TRUE(finished);
            EXPECT_FALSE(finished->bundlePath.isEmpty()) << finished->message.toStdString();
            EXPECT_EQ(rig->rowCount(keptID), 0) << "the kept run went out with it";
            EXPECT_EQ(rig->rowCount(next), 0);
            const QStringList bundles =
                QDir(rig->profilesDirectory).entryList({QStringLiteral("*.kelvocapture")});
            EXPECT_EQ(bundles.size(), 2) << bundles.join(QLatin1Char(' ')).toStdString();
            EXPECT_EQ(rig->revealed.size(), 1) << "only the capture just stopped is revealed";
        }
    }
}

// ----- Database failures ---------------------------------------------------------------------

TEST(CaptureFailureTest, AFailedStartKeepsThePublishedFields) {
    CaptureRig rig;
    rig.service->failStart = [] { return std::optional<std::string>("disk I/O error"); };
    bool finished = false, started = true;
    QObject::connect(rig.coordinator.get(), &CaptureCoordinator::startFinished, [&](bool ok) {
        finished = true;
        started = ok;
    });
    rig.coordinator->startBetaCapture();
    ASSERT_TRUE(waitFor([&] { return finished; }));
    EXPECT_FALSE(started);
    EXPECT_EQ(rig.coordinator->profilingMessage(),
              QStringLiteral("Failed to start profiling: disk I/O error"));
    EXPECT_FALSE(rig.coordinator->activeWorkflowSource());
    EXPECT_FALSE(rig.coordinator->profilingIsRunning());
}

TEST(CaptureFailureTest, ALockedDatabaseFailsTheStopAndKeepsTheRun) {
    CaptureRig rig;
    const auto runID = rig.startBeta();
    rig.addSamples(runID, 6);
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(rig.dbPath.c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    rig.coordinator->beginCaptureStop(true);
    ASSERT_TRUE(waitFor([&] { return !rig.coordinator->profilingStopInProgress(); }));
    EXPECT_TRUE(rig.coordinator->profilingMessage().startsWith(
        QStringLiteral("Failed to stop profiling: ")));
    EXPECT_TRUE(rig.coordinator->profilingMessage().contains(QStringLiteral("locked")));
    EXPECT_TRUE(rig.coordinator->profilingIsRunning());
    EXPECT_EQ(rig.coordinator->profilingRunID(), runID);
    EXPECT_FALSE(rig.coordinator->profilingFinalizationInProgress());
    sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(other);
    EXPECT_EQ(rig.rowCount(runID), 6 + 1);
    // Once the lock is gone the user can stop again.
    auto done = rig.stopAndFinalize(false);
    ASSERT_TRUE(done);
    EXPECT_EQ(done->runID, runID);
    EXPECT_EQ(rig.rowCount(runID), 0);
}

// Makes every write that would grow a file fail, as a full disk does, until destroyed.
class FullDisk {
public:
    explicit FullDisk(const std::vector<std::string>& files) {
        previousHandler_ = std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &previous_);
        rlim_t largest = 0;
        for (const auto& file : files) {
            std::error_code ec;
            auto size = std::filesystem::file_size(file, ec);
            if (!ec) largest = std::max<rlim_t>(largest, size);
        }
        rlimit limit = previous_;
        limit.rlim_cur = largest;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk() {
        setrlimit(RLIMIT_FSIZE, &previous_);
        std::signal(SIGXFSZ, previousHandler_);
    }

private:
    rlimit previous_{};
    void (*previousHandler_)(int) = nullptr;
};

TEST(CaptureFailureTest, AFullDiskFailsTheStopAndLosesNoRows) {
    CaptureRig rig;
    const auto runID = rig.startBeta();
    rig.addSamples(runID, 20);
    {
        FullDisk full({rig.dbPath, rig.dbPath + "-wal"});
        rig.coordinator->beginCaptureStop(true);
        ASSERT_TRUE(waitFor([&] { return !rig.coordinator->profilingStopInProgress(); }));
        // SQLite reports the refused write as a full disk or an I/O error, depending on where
        // it met the limit.
        EXPECT_TRUE(rig.coordinator->profilingMessage().startsWith(
            QStringLiteral("Failed to stop profiling: stop run: ")));
        EXPECT_TRUE(rig.coordinator->profilingIsRunning());
        EXPECT_EQ(rig.coordinator->profilingRunID(), runID);
    }
    EXPECT_EQ(rig.rowCount(runID), 20 + 1);
    // With room again the same run stops and is exported.
    auto done = rig.stopAndFinalize(false);
    ASSERT_TRUE(done);
    EXPECT_EQ(done->runID, runID);
    EXPECT_FALSE(done->exportPath.isEmpty());
}

TEST(CaptureFailureTest, AnUnwritableExportFolderKeepsTheRows) {
    CaptureRig probe;
    QFile blocker(QDir(probe.dir).filePath(QStringLiteral("not-a-folder")));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    RigOptions options;
    const QString profiles = QDir(blocker.fileName()).filePath(QStringLiteral("profiles"));
    options.profilesDirectory = profiles;
    CaptureRig rig(std::move(options));
    const auto runID = rig.startBeta();
    rig.addSamples(runID, 4);
    QString finishedMessage;
    QObject::connect(rig.coordinator.get(), &CaptureCoordinator::finalizationFinished,
                     [&finishedMessage](qint64, const QString&, const QString&,
                                        const QString& message) { finishedMessage = message; });
    ASSERT_TRUE(rig.stopAndFinalize(true));
    // The folder that could not be made and the system's reason, on the card and in the message
    // the headless run prints.
    const QString expected = QStringLiteral("Capture stopped. Export failed: cannot create ") +
                             profiles + QStringLiteral(": ") +
                             QString::fromStdString(std::strerror(ENOTDIR)) +
                             QStringLiteral(
                                 ". Local SQLite capture rows were retained because "
                                 "package export did not finish.");
    EXPECT_EQ(rig.coordinator->profilingMessage(), expected);
    EXPECT_EQ(finishedMessage, expected);
    EXPECT_TRUE(rig.revealed.isEmpty());
    EXPECT_FALSE(rig.coordinator->lastExportPath());
    EXPECT_EQ(rig.service->clearCalls, 0);
    EXPECT_EQ(rig.rowCount(runID), 4 + 1);
}

}  // namespace
}  // namespace kelvo::testing

namespace kelvo::testing {
namespace {

TEST(CaptureFailureTest, ADatabaseCorruptedDuringARunLosesNothing) {
    QTemporaryDir folder;
    std::int64_t runID = 0;
    std::uintmax_t corruptSize = 0;
    {
        CaptureRig rig({}, folder.path());
        runID = rig.startBeta();
        rig.addSamples(runID, 300);
        // Move every row into the main file, then overwrite all pages after the first.
        sqlite3* raw = nullptr;
        ASSERT_EQ(sqlite3_open(rig.dbPath.c_str(), &raw), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(raw, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr),
                  SQLITE_OK);
        sqlite3_close(raw);
        {
            QFile file(QString::fromStdString(rig.dbPath));
            ASSERT_TRUE(file.open(QIODevice::ReadWrite));
            ASSERT_GT(file.size(), 8192);
            file.seek(4096);
            file.write(QByteArray(static_cast<int>(file.size() - 4096), '\xA5'));
        }
        corruptSize = std::filesystem::file_size(rig.dbPath);
        bool finalized = false;
        QObject::connect(rig.coordinator.get(), &CaptureCoordinator::finalizationFinished,
                         [&finalized] { finalized = true; });
        rig.coordinator->beginCaptureStop(true);
        ASSERT_TRUE(waitFor([&] {
            return finalized || rig.coordinator->profilingMessage().startsWith(
                                    QStringLiteral("Failed to stop profiling: "));
        }));
        const QString message = rig.coordinator->profilingMessage();
        // Whichever step meets the damage first, the run's rows are never cleared.
        EXPECT_TRUE(message.startsWith(QStringLiteral("Failed to stop profiling: ")) ||
                    message.startsWith(QStringLiteral("Capture stopped. Export failed: ")))
            << message.toStdString();
        EXPECT_EQ(rig.service->clearCalls, 0);
        EXPECT_TRUE(rig.revealed.isEmpty());
    }
    // The next launch keeps the damaged file aside, bytes and all, and starts a fresh one.
    SQLiteStore reopened(
        QDir(folder.path()).filePath(QStringLiteral("kelvo.sqlite")).toStdString());
    auto events = reopened.takeStartupEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_NE(events[0].message.find("moved aside"), std::string::npos);
    const auto aside =
        QDir(folder.path()).entryList({QStringLiteral("kelvo.sqlite.corrupt-*")}, QDir::Files);
    ASSERT_FALSE(aside.isEmpty());
    EXPECT_EQ(std::filesystem::file_size(QDir(folder.path()).filePath(aside.first()).toStdString()),
              corruptSize);
    EXPECT_FALSE(reopened.activeRun().has_value());
}

}  // namespace
}  // namespace kelvo::testing

namespace kelvo::testing {
namespace {

TEST(CapturePublishingTest, SignalsFireOnlyWhenAValueChanges) {
    CaptureRig rig;
    auto& c = *rig.coordinator;
    int notes = 0, tint = 0, label = 0, lock = 0;
    QObject::connect(&c, &CaptureCoordinator::betaCaptureNotesChanged, [&] { ++notes; });
    QObject::connect(&c, &CaptureCoordinator::activityTintChanged, [&] { ++tint; });
    QObject::connect(&c, &CaptureCoordinator::workflowLabelChanged, [&] { ++label; });
    QObject::connect(&c, &CaptureCoordinator::interactionLockChanged, [&] { ++lock; });
    c.setBetaCaptureNotes(QStringLiteral("a"));
    c.setBetaCaptureNotes(QStringLiteral("a"));
    EXPECT_EQ(notes, 1);
    rig.startBeta();
    EXPECT_EQ(tint, 1);   // secondary → orange
    EXPECT_EQ(label, 1);  // Idle → Beta Capture
    EXPECT_EQ(lock, 0);   // a running capture leaves the card usable
    EXPECT_EQ(c.property("captureActivityTint").toString(), QStringLiteral("orange"));
    EXPECT_EQ(c.property("profilingRunID").toLongLong(), *c.profilingRunID());
    EXPECT_EQ(c.property("activeWorkflowSource").toString(), QStringLiteral("background-capture"));
    EXPECT_FALSE(c.property("lastExportPath").isValid());
}

}  // namespace
}  // namespace kelvo::testing
