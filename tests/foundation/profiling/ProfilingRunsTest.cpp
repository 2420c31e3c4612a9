// The profiling side of the framework: run signals in the store, abandoned-run recovery, model
// derivation and the adaptive lead fit, the export folder and its bundle, the auto-stop policy.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "foundation/control/ControlEngine.h"
#include "foundation/core/EventRing.h"
#include "foundation/profiling/CaptureAutoStopPolicy.h"
#include "foundation/profiling/ProfileExportBundler.h"
#include "foundation/profiling/ProfileExportWriter.h"
#include "foundation/profiling/ProfilingModels.h"
#include "foundation/profiling/ProfilingService.h"
#include "tests/ZipEntries.h"
#include "tests/foundation/ControlTestFakes.h"

namespace kelvo {
namespace {

namespace fs = std::filesystem;

class ProfilingRunsTest : public ::testing::Test {
protected:
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    std::string dbPath() const { return (dir_ / "kelvo.sqlite").string(); }
    static TelemetrySample loaded(Timestamp t, double cpuClock, double temperature) {
        TelemetrySample s;
        s.timestamp = t;
        s.cpuClockMHz = cpuClock;
        s.gpuClockMHz = cpuClock / 2;
        s.cpuTemperatureC = temperature;
        s.cpuUtilizationPct = 95;
        s.totalPowerW = 90;
        s.fanCurrentRPM = {2000};
        return s;
    }
    static std::string slurp(const fs::path& path) {
        std::ifstream in(path, std::ios::binary);
        std::stringstream buffer;
        buffer << in.rdbuf();
        return buffer.str();
    }

