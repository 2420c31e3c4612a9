#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>

#include "CaptureTestRig.h"
#include "foundation/profiling/ProfileExportBundler.h"

namespace kelvo::testing {
namespace {

namespace fs = std::filesystem;

const QString kRetained = QStringLiteral(
    "Local SQLite capture rows were retained because package export did not finish.");

TEST(CaptureFinalizationTest, TheWatchdogIsFifteenSecondsByDefault) {
    EXPECT_EQ(CaptureCoordinatorOptions{}.finalizationWatchdog, std::chrono::seconds(15));
}

TEST(CaptureFinalizationTest, ALongFinalizationUnlocksTheCardThenReportsItsOutcome) {
    RigOptions options;
    options.watchdog = std::chrono::milliseconds(150);
    CaptureRig rig(std::move(options));
    const auto runID = rig.startBeta();
    rig.addSamples(runID, 5);
    // The export is held until the watchdog has spoken, however late its timer fires.
    Gate exportGate;
    rig.service->beforeExport = exportGate.waiter();
    bool sawWatchdog = false;
    QObject::connect(rig.coordinator.get(), &CaptureCoordinator::profilingMessageChanged, [&] {
        if (rig.coordinator->profilingMessage() ==
            QStringLiteral("Capture stopped. Finalization is taking longer than expected. The file "
                           "manager will open when the export is ready.")) {
            sawWatchdog = true;
            EXPECT_FALSE(rig.coordinator->profilingFinalizationInProgress());
            EXPECT_FALSE(rig.coordinator->captureInteractionLocked());
            exportGate.open();
        }
    });
    auto done = rig.stopAndFinalize(true);
    ASSERT_TRUE(done);
    EXPECT_TRUE(sawWatchdog);
    EXPECT_EQ(
        rig.coordinator->profilingMessage(),
        QStringLiteral("Capture stopped. Export packaged and revealed in the file manager. Local "
                       "SQLite capture rows were cleared after export (6 rows)."));
    EXPECT_EQ(rig.coordinator->lastPackagedExportPath(), done->bundlePath);
    EXPECT_EQ(rig.revealed, QStringList{done->bundlePath});
}

TEST(CaptureFinalizationTest, ExportFailureWithoutBundlingAddsNoNote) {
    CaptureRig rig;
    const auto runID = rig.startBeta();
    rig.addSamples(runID, 3);
    rig.service->failExport = [] { return std::optional<std::string>("no space left"); };
    ASSERT_TRUE(rig.stopAndFinalize(false));
    EXPECT_EQ(rig.coordinator->profilingMessage(),
              QStringLiteral("Capture stopped. Export failed: no space left."));
    EXPECT_EQ(rig.rowCount(runID), 3 + 1);
    EXPECT_EQ(rig.service->clearCalls, 0);
    EXPECT_TRUE(rig.revealed.isEmpty());
}

TEST(CaptureFinalizationTest, ExportFailureWithBundlingAddsTheRetainedNote) {
    CaptureRig rig;
    const auto runID = rig.startBeta();
    rig.addSamples(runID, 3);
    rig.service->failExport = [] { return std::optional<std::string>("no space left"); };
    ASSERT_TRUE(rig.stopAndFinalize(true));
    EXPECT_EQ(rig.coordinator->profilingMessage(),
              QStringLiteral("Capture stopped. Export failed: no space left. ") + kRetained);
    EXPECT_EQ(rig.rowCount(runID), 3 + 1);
}

TEST(CaptureFinalizationTest, ExportWithoutBundlingIsRevealedAndClearsTheRows) {
    CaptureRig rig;
    const auto runID = rig.startBeta();
    rig.addSamples(runID, 7);
    auto done = rig.stopAndFinalize(false);
    ASSERT_TRUE(done);
    EXPECT_EQ(rig.coordinator->profilingMessage(),
              QStringLiteral(
                  "Capture stopped. Export created and revealed in the file manager. Local SQLite "
                  "capture rows were cleared after export (8 rows)."));
    EXPECT_EQ(rig.revealed, QStringList{done->exportPath});
    EXPECT_EQ(rig.coordinator->lastExportPath(), done->exportPath);
    EXPECT_FALSE(rig.coordinator->lastPackagedExportPath());
    EXPECT_TRUE(done->exportPath.startsWith(rig.profilesDirectory));
    EXPECT_EQ(rig.rowCount(runID), 0);
    EXPECT_GE(rig.historyChanges, 3);  // stop, export, cleanup
}

TEST(CaptureFinalizationTest, TwoExportsInOneSecondGetTwoFolders) {
    CaptureRig rig;
    QStringList folders;
    for (int i = 0; i < 2; ++i) {
        const auto runID = rig.startBeta();
        rig.addSamples(runID, 2);
        auto done = rig.stopAndFinalize(false);
        ASSERT_TRUE(done);
        folders << done->exportPath;
    }
    EXPECT_NE(folders[0], folders[1]);
    for (const auto& folder : folders)
        EXPECT_TRUE(QFileInfo::exists(QDir(folder).filePath(QStringLiteral("run.json"))));
}

TEST(CaptureFinalizationTest, CleanupOfZeroRowsStillAddsTheClearedNote) {
    CaptureRig rig;
    const auto runID = rig.startBeta();
    rig.addSamples(runID, 2);
    rig.service->clearedCount = [] { return std::optional<int>(0); };
    ASSERT_TRUE(rig.stopAndFinalize(false));
    EXPECT_EQ(rig.coordinator->profilingMessage(),
              QStringLiteral(
                  "Capture stopped. Export created and revealed in the file manager. Local SQLite "
                  "capture rows were cleared after export (0 rows)."));
}

TEST(CaptureFinalizationTest, AFailedDerivationExportsWithTheCurrentModel) {
    CaptureRig rig;
    rig.setBaselineModel(LearnedModel{7, "kelvo", 0, 4100, 1600, 88});
    const auto runID = rig.startBeta();
    rig.addSamples(runID, 2);
    rig.service->failDerive = [] { return std::optional<std::string>("boom"); };
    auto done = rig.stopAndFinalize(false);
    ASSERT_TRUE(done);
    EXPECT_EQ(
        rig.coordinator->profilingMessage(),
        QStringLiteral("Capture stopped. Export created and revealed in the file manager. Used the "
                       "current model because post-run model derivation failed: boom Local "
                       "SQLite capture rows were cleared after export (3 rows)."));
    QFile json(QDir(done->exportPath).filePath(QStringLiteral("run.json")));
    ASSERT_TRUE(json.open(QIODevice::ReadOnly));
    EXPECT_TRUE(json.readAll().contains("\"cpuReferenceClockMHz\": 4100.0"));
}

TEST(CaptureFinalizationTest, TheDerivedModelIsInstalledInTheLoop) {
    CaptureRig rig;
    const auto runID = rig.startBeta();
    rig.addSamples(runID, 10);  // loaded samples at 4000 MHz
    ASSERT_TRUE(rig.stopAndFinalize(false));
    auto model = loopCall(*rig.loop, [](ControlEngine& e) { return e.currentModel(); });
    model.waitForFinished();
    ASSERT_TRUE(model.result());
    EXPECT_DOUBLE_EQ(model.result()->cpuReferenceClockMHz.value_or(0), 4000);
    EXPECT_EQ(rig.service->activeLearnedModel(), model.result());
}

// Makes every write that would grow a file past `bytes` fail, as a full disk does.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        previousHandler_ = std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &previous_);
        rlimit limit = previous_;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &previous_);
        std::signal(SIGXFSZ, previousHandler_);
    }

