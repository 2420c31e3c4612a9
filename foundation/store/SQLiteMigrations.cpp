// The schema: the migration scripts, running them in order, and telling our database apart from
// a file that only claims to be it.
#include "foundation/store/SQLiteStore.h"

#include "foundation/store/SQLiteSchemaShape.h"
#include "foundation/store/SQLiteStatement.h"
#include "foundation/store/SQLiteTransaction.h"

#include <sqlite3.h>

#include <string_view>

namespace kelvo {

namespace {

// Each entry brings the schema from its index to index + 1. Plain CREATE TABLE (no IF NOT EXISTS)
// on purpose: a version-0 file that already holds tables of these names is not ours.
constexpr std::string_view kMigrations[] = {
    R"sql(
CREATE TABLE samples (
    timestamp REAL NOT NULL, cpu_temp REAL, gpu_temp REAL, cpu_clock REAL, gpu_clock REAL,
    gpu_ref_clock REAL, power REAL, fan_rpm REAL, cpu_util REAL, gpu_util REAL,
    thermal_pressure TEXT);
CREATE INDEX samples_by_time ON samples(timestamp);
CREATE TABLE events (
    uuid TEXT PRIMARY KEY, timestamp REAL NOT NULL, message TEXT NOT NULL,
    is_failure INTEGER NOT NULL DEFAULT 0, is_build_identity INTEGER NOT NULL DEFAULT 0);
CREATE INDEX events_by_time ON events(timestamp);
CREATE TABLE runs (
    id INTEGER PRIMARY KEY AUTOINCREMENT, scenario TEXT NOT NULL, mode TEXT NOT NULL,
    model_id TEXT NOT NULL DEFAULT '', model_source TEXT NOT NULL DEFAULT '',
    notes TEXT NOT NULL DEFAULT '', started_at REAL NOT NULL, stopped_at REAL,
    status TEXT NOT NULL);
CREATE TABLE run_samples (
    run_id INTEGER NOT NULL, timestamp REAL NOT NULL, cpu_temp REAL, gpu_temp REAL,
    cpu_clock REAL, gpu_clock REAL, gpu_ref_clock REAL, power REAL, fan_rpm REAL, cpu_util REAL,
    gpu_util REAL, thermal_pressure TEXT);
CREATE INDEX run_samples_by_run ON run_samples(run_id, timestamp);
CREATE TABLE run_events (
    run_id INTEGER NOT NULL, uuid TEXT NOT NULL, timestamp REAL NOT NULL, message TEXT NOT NULL,
    is_failure INTEGER NOT NULL DEFAULT 0, is_build_identity INTEGER NOT NULL DEFAULT 0,
    PRIMARY KEY (run_id, uuid));
CREATE TABLE learned_models (
    id INTEGER PRIMARY KEY AUTOINCREMENT, source TEXT NOT NULL, created_at REAL NOT NULL,
    cpu_ref REAL, gpu_ref REAL, temp_ref REAL, active INTEGER NOT NULL DEFAULT 0);
CREATE TABLE adaptive_models (
    id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT NOT NULL, version INTEGER NOT NULL,
    created_at REAL NOT NULL, threshold REAL NOT NULL, lead_ms REAL NOT NULL,
    misses INTEGER NOT NULL, active INTEGER NOT NULL DEFAULT 0);
CREATE TABLE fan_curves (
    fan_identity TEXT PRIMARY KEY, points TEXT NOT NULL, learned_at REAL NOT NULL);
CREATE TABLE machine_capabilities (
    machine_identity TEXT PRIMARY KEY, capabilities TEXT NOT NULL, updated_at REAL NOT NULL);
)sql",
    // Version 2: a run's throttle signals carry their kind, severity and the figures behind them.
    R"sql(
ALTER TABLE run_events ADD COLUMN kind TEXT NOT NULL DEFAULT '';
ALTER TABLE run_events ADD COLUMN severity TEXT NOT NULL DEFAULT '';
ALTER TABLE run_events ADD COLUMN details TEXT NOT NULL DEFAULT '';
)sql",
    // Version 3: what probing each fan has shown about the dies it cools (FanCoupling.h's
    // encoding).
    R"sql(
CREATE TABLE fan_coupling (
    fan_identity TEXT PRIMARY KEY, evidence TEXT NOT NULL, updated_at REAL NOT NULL);
)sql",
};
static_assert(std::size(kMigrations) == SQLiteStore::kSchemaVersion);

// PRAGMA user_version; false if it cannot be read (the statement says why).
bool readVersion(SQLiteStatement& s, int& version) {
    if (s.next()) version = static_cast<int>(s.integer(0));
    return s.run();
}

// Runs a script of several statements; false on failure, with the reason and SQLite's code.
bool runScript(sqlite3* db, const std::string& script, std::string& error, int& code) {
    char* message = nullptr;
    code = sqlite3_exec(db, script.c_str(), nullptr, nullptr, &message);
    if (code != SQLITE_OK) error = message ? message : sqlite3_errstr(code);
    sqlite3_free(message);
    return code == SQLITE_OK;
}

}  // namespace

bool SQLiteStore::upgradeSchemaLocked(OpenFailure& why) {
    int version = 0;
    {
        SQLiteStatement s(db_, "PRAGMA user_version");
        if (!readVersion(s, version)) {
            why = {"cannot read the schema version: " + s.error(), true};
            return false;
        }
    }
    if (version > kSchemaVersion || version < 0) {
        why = {"schema version " + std::to_string(version) +
                   " is newer than this build understands (" + std::to_string(kSchemaVersion) + ")",
               true};
        return false;
    }
    if (version < kSchemaVersion) {
        // IMMEDIATE takes the write lock first, so a second connection opening the same file
        // waits and then finds the schema already current.
        SQLiteTransaction transaction(db_);
        if (!transaction.ok()) {
            why = OpenFailure::of(transaction.error(), transaction.code());
            return false;
        }
        {
            SQLiteStatement s(db_, "PRAGMA user_version");
            if (!readVersion(s, version)) {
                why = OpenFailure::of(s.error(), s.code());
                return false;
            }
        }
        for (int next = version; next < kSchemaVersion; ++next) {
            std::string script(kMigrations[next]);
            script += "PRAGMA user_version = " + std::to_string(next + 1) + ";";
            std::string error;
            int code = SQLITE_OK;
            if (!runScript(db_, script, error, code)) {
                why = OpenFailure::of(
                    "schema migration to version " + std::to_string(next + 1) + " failed: " + error,
                    code);
                return false;
            }
        }
        if (!transaction.commit()) {
            why = OpenFailure::of(transaction.error(), transaction.code());
            return false;
        }
        version = kSchemaVersion;
    }
    // A file can claim our version and still be someone else's: every write would then fail.
    static const SchemaShape ours = schemaShapeBuiltBy(kMigrations);
    if (const std::string shortfall = schemaShortfall(ours, schemaShapeOf(db_));
        !shortfall.empty()) {
        why = {"not a Kelvo database: " + shortfall, true};
        return false;
    }
    schemaVersion_ = version;
    return true;
}

}  // namespace kelvo
