#include "foundation/store/SQLiteStore.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <thread>

namespace kelvo {
namespace {

namespace fs = std::filesystem;

class TempDir {
public:
    TempDir() : path_(fs::temp_directory_path() / ("kelvo-store-" + Uuid::generate().toString())) {
        fs::create_directories(path_);
    }
    ~TempDir() {
        std::error_code ec;
        fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
        fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    fs::path path_;
};

std::string readBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<fs::path> filesStartingWith(const fs::path& dir, const std::string& prefix) {
    std::vector<fs::path> out;
    for (const auto& entry : fs::directory_iterator(dir))
        if (entry.path().filename().string().rfind(prefix, 0) == 0) out.push_back(entry.path());
    return out;
}

// Runs one statement on a separate raw connection and returns the first column of the first row.
std::string rawQuery(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    std::string result;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) ==
        SQLITE_OK) {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK) {
            int rc = sqlite3_step(stmt);
            if (rc == SQLITE_ROW && sqlite3_column_text(stmt, 0))
                result = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
            else if (rc != SQLITE_ROW && rc != SQLITE_DONE)
                result = "error: " + std::string(sqlite3_errmsg(db));
        } else {
            result = "error: " + std::string(sqlite3_errmsg(db));
        }
        sqlite3_finalize(stmt);
    }
    sqlite3_close(db);
    return result;
}

RuntimeEvent eventAt(Timestamp timestamp, std::string message, bool failure = false) {
    RuntimeEvent event = RuntimeEvent::make(std::move(message), failure);
    event.timestamp = timestamp;
    return event;
}

TelemetrySample sampleAt(Timestamp timestamp, double cpuTemp = 60) {
    TelemetrySample s;
    s.timestamp = timestamp;
    s.cpuTemperatureC = cpuTemp;
    s.gpuTemperatureC = 55.5;
    s.cpuClockMHz = 4200;
    s.gpuClockMHz = 1800;
    s.gpuReferenceMaxClockMHz = 2100;
    s.totalPowerW = 88.25;
    s.cpuUtilizationPct = 73;
    s.gpuUtilizationPct = 41;
    s.thermalPressure = ThermalPressureLevel::serious;
    s.fanCurrentRPM = {1000, 2000};
    return s;
}

// The moved-aside database itself among the files moved aside with it (its -wal and -shm).
std::string databaseAmong(const std::vector<std::filesystem::path>& files) {
    for (const auto& p : files)
        if (p.string().find("-wal") == std::string::npos &&
            p.string().find("-shm") == std::string::npos)
            return p.string();
    return {};
}

TEST(SQLiteStore, OpensInWalModeWithCurrentSchemaVersion) {
    TempDir dir;
    const auto path = dir.file("kelvo.sqlite");
    SQLiteStore store(path);
    EXPECT_TRUE(store.isPersistent());
    EXPECT_EQ(store.path(), path);
    EXPECT_EQ(store.schemaVersion(), SQLiteStore::kSchemaVersion);
    EXPECT_TRUE(store.takeStartupEvents().empty());
    EXPECT_EQ(rawQuery(path, "PRAGMA journal_mode"), "wal");
    EXPECT_EQ(rawQuery(path, "PRAGMA user_version"), std::to_string(SQLiteStore::kSchemaVersion));
}

TEST(SQLiteStore, CreatesMissingParentFolder) {
    TempDir dir;
    const auto path = dir.file("a/b/kelvo.sqlite");
    SQLiteStore store(path);
    EXPECT_TRUE(store.isPersistent());
    EXPECT_TRUE(fs::exists(path));
}

TEST(SQLiteStore, EventsRoundTripOldestFirstAndSurviveReopen) {
    TempDir dir;
    const auto path = dir.file("kelvo.sqlite");
    const auto a = eventAt(10, "first");
    const auto b = eventAt(20, "second", true);
    auto c = eventAt(30, "third");
    c.isBuildIdentity = true;
    {
        SQLiteStore store(path);
        ASSERT_TRUE(store.appendEvent(b));
        ASSERT_TRUE(store.appendEvent(a));
        ASSERT_TRUE(store.appendEvent(c));
        ASSERT_TRUE(store.appendEvent(c));  // same id: stored once
        EXPECT_EQ(store.recentEvents(10), (std::vector<RuntimeEvent>{a, b, c}));
        EXPECT_EQ(store.recentEvents(2), (std::vector<RuntimeEvent>{b, c}));
    }
    SQLiteStore reopened(path);
    EXPECT_EQ(reopened.recentEvents(10), (std::vector<RuntimeEvent>{a, b, c}));
}