    fs::path dir_ = fs::temp_directory_path() / ("kelvo-runs-" + Uuid::generate().toString());
    std::shared_ptr<EventRing> ring_ = std::make_shared<EventRing>(32, 300);
};

TEST_F(ProfilingRunsTest, RunSignalsKeepTheirKindSeverityAndFigures) {
    ProfilingService service(ring_, dbPath(), [] { return 500.0; });
    auto id = service.startRun(ProfilingScenario::realWorkflow, ControlMode::quiet,
                               "background-capture", "kelvo", "");
    ASSERT_TRUE(id.ok());
    ProfilingRunEvent event{
        Uuid::generate(), 510, "freq_droop", "moderate", {{"score", 0.25}, {"cpuDrop", 0.125}}};
    ASSERT_TRUE(service.recordRunEvent(*id.value, event).ok());
    ASSERT_TRUE(service.recordRunEvent(*id.value, event).ok());  // the same id is stored once
    EXPECT_EQ(service.store().runEventRecords(*id.value), std::vector<ProfilingRunEvent>{event});
    auto missing = service.recordRunEvent(*id.value + 9, event);
    EXPECT_FALSE(missing.ok());
    EXPECT_NE(missing.error.find("no run"), std::string::npos);
}

TEST_F(ProfilingRunsTest, AVersionOneDatabaseIsMigratedAndKeepsItsRunEvents) {
    {
        SQLiteStore fresh(dbPath());
        ASSERT_EQ(fresh.schemaVersion(), SQLiteStore::kSchemaVersion);
    }
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(dbPath().c_str(), &db), SQLITE_OK);
    // Back to version 1: the columns version 2 added and the table version 3 added are dropped.
    const char* downgrade =
        "DROP TABLE fan_coupling; ALTER TABLE run_events DROP COLUMN kind; ALTER TABLE run_events "
        "DROP COLUMN severity; "
        "ALTER TABLE run_events DROP COLUMN details; PRAGMA user_version = 1;"
        "INSERT INTO runs (scenario, mode, started_at, status) VALUES ('x', 'quiet', 1, "
        "'active');"
        "INSERT INTO run_events VALUES (1, '00000000-0000-4000-8000-000000000001', 5, "
        "'old event', 0, 0);";
    ASSERT_EQ(sqlite3_exec(db, downgrade, nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
    SQLiteStore store(dbPath());
    EXPECT_EQ(store.schemaVersion(), SQLiteStore::kSchemaVersion);
    auto events = store.runEventRecords(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, "old event");
}

TEST_F(ProfilingRunsTest, TheNewestRecentRunResumesAndTheRestAreClosed) {
    SQLiteStore loop(dbPath());
    auto old =
        loop.startRun("realWorkflow", ControlMode::quiet, "background-capture", "kelvo", "", 100);
    auto recent =
        loop.startRun("realWorkflow", ControlMode::quiet, "background-capture", "kelvo", "", 900);
    ASSERT_TRUE(old && recent);
    loop.appendRunSample(*recent, loaded(950, 4000, 70));
    ProfilingService service(ring_, dbPath());
    auto closed = service.closeAbandonedRuns(950 + ProfilingService::kResumableGapSeconds);
    ASSERT_TRUE(closed.ok());
    ASSERT_EQ(closed.value->size(), 1u);
    EXPECT_EQ(closed.value->at(0).id, *old);
    EXPECT_EQ(closed.value->at(0).status, "abandoned");
    auto active = service.activeRun();
    ASSERT_TRUE(active.ok() && *active.value);
    EXPECT_EQ((*active.value)->id, *recent);
    // A second later than the resumable gap it is closed too.
    closed = service.closeAbandonedRuns(950 + ProfilingService::kResumableGapSeconds + 1);
    ASSERT_TRUE(closed.ok());
    EXPECT_EQ(closed.value->size(), 1u);
    EXPECT_FALSE(*service.activeRun().value);
}

TEST_F(ProfilingRunsTest, DerivationTakesHighLoadPercentiles) {
    std::vector<TelemetrySample> samples;
    for (int i = 0; i < 11; ++i) samples.push_back(loaded(i, 3000 + i * 100, 60 + i));
    TelemetrySample idle = loaded(20, 9999, 99);
    idle.cpuUtilizationPct = 5;
    idle.totalPowerW = 10;
    samples.push_back(idle);  // not high load: its clock is ignored, its heat is not
    auto model = ProfilingModels::deriveLearnedModel(samples, std::nullopt, 77);
    ASSERT_TRUE(model);
    EXPECT_DOUBLE_EQ(*model->cpuReferenceClockMHz, 3900);  // 90th of 3000..4000
    EXPECT_DOUBLE_EQ(*model->gpuReferenceClockMHz, 1950);
    EXPECT_NEAR(*model->temperatureReferenceC, 70 + 0.45 * 29, 1e-9);  // 95th of 60..70, 99
    EXPECT_DOUBLE_EQ(model->createdAt, 77);
}

TEST_F(ProfilingRunsTest, AnIdleRunKeepsTheBaselineOrDerivesNothing) {
    TelemetrySample idle = loaded(1, 1000, 40);
    idle.cpuUtilizationPct = 3;
    EXPECT_FALSE(ProfilingModels::deriveLearnedModel({idle}, std::nullopt, 5));
    LearnedModel baseline{3, "kelvo", 1, 4100, 1700, 88};
    auto kept = ProfilingModels::deriveLearnedModel({idle}, baseline, 5);
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->cpuReferenceClockMHz, baseline.cpuReferenceClockMHz);
    EXPECT_EQ(kept->temperatureReferenceC, baseline.temperatureReferenceC);
}

TEST_F(ProfilingRunsTest, TheLeadFitTimesTemperatureRisesAndCountsMisses) {
    std::vector<TelemetrySample> samples;
    Timestamp t = 0;
    auto add = [&](double util, double temperature) {
        TelemetrySample s;
        s.timestamp = t++;
        s.cpuUtilizationPct = util;
        s.cpuTemperatureC = temperature;
        samples.push_back(s);
    };
    for (int i = 0; i < 5; ++i) add(10, 50);
    for (int i = 0; i < 10; ++i) add(90, i >= 6 ? 54 : 50);  // rise after 6 s
    for (int i = 0; i < 5; ++i) add(10, 50);
    for (int i = 0; i < 5; ++i) add(90, 50);  // a rise the temperature never follows
    AdaptiveLeadModel previous;
    previous.version = 4;
    auto fit = ProfilingModels::fitAdaptiveLeadModel(samples, previous, 9);
    EXPECT_EQ(fit.loadRises, 2);
    ASSERT_TRUE(fit.model);
    EXPECT_EQ(fit.model->version, 5);
    EXPECT_DOUBLE_EQ(fit.model->averageLeadMs, 6000);
    EXPECT_EQ(fit.model->misses, 1);
    EXPECT_FALSE(ProfilingModels::fitAdaptiveLeadModel({}, std::nullopt, 9).model);
}

TEST_F(ProfilingRunsTest, TheLoopRecordsSamplesOfTheActiveRunAndSaysOnceWhenItCannot) {
    auto store = std::make_shared<SQLiteStore>(dbPath());
    auto telemetry = std::make_shared<fakes::ScriptedTelemetry>();
    telemetry->next = loaded(0, 4000, 60);
    ControlEngine engine(telemetry, std::make_shared<fakes::RecordingFans>(), store, ring_,
                         nullptr);
    auto run = store->startRun("realWorkflow", ControlMode::quiet, "x", "kelvo", "", 1);
    ASSERT_TRUE(run);
    engine.tick(10);
    engine.setActiveProfilingRunID(*run);
    engine.tick(11);
    engine.tick(12);
    engine.setActiveProfilingRunID(std::nullopt);
    engine.tick(13);
    EXPECT_EQ(store->runSamples(*run).size(), 2u);
    // A run that is gone (its rows cleared elsewhere) fails every tick; one event says so.
    engine.setActiveProfilingRunID(*run + 50);
    const auto before = ring_->recent(32).size();
    engine.tick(14);
    engine.tick(15);
    const auto events = ring_->recent(32);
    ASSERT_EQ(events.size(), before + 1);
    EXPECT_NE(events.back().message.find("are not being recorded"), std::string::npos);
    EXPECT_TRUE(events.back().isFailure);
}

TEST_F(ProfilingRunsTest, AnExportFolderHoldsTheFourFiles) {
    ProfilingService service(ring_, dbPath(), [] { return 2000.0; });
    auto id = service.startRun(ProfilingScenario::cpuStress, ControlMode::performance, "x", "kelvo",
                               "comma, \"quote\"");
    ASSERT_TRUE(id.ok());
    for (int i = 0; i < 30; ++i)
        service.store().appendRunSample(*id.value, loaded(2000 + i, 4000, 70));
    service.recordRunEvent(*id.value, {Uuid::generate(), 2010, "burst_ramp", "high", {}});
    ASSERT_TRUE(service.stopRun(*id.value).ok());
    const auto folder = dir_ / "profiles" / "20260101-000000";
    auto exported = service.exportRun(*id.value, folder.string(), std::nullopt);
    ASSERT_TRUE(exported.ok()) << exported.error;
    EXPECT_EQ(exported.value->files,
              (std::vector<std::string>{"run.json", "samples.csv", "events.csv", "summary.svg"}));
    EXPECT_EQ(exported.value->sampleCount, 30u);
    const auto json = slurp(folder / "run.json");
    EXPECT_NE(json.find("\"notes\": \"comma, \\\"quote\\\"\""), std::string::npos);
    EXPECT_NE(json.find("\"scenario\": \"cpuStress\""), std::string::npos);
    EXPECT_NE(json.find("\"burst_ramp\": 1"), std::string::npos);
    const auto csv = slurp(folder / "samples.csv");
    EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 31);
    EXPECT_NE(csv.find("\n2000.000,1970-01-01T00:33:20.000Z,"), std::string::npos);
    EXPECT_NE(slurp(folder / "summary.svg").find("<polyline"), std::string::npos);
    // The same folder again is refused rather than overwritten.
    EXPECT_FALSE(service.exportRun(*id.value, folder.string(), std::nullopt).ok());
    // An unknown run exports nothing.
    EXPECT_FALSE(service.exportRun(999, (dir_ / "other").string(), std::nullopt).ok());
    EXPECT_FALSE(fs::exists(dir_ / "other"));
}

TEST(ProfileExportWriterTest, TimesAreWholeMillisecondsInUtc) {
    TelemetrySample s;
    s.timestamp = 1795417221.725;
    const auto csv = ProfileExportWriter::samplesCsv({s});
    EXPECT_NE(csv.find("1795417221.725,2026-11-23T07:00:21.725Z,"), std::string::npos) << csv;
}

TEST_F(ProfilingRunsTest, AFailedWriteLeavesNoHalfExport) {
    ProfileExportInput input;
    input.run.id = 1;
    for (int i = 0; i < 400; ++i) input.samples.push_back(loaded(i, 4000, 60));
    const auto folder = dir_ / "half";
    fs::create_directories(dir_);
    auto handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit previous{};
    getrlimit(RLIMIT_FSIZE, &previous);
    rlimit limit = previous;
    limit.rlim_cur = 4096;
    setrlimit(RLIMIT_FSIZE, &limit);
    auto result = ProfileExportWriter::write(folder.string(), input);
    setrlimit(RLIMIT_FSIZE, &previous);
    std::signal(SIGXFSZ, handler);
    EXPECT_FALSE(result.ok());
    EXPECT_NE(result.error.find("samples.csv"), std::string::npos) << result.error;
    EXPECT_FALSE(fs::exists(folder));
}

TEST_F(ProfilingRunsTest, TheBundleUnpacksToTheFolder) {
    const auto folder = dir_ / "20260101-120000";
    fs::create_directories(folder);
    std::ofstream(folder / "a.txt") << "alpha";
    std::ofstream(folder / "b.csv") << std::string(100000, 'x');
    auto bundle = ProfileExportBundler::createBundle(folder.string());
    ASSERT_TRUE(bundle.ok()) << bundle.error;
    EXPECT_EQ(*bundle.value, folder.string() + ".kelvocapture");
    std::map<std::string, std::size_t> sizes;
    for (const auto& [name, content] : kelvo::test::zipEntries(*bundle.value))
        sizes[name] = content.size();
    EXPECT_EQ(sizes, (std::map<std::string, std::size_t>{{"20260101-120000/a.txt", 5},
                                                         {"20260101-120000/b.csv", 100000}}));
    EXPECT_FALSE(ProfileExportBundler::createBundle((dir_ / "missing").string()).ok());
}

TEST(CaptureAutoStopPolicyTest, PlansByWorkflow) {
    using namespace CaptureAutoStopPolicy;
    EXPECT_EQ(
        plan(CaptureWorkflowKind::backgroundCapture, ProfilingScenario::realWorkflow, false, 15),
        (CaptureAutoStopPlan{900, true}));
    EXPECT_EQ(plan(CaptureWorkflowKind::scriptedWorkload, ProfilingScenario::gpuStress, true, 15),
              (CaptureAutoStopPlan{300, true}));
    EXPECT_EQ(plan(CaptureWorkflowKind::developerCapture, ProfilingScenario::cpuStress, true, 15),
              std::nullopt);
    EXPECT_EQ(
        plan(CaptureWorkflowKind::backgroundCapture, ProfilingScenario::realWorkflow, false, -3),
        (CaptureAutoStopPlan{0, true}));
}

}  // namespace
}  // namespace kelvo