private:
    rlimit previous_{};
    void (*previousHandler_)(int) = nullptr;
};

// The real bundler, cut off part way through its archive by a file-size limit.
ProfilingResult<std::string> bundleUntilTheDiskFills(const std::string& folder) {
    FileSizeLimit limit(2048);
    return ProfileExportBundler::createBundle(folder);
}

TEST(CaptureFinalizationTest, PackagingThatFailsHalfWayKeepsTheRowsAndTheFolder) {
    RigOptions options;
    options.createBundle = bundleUntilTheDiskFills;
    CaptureRig rig(std::move(options));
    const auto runID = rig.startBeta();
    rig.addSamples(runID, 200);  // more than 2 KiB of CSV
    auto done = rig.stopAndFinalize(true);
    ASSERT_TRUE(done);
    EXPECT_EQ(
        rig.coordinator->profilingMessage(),
        QStringLiteral("Capture stopped. Export created and revealed in the file manager, but "
                       "packaging failed. ") +
            kRetained);
    EXPECT_TRUE(done->bundlePath.isEmpty());
    EXPECT_FALSE(rig.coordinator->lastPackagedExportPath());
    EXPECT_EQ(rig.revealed, QStringList{done->exportPath});
    EXPECT_EQ(rig.rowCount(runID), 200 + 1);
    EXPECT_EQ(rig.service->clearCalls, 0);
    const std::string bundle = done->exportPath.toStdString() + ".kelvocapture";
    EXPECT_FALSE(fs::exists(bundle));
    EXPECT_FALSE(fs::exists(bundle + ".partial"));
    EXPECT_TRUE(fs::exists(done->exportPath.toStdString() + "/samples.csv"));
}