TEST(SQLiteStore, SamplesAreDownsampledToOneRowPerTenSeconds) {
    TempDir dir;
    SQLiteStore store(dir.file("kelvo.sqlite"));
    for (double t : {1000.0, 1003.0, 1009.9, 1010.0, 1015.0, 1025.0})
        ASSERT_TRUE(store.appendSample(sampleAt(t, t - 940)));
    auto stored = store.samples(0, 2000);
    ASSERT_EQ(stored.size(), 3u);
    EXPECT_DOUBLE_EQ(stored[0].timestamp, 1000);
    EXPECT_DOUBLE_EQ(stored[1].timestamp, 1010);
    EXPECT_DOUBLE_EQ(stored[2].timestamp, 1025);

    // Stored fields come back; fans are kept as their mean.
    TelemetrySample expected = sampleAt(1010, 70);
    expected.fanCurrentRPM = {1500};
    EXPECT_EQ(stored[1], expected);

    EXPECT_EQ(store.samples(1005, 1020).size(), 1u);
}

TEST(SQLiteStore, AbsentSampleFieldsStayAbsent) {
    TempDir dir;
    SQLiteStore store(dir.file("kelvo.sqlite"));
    TelemetrySample sparse;
    sparse.timestamp = 500;
    sparse.cpuTemperatureC = 45;
    ASSERT_TRUE(store.appendSample(sparse));
    auto stored = store.samples(0, 1000);
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0], sparse);
}

TEST(SQLiteStore, DownsamplingContinuesAcrossReopen) {
    TempDir dir;
    const auto path = dir.file("kelvo.sqlite");
    {
        SQLiteStore store(path);
        ASSERT_TRUE(store.appendSample(sampleAt(1000)));
    }
    SQLiteStore store(path);
    ASSERT_TRUE(store.appendSample(sampleAt(1004)));
    ASSERT_TRUE(store.appendSample(sampleAt(1011)));
    auto stored = store.samples(0, 2000);
    ASSERT_EQ(stored.size(), 2u);
    EXPECT_DOUBLE_EQ(stored[1].timestamp, 1011);
}

TEST(SQLiteStore, PruneRemovesOnlyOlderSamples) {
    TempDir dir;
    SQLiteStore store(dir.file("kelvo.sqlite"));
    for (double t : {100.0, 200.0, 300.0}) ASSERT_TRUE(store.appendSample(sampleAt(t)));
    EXPECT_EQ(store.pruneSamplesOlderThan(200), 1);
    auto left = store.samples(0, 1000);
    ASSERT_EQ(left.size(), 2u);
    EXPECT_DOUBLE_EQ(left[0].timestamp, 200);
    EXPECT_EQ(store.pruneSamplesOlderThan(200), 0);
}