TEST(CaptureFinalizationTest, AFailedCleanupIsReportedAndTheExportStands) {
    CaptureRig rig;
    const auto runID = rig.startBeta();
    rig.addSamples(runID, 4);
    sqlite3* other = nullptr;
    auto done = [&] {
        std::optional<CaptureRig::Finalized> result;
        auto connection = QObject::connect(
            rig.coordinator.get(), &CaptureCoordinator::lastExportPathChanged, [&] {
                // Lock the database between the export and the cleanup.
                if (rig.coordinator->lastExportPath() && !other) {
                    sqlite3_open(rig.dbPath.c_str(), &other);
                    sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
                }
            });
        result = rig.stopAndFinalize(false);
        QObject::disconnect(connection);
        return result;
    }();
    ASSERT_TRUE(done);
    if (other) {
        sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
        sqlite3_close(other);
    }
    EXPECT_TRUE(rig.coordinator->profilingMessage().startsWith(
        QStringLiteral("Capture stopped. Export created and revealed in the file manager. Export "
                       "succeeded but local "
                       "SQLite cleanup failed: ")));
    EXPECT_EQ(rig.rowCount(runID), 4 + 1);
}

// ----- Adaptive predictor --------------------------------------------------------------------

void addLoadRises(CaptureRig& rig, std::int64_t runID) {
    // Idle, then loaded with the temperature following 4 s later, twice.
    Timestamp t = 1000;
    for (int cycle = 0; cycle < 2; ++cycle) {
        for (int i = 0; i < 10; ++i) {
            TelemetrySample s;
            s.timestamp = t++;
            s.cpuUtilizationPct = 5;
            s.cpuTemperatureC = 50;
            s.totalPowerW = 10;
            rig.store->appendRunSample(runID, s);
        }
        for (int i = 0; i < 10; ++i) {
            TelemetrySample s;
            s.timestamp = t++;
            s.cpuUtilizationPct = 95;
            s.cpuTemperatureC = i >= 4 ? 60 : 50;
            s.totalPowerW = 80;
            rig.store->appendRunSample(runID, s);
        }
    }
}

TEST(CaptureFinalizationTest, WithoutTheLaunchFlagFinalizationLeavesThePredictorAlone) {
    CaptureRig rig;
    EXPECT_FALSE(rig.coordinator->adaptiveRefreshAfterFinalizationEnabled());
    const auto runID = rig.startBeta();
    addLoadRises(rig, runID);
    ASSERT_TRUE(rig.stopAndFinalize(false));
    processFor(100);
    EXPECT_EQ(rig.coordinator->adaptivePredictorLabel(), QStringLiteral("Baseline"));
    EXPECT_EQ(rig.coordinator->adaptivePredictorDetail(),
              QStringLiteral("No adaptive model active"));
    // A refresh would have been queued on the worker before the finalization finished; the
    // coordinator's end waits for everything queued there, however slow.
    rig.coordinator.reset();
    EXPECT_EQ(rig.service->refreshCalls, 0);
}

TEST(CaptureFinalizationTest, WithTheLaunchFlagFinalizationRefreshesThePredictor) {
    RigOptions options;
    options.arguments = {QStringLiteral("--adaptive-refresh-after-finalization")};
    CaptureRig rig(std::move(options));
    EXPECT_TRUE(rig.coordinator->adaptiveRefreshAfterFinalizationEnabled());
    const auto runID = rig.startBeta();
    addLoadRises(rig, runID);
    ASSERT_TRUE(rig.stopAndFinalize(false));
    ASSERT_TRUE(waitFor([&] {
        return rig.coordinator->adaptivePredictorLabel() == QStringLiteral("Adaptive lead v1");
    }));
    EXPECT_EQ(rig.coordinator->adaptivePredictorDetail(),
              QStringLiteral("threshold 70%, avg lead 4000ms, misses 0"));
    auto lead = loopCall(*rig.loop, [](ControlEngine& e) { return e.adaptiveLeadModel(); });
    lead.waitForFinished();
    ASSERT_TRUE(lead.result());
    EXPECT_DOUBLE_EQ(lead.result()->averageLeadMs, 4000);
}

TEST(CaptureFinalizationTest, PredictorSummaryText) {
    CaptureRig rig;
    AdaptiveLeadModel model;
    model.name = "Adaptive lead";
    model.version = 3;
    model.utilizationThresholdPct = 65;
    model.averageLeadMs = 420;
    model.misses = 2;
    rig.coordinator->updateAdaptivePredictorSummary(model);
    EXPECT_EQ(rig.coordinator->adaptivePredictorLabel(), QStringLiteral("Adaptive lead v3"));
    EXPECT_EQ(rig.coordinator->adaptivePredictorDetail(),
              QStringLiteral("threshold 65%, avg lead 420ms, misses 2"));
    rig.coordinator->updateAdaptivePredictorSummary(std::nullopt);
    EXPECT_EQ(rig.coordinator->adaptivePredictorLabel(), QStringLiteral("Baseline"));
    EXPECT_EQ(rig.coordinator->adaptivePredictorDetail(),
              QStringLiteral("No adaptive model active"));
}

}  // namespace
}  // namespace kelvo::testing