TEST(SQLiteStore, RunLifecycleRecordsSamplesAndEvents) {
    TempDir dir;
    SQLiteStore store(dir.file("kelvo.sqlite"));
    EXPECT_FALSE(store.activeRun());
    auto id = store.startRun("gaming", ControlMode::quietHybrid, "7", "kelvo", "first try", 1000);
    ASSERT_TRUE(id);

    auto active = store.activeRun();
    ASSERT_TRUE(active);
    EXPECT_EQ(active->id, *id);
    EXPECT_EQ(active->scenario, "gaming");
    EXPECT_EQ(active->mode, "quietHybrid");
    EXPECT_EQ(active->modelID, "7");
    EXPECT_EQ(active->modelSource, "kelvo");
    EXPECT_EQ(active->notes, "first try");
    EXPECT_DOUBLE_EQ(active->startedAt, 1000);
    EXPECT_FALSE(active->stoppedAt);
    EXPECT_EQ(active->status, "active");

    // Run samples keep full resolution.
    ASSERT_TRUE(store.appendRunSample(*id, sampleAt(1001)));
    ASSERT_TRUE(store.appendRunSample(*id, sampleAt(1002)));
    const auto event = eventAt(1001.5, "Repeated boundary pressure while in Quiet Hybrid", true);
    ASSERT_TRUE(store.appendRunEvent(*id, event));
    ASSERT_TRUE(store.appendRunEvent(*id, event));
    EXPECT_FALSE(store.appendRunSample(*id + 100, sampleAt(1003)));
    EXPECT_NE(store.lastError().find("no run"), std::string::npos);
    EXPECT_FALSE(store.appendRunEvent(*id + 100, event));

    EXPECT_FALSE(store.latestCompletedRun());
    ASSERT_TRUE(store.stopRun(*id, 1300));
    EXPECT_FALSE(store.stopRun(*id, 1400));  // already stopped
    EXPECT_FALSE(store.activeRun());

    auto completed = store.latestCompletedRun();
    ASSERT_TRUE(completed);
    EXPECT_EQ(completed->id, *id);
    EXPECT_EQ(completed->stoppedAt, std::optional<Timestamp>(1300));
    EXPECT_EQ(completed->status, "completed");

    auto samples = store.runSamples(*id);
    ASSERT_EQ(samples.size(), 2u);
    EXPECT_DOUBLE_EQ(samples[0].timestamp, 1001);
    EXPECT_DOUBLE_EQ(samples[1].timestamp, 1002);
    EXPECT_EQ(store.runEvents(*id), std::vector<RuntimeEvent>{event});

    ASSERT_TRUE(store.clearRun(*id));
    EXPECT_TRUE(store.runSamples(*id).empty());
    EXPECT_TRUE(store.runEvents(*id).empty());
    EXPECT_FALSE(store.latestCompletedRun());
    EXPECT_FALSE(store.clearRun(*id));
}

TEST(SQLiteStore, NotesAreAppendedToAnOpenRunOnly) {
    SQLiteStore store(":memory:");
    auto empty = store.startRun("s", ControlMode::quiet, "", "", "", 1);
    auto noted = store.startRun("s", ControlMode::quiet, "", "", "first", 2);
    ASSERT_TRUE(empty && noted);
    EXPECT_TRUE(store.appendRunNotes(*empty, "only"));
    EXPECT_TRUE(store.appendRunNotes(*noted, "second"));
    EXPECT_EQ(store.run(*empty)->notes, "only");
    EXPECT_EQ(store.run(*noted)->notes, "first\nsecond");
    ASSERT_TRUE(store.stopRun(*noted, 3));
    EXPECT_FALSE(store.appendRunNotes(*noted, "late"));
    EXPECT_NE(store.lastError().find("no active run"), std::string::npos);
    EXPECT_EQ(store.run(*noted)->notes, "first\nsecond");
}

TEST(SQLiteStore, LatestCompletedRunIsTheLastStopped) {
    TempDir dir;
    SQLiteStore store(dir.file("kelvo.sqlite"));
    auto first = store.startRun("a", ControlMode::quiet, "", "", "", 100);
    auto second = store.startRun("b", ControlMode::performance, "", "", "", 200);
    ASSERT_TRUE(first && second);
    ASSERT_TRUE(store.stopRun(*second, 300));
    ASSERT_TRUE(store.stopRun(*first, 400));
    auto latest = store.latestCompletedRun();
    ASSERT_TRUE(latest);
    EXPECT_EQ(latest->id, *first);
}

TEST(SQLiteStore, CloseAbandonedRunsStopsRunsLeftActiveByEarlierProcess) {
    TempDir dir;
    const auto path = dir.file("kelvo.sqlite");
    std::int64_t leftOpen = 0;
    std::int64_t finished = 0;
    {
        SQLiteStore store(path);
        finished = *store.startRun("done", ControlMode::quiet, "", "", "", 10);
        ASSERT_TRUE(store.stopRun(finished, 20));
        leftOpen = *store.startRun("crashed", ControlMode::performance, "", "", "", 30);
    }
    SQLiteStore store(path);
    ASSERT_TRUE(store.activeRun());
    auto closed = store.closeAbandonedRuns(500);
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_EQ(closed[0].id, leftOpen);
    EXPECT_EQ(closed[0].scenario, "crashed");
    EXPECT_EQ(closed[0].stoppedAt, std::optional<Timestamp>(500));
    EXPECT_EQ(closed[0].status, "abandoned");
    EXPECT_FALSE(store.activeRun());
    EXPECT_TRUE(store.closeAbandonedRuns(600).empty());
    // An abandoned run is not a completed one.
    ASSERT_TRUE(store.latestCompletedRun());
    EXPECT_EQ(store.latestCompletedRun()->id, finished);
}

TEST(SQLiteStore, LearnedModelSaveSelectsActive) {
    TempDir dir;
    SQLiteStore store(dir.file("kelvo.sqlite"));
    EXPECT_FALSE(store.activeLearnedModel());

    LearnedModel first{0, "kelvo", 100, 4500, std::nullopt, 92};
    auto firstID = store.saveLearnedModel(first, true);
    ASSERT_TRUE(firstID);
    LearnedModel inactive{0, "background-capture", 200, 4000, 1900, 80};
    auto inactiveID = store.saveLearnedModel(inactive, false);
    ASSERT_TRUE(inactiveID);
    EXPECT_NE(*firstID, *inactiveID);

    auto active = store.activeLearnedModel();
    ASSERT_TRUE(active);
    first.id = *firstID;
    EXPECT_EQ(*active, first);

    LearnedModel third{0, "kelvo", 300, 4600, 2000, 95};
    auto thirdID = store.saveLearnedModel(third, true);
    ASSERT_TRUE(thirdID);
    third.id = *thirdID;
    EXPECT_EQ(store.activeLearnedModel(), third);
}

TEST(SQLiteStore, AdaptiveModelSaveSelectsActive) {
    TempDir dir;
    SQLiteStore store(dir.file("kelvo.sqlite"));
    std::string error = "untouched";
    EXPECT_FALSE(store.activeAdaptiveLeadModel(&error));
    EXPECT_EQ(error, "untouched");

    AdaptiveLeadModel first;
    first.createdAt = 100;
    first.utilizationThresholdPct = 65;
    first.averageLeadMs = 1800;
    first.misses = 2;
    auto firstID = store.saveAdaptiveLeadModel(first, true);
    ASSERT_TRUE(firstID);
    AdaptiveLeadModel candidate = first;
    candidate.averageLeadMs = 900;
    ASSERT_TRUE(store.saveAdaptiveLeadModel(candidate, false));

    first.id = *firstID;
    EXPECT_EQ(store.activeAdaptiveLeadModel(), first);

    AdaptiveLeadModel second = first;
    second.version = 2;
    second.averageLeadMs = 2500;
    auto secondID = store.saveAdaptiveLeadModel(second, true);
    ASSERT_TRUE(secondID);
    second.id = *secondID;
    EXPECT_EQ(store.activeAdaptiveLeadModel(), second);
}

TEST(SQLiteStore, FanCurveRoundTripsAndReplaces) {
    TempDir dir;
    const auto path = dir.file("kelvo.sqlite");
    const SQLiteStore::FanCurve curve{{0, 0}, {76.5, 812.25}, {255, 2400}};
    {
        SQLiteStore store(path);
        EXPECT_FALSE(store.fanCurve("nct6775/platform/nct6775.656:1"));
        ASSERT_TRUE(store.saveFanCurve("nct6775/platform/nct6775.656:1", curve));
    }
    SQLiteStore store(path);
    EXPECT_EQ(store.fanCurve("nct6775/platform/nct6775.656:1"), curve);
    EXPECT_FALSE(store.fanCurve("nct6775/platform/nct6775.656:2"));

    const SQLiteStore::FanCurve relearned{{30, 500}, {255, 2500}};
    ASSERT_TRUE(store.saveFanCurve("nct6775/platform/nct6775.656:1", relearned));
    EXPECT_EQ(store.fanCurve("nct6775/platform/nct6775.656:1"), relearned);

    EXPECT_FALSE(store.saveFanCurve("empty", {}));
    EXPECT_FALSE(store.lastError().empty());
}

TEST(SQLiteStore, FanCouplingRoundTripsAndSkipsAMalformedRow) {
    TempDir dir;
    const auto path = dir.file("kelvo.sqlite");
    FanCouplingEvidence cooler;
    cooler.cpu.byLag[2].add(2.5e-4, 40);
    cooler.cpu.byLag[2].add(3.0e-4, 60);
    cooler.cpu.misfit[2] = 0.125;
    cooler.gpu.byLag[5].add(1e-5, 50);
    FanCouplingEvidence card;
    card.gpu.byLag[0].add(4e-4, 80);
    {
        SQLiteStore store(path);
        const auto none = store.fanCouplings();
        ASSERT_TRUE(none);
        EXPECT_TRUE(none->empty());
        ASSERT_TRUE(store.saveFanCoupling("it8686/platform/it87.2608#fan1", cooler));
        ASSERT_TRUE(store.saveFanCoupling("amdgpu/pci0000:00/0000:03:00.0#fan1", card));
        FanCouplingEvidence broken;
        broken.cpu.byLag[1].sum = std::nan("");
        EXPECT_FALSE(store.saveFanCoupling("broken", broken));
        EXPECT_NE(store.lastError().find("not finite"), std::string::npos);
    }
    // A row someone else wrote that is not the encoding: skipped and named, the others kept.
    ASSERT_EQ(rawQuery(path, "INSERT INTO fan_coupling VALUES ('odd', '1 2 3', 5)"), "");
    SQLiteStore store(path);
    std::string skipped;
    const auto read = store.fanCouplings(&skipped);
    ASSERT_TRUE(read);
    ASSERT_EQ(read->size(), 2u);
    EXPECT_EQ(read->at("it8686/platform/it87.2608#fan1"), cooler);
    EXPECT_EQ(read->at("amdgpu/pci0000:00/0000:03:00.0#fan1"), card);
    EXPECT_EQ(skipped, "the stored coupling of odd is malformed");
}

TEST(SQLiteStore, GarbageFileIsMovedAsideAndRecreated) {
    TempDir dir;
    const auto path = dir.file("kelvo.sqlite");
    std::string garbage(8192, '\0');
    std::mt19937 random(42);
    for (auto& byte : garbage) byte = static_cast<char>(random() & 0xff);
    {
        std::ofstream out(path, std::ios::binary);
        out.write(garbage.data(), static_cast<std::streamsize>(garbage.size()));
    }

    SQLiteStore store(path, [] { return 1700000000.0; });
    EXPECT_TRUE(store.isPersistent());

    auto aside = filesStartingWith(dir.path(), "kelvo.sqlite.corrupt-");
    ASSERT_EQ(aside.size(), 1u);
    EXPECT_EQ(readBytes(aside[0]), garbage);

    auto events = store.takeStartupEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events[0].isFailure);
    EXPECT_DOUBLE_EQ(events[0].timestamp, 1700000000.0);
    EXPECT_NE(events[0].message.find("Database at " + path + " was unreadable ("),
              std::string::npos);
    EXPECT_NE(events[0].message.find("moved aside to " + aside[0].string() + " and recreated"),
              std::string::npos);
    EXPECT_TRUE(store.takeStartupEvents().empty());

    const auto event = eventAt(5, "after recovery");
    ASSERT_TRUE(store.appendEvent(event));
    EXPECT_EQ(store.recentEvents(5), std::vector<RuntimeEvent>{event});
    EXPECT_EQ(rawQuery(path, "PRAGMA journal_mode"), "wal");
}

TEST(SQLiteStore, FutureSchemaVersionIsMovedAside) {
    TempDir dir;
    const auto path = dir.file("kelvo.sqlite");
    ASSERT_EQ(rawQuery(path, "CREATE TABLE later (x)"), "");
    ASSERT_EQ(rawQuery(path, "PRAGMA user_version = 99"), "");

    SQLiteStore store(path);
    EXPECT_TRUE(store.isPersistent());
    EXPECT_EQ(store.schemaVersion(), SQLiteStore::kSchemaVersion);
    auto events = store.takeStartupEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events[0].isFailure);
    EXPECT_NE(events[0].message.find("schema version 99"), std::string::npos);

    auto aside = filesStartingWith(dir.path(), "kelvo.sqlite.corrupt-");
    ASSERT_FALSE(aside.empty());
    const std::string asideDB = databaseAmong(aside);
    ASSERT_FALSE(asideDB.empty());
    EXPECT_EQ(rawQuery(asideDB, "PRAGMA user_version"), "99");
    EXPECT_EQ(rawQuery(path, "PRAGMA user_version"), std::to_string(SQLiteStore::kSchemaVersion));
}

TEST(SQLiteStore, ForeignTablesAtVersionZeroAreMovedAside) {
    TempDir dir;
    const auto path = dir.file("kelvo.sqlite");
    ASSERT_EQ(rawQuery(path, "CREATE TABLE samples (unrelated TEXT)"), "");

    SQLiteStore store(path);
    EXPECT_TRUE(store.isPersistent());
    auto events = store.takeStartupEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_NE(events[0].message.find("was unreadable"), std::string::npos);
    ASSERT_TRUE(store.appendSample(sampleAt(10)));
    EXPECT_EQ(store.samples(0, 100).size(), 1u);
}

TEST(SQLiteStore, AFileThatClaimsTheCurrentVersionButHoldsOtherTablesIsMovedAside) {
    TempDir dir;
    const auto path = dir.file("kelvo.sqlite");
    ASSERT_EQ(rawQuery(path, "CREATE TABLE notes (id INTEGER PRIMARY KEY, body TEXT)"), "");
    ASSERT_EQ(rawQuery(path, "INSERT INTO notes (body) VALUES ('someone else''s data')"), "");
    ASSERT_EQ(
        rawQuery(path, "PRAGMA user_version = " + std::to_string(SQLiteStore::kSchemaVersion)), "");

    SQLiteStore store(path, [] { return 1700000000.0; });
    EXPECT_TRUE(store.isPersistent());
    auto events = store.takeStartupEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events[0].isFailure);
    EXPECT_NE(events[0].message.find("not a Kelvo database: no table "), std::string::npos)
        << events[0].message;
    EXPECT_NE(events[0].message.find("moved aside to "), std::string::npos);
    // The other program's data is kept, and Kelvo's writes land in the new file.
    auto aside = filesStartingWith(dir.path(), "kelvo.sqlite.corrupt-");
    const std::string asideDB = databaseAmong(aside);
    ASSERT_FALSE(asideDB.empty());
    EXPECT_EQ(rawQuery(asideDB, "SELECT body FROM notes"), "someone else's data");
    ASSERT_TRUE(store.appendSample(sampleAt(10)));
    EXPECT_EQ(store.samples(0, 100).size(), 1u);
}

TEST(SQLiteStore, AFileMissingOneOfOurColumnsIsMovedAside) {
    TempDir dir;
    const auto path = dir.file("kelvo.sqlite");
    {
        SQLiteStore original(path);
        ASSERT_TRUE(original.isPersistent());
    }
    // Our tables, but one of them rebuilt by someone else without a column we write.
    ASSERT_EQ(rawQuery(path, "DROP TABLE fan_curves"), "");
    ASSERT_EQ(rawQuery(path, "CREATE TABLE fan_curves (fan_identity TEXT PRIMARY KEY)"), "");

    SQLiteStore store(path);
    auto events = store.takeStartupEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_NE(events[0].message.find("table fan_curves has no column "), std::string::npos)
        << events[0].message;
    EXPECT_TRUE(store.saveFanCurve("fan", {{51, 650}, {255, 2100}}));
}

TEST(SQLiteStore, OurOwnDatabaseReopensWithoutAnyEvent) {
    TempDir dir;
    const auto path = dir.file("kelvo.sqlite");
    { SQLiteStore first(path); }
    SQLiteStore second(path);
    EXPECT_TRUE(second.isPersistent());
    EXPECT_TRUE(second.takeStartupEvents().empty());
}

TEST(SQLiteStore, UnusableLocationFallsBackToMemory) {
    TempDir dir;
    const auto blocker = dir.file("blocker");
    std::ofstream(blocker) << "a regular file where a folder should be";
    const auto path = blocker + "/kelvo.sqlite";

    SQLiteStore store(path);
    EXPECT_FALSE(store.isPersistent());
    EXPECT_EQ(store.path(), path);
    EXPECT_EQ(store.schemaVersion(), SQLiteStore::kSchemaVersion);

    auto events = store.takeStartupEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events[0].isFailure);
    EXPECT_EQ(events[0].message.rfind("Database at " + path + " could not be opened (", 0), 0u);
    EXPECT_NE(events[0].message.find("); using a temporary in-memory store"), std::string::npos);

    const auto event = eventAt(1, "kept in memory");
    ASSERT_TRUE(store.appendEvent(event));
    EXPECT_EQ(store.recentEvents(10), std::vector<RuntimeEvent>{event});
    auto run = store.startRun("s", ControlMode::quiet, "", "", "", 1);
    ASSERT_TRUE(run);
    EXPECT_TRUE(store.appendRunSample(*run, sampleAt(2)));
}

TEST(SQLiteStore, ExplicitMemoryPathIsNotAFailure) {
    SQLiteStore store(":memory:");
    EXPECT_FALSE(store.isPersistent());
    EXPECT_TRUE(store.takeStartupEvents().empty());
    EXPECT_TRUE(store.appendEvent(eventAt(1, "x")));
}

TEST(SQLiteStore, FailedStatementSetsLastErrorWithoutThrowing) {
    TempDir dir;
    const auto path = dir.file("kelvo.sqlite");
    SQLiteStore store(path);
    EXPECT_TRUE(store.lastError().empty());
    ASSERT_EQ(rawQuery(path, "DROP TABLE learned_models"), "");
    ASSERT_EQ(rawQuery(path, "DROP TABLE events"), "");

    std::string error;
    EXPECT_FALSE(store.activeLearnedModel(&error));
    EXPECT_NE(error.find("learned_models"), std::string::npos);
    EXPECT_FALSE(store.appendEvent(eventAt(1, "x")));
    EXPECT_NE(store.lastError().find("events"), std::string::npos);
    EXPECT_TRUE(store.recentEvents(10).empty());
    EXPECT_FALSE(store.saveLearnedModel(LearnedModel{}, true));
}

TEST(SQLiteStore, TheKeptSampleInsertFailsCleanlyAndRecoversWithItsTable) {
    TempDir dir;
    const auto path = dir.file("kelvo.sqlite");
    SQLiteStore store(path);
    ASSERT_TRUE(store.appendSample(sampleAt(100)));
    ASSERT_TRUE(store.appendSample(sampleAt(110)));  // the same prepared insert, used again

    // Another connection takes the table away under the prepared statement.
    const auto schema = rawQuery(path, "SELECT sql FROM sqlite_master WHERE name = 'samples'");
    ASSERT_FALSE(schema.empty());
    ASSERT_EQ(rawQuery(path, "DROP TABLE samples"), "");
    EXPECT_FALSE(store.appendSample(sampleAt(120)));
    EXPECT_NE(store.lastError().find("append sample"), std::string::npos);
    EXPECT_NE(store.lastError().find("samples"), std::string::npos);

    // Once the table is back, the same insert works again.
    ASSERT_EQ(rawQuery(path, schema), "");
    EXPECT_TRUE(store.appendSample(sampleAt(130)));
    EXPECT_TRUE(store.appendSample(sampleAt(140)));
    auto stored = store.samples(0, 1000);
    ASSERT_EQ(stored.size(), 2u);
    EXPECT_DOUBLE_EQ(stored[0].timestamp, 130);
    EXPECT_DOUBLE_EQ(stored[1].timestamp, 140);
}

TEST(SQLiteStore, ConcurrentWritersFromTwoThreadsAllLand) {
    TempDir dir;
    SQLiteStore store(dir.file("kelvo.sqlite"));
    auto writer = [&store](int base) {
        for (int i = 0; i < 200; ++i) store.appendEvent(eventAt(base + i, "w"));
    };
    std::thread a(writer, 0);
    std::thread b(writer, 1000);
    a.join();
    b.join();
    EXPECT_EQ(store.recentEvents(1000).size(), 400u);
}

TEST(SQLiteStore, SecondConnectionSeesWritesOfTheFirst) {
    TempDir dir;
    const auto path = dir.file("kelvo.sqlite");
    SQLiteStore loop(path);
    SQLiteStore other(path);
    EXPECT_TRUE(other.isPersistent());
    const auto event = eventAt(3, "shared");
    ASSERT_TRUE(loop.appendEvent(event));
    EXPECT_EQ(other.recentEvents(5), std::vector<RuntimeEvent>{event});
}

}  // namespace
}  // namespace kelvo
