// The store's profiling runs: the runs table and the samples and events recorded into each run
// (run_samples, run_events).
#include "foundation/store/SQLiteStore.h"

#include "foundation/store/SQLiteCodecs.h"
#include "foundation/store/SQLiteRows.h"
#include "foundation/store/SQLiteStatement.h"
#include "foundation/store/SQLiteTransaction.h"

#include <sqlite3.h>

namespace kelvo {

using store::kRunColumns;
using store::kSampleColumns;

std::optional<std::int64_t> SQLiteStore::startRun(const std::string& scenario, ControlMode mode,
                                                  const std::string& modelID,
                                                  const std::string& modelSource,
                                                  const std::string& notes, Timestamp startedAt) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_,
                      "INSERT INTO runs (scenario, mode, model_id, model_source, notes, "
                      "started_at, status) VALUES (?, ?, ?, ?, ?, ?, 'active')");
    s.bindText(1, scenario);
    s.bindText(2, rawValue(mode));
    s.bindText(3, modelID);
    s.bindText(4, modelSource);
    s.bindText(5, notes);
    s.bindReal(6, startedAt);
    if (!s.run()) {
        failLocked("start run: " + s.error());
        return std::nullopt;
    }
    return sqlite3_last_insert_rowid(db_);
}

bool SQLiteStore::stopRun(std::int64_t id, Timestamp stoppedAt) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_,
                      "UPDATE runs SET stopped_at = ?, status = 'completed' "
                      "WHERE id = ? AND stopped_at IS NULL");
    s.bindReal(1, stoppedAt);
    s.bindInt(2, id);
    if (!s.run()) return failLocked("stop run: " + s.error());
    if (sqlite3_changes(db_) == 0)
        return failLocked("stop run: no active run with id " + std::to_string(id));
    return true;
}

bool SQLiteStore::appendRunNotes(std::int64_t id, const std::string& notes) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_,
                      "UPDATE runs SET notes = CASE WHEN notes = '' THEN ?1 ELSE notes || "
                      "char(10) || ?1 END WHERE id = ?2 AND stopped_at IS NULL");
    s.bindText(1, notes);
    s.bindInt(2, id);
    if (!s.run()) return failLocked("append run notes: " + s.error());
    if (sqlite3_changes(db_) == 0)
        return failLocked("append run notes: no active run with id " + std::to_string(id));
    return true;
}

bool SQLiteStore::appendRunSample(std::int64_t runID, const TelemetrySample& sample) {
    std::lock_guard lock(mutex_);
    static const std::string kInsert = std::string("INSERT INTO run_samples (run_id, ") +
                                       kSampleColumns +
                                       ") SELECT ?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12 "
                                       "WHERE EXISTS (SELECT 1 FROM runs WHERE id = ?1)";
    SQLiteStatement s(db_, keptLocked(kInsert));
    s.bindInt(1, runID);
    store::bindSample(s, 2, sample);
    if (!s.run()) return failLocked("append run sample: " + s.error());
    if (sqlite3_changes(db_) == 0)
        return failLocked("append run sample: no run with id " + std::to_string(runID));
    return true;
}

bool SQLiteStore::appendRunEvent(std::int64_t runID, const RuntimeEvent& event) {
    std::lock_guard lock(mutex_);
    {
        SQLiteStatement exists(db_, "SELECT 1 FROM runs WHERE id = ?");
        exists.bindInt(1, runID);
        const bool found = exists.next();
        if (!exists.ok()) return failLocked("append run event: " + exists.error());
        if (!found) return failLocked("append run event: no run with id " + std::to_string(runID));
    }
    SQLiteStatement s(db_,
                      "INSERT OR IGNORE INTO run_events (run_id, uuid, timestamp, message, "
                      "is_failure, is_build_identity) VALUES (?, ?, ?, ?, ?, ?)");
    s.bindInt(1, runID);
    s.bindText(2, event.id.toString());
    s.bindReal(3, event.timestamp);
    s.bindText(4, event.message);
    s.bindInt(5, event.isFailure ? 1 : 0);
    s.bindInt(6, event.isBuildIdentity ? 1 : 0);
    if (!s.run()) return failLocked("append run event: " + s.error());
    return true;
}

bool SQLiteStore::appendRunEvent(std::int64_t runID, const ProfilingRunEvent& event) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_,
                      "INSERT OR IGNORE INTO run_events (run_id, uuid, timestamp, message, kind, "
                      "severity, details) SELECT ?1, ?2, ?3, ?4, ?5, ?6, ?7 "
                      "WHERE EXISTS (SELECT 1 FROM runs WHERE id = ?1)");
    s.bindInt(1, runID);
    s.bindText(2, event.id.toString());
    s.bindReal(3, event.timestamp);
    s.bindText(4, event.kind + " (" + event.severity + ")");
    s.bindText(5, event.kind);
    s.bindText(6, event.severity);
    s.bindText(7, store::encodeValues(event.values));
    if (!s.run()) return failLocked("append run event: " + s.error());
    if (sqlite3_changes(db_) == 0) {
        // Either the run is gone or the id was stored already; only the first is a failure.
        SQLiteStatement exists(db_, "SELECT 1 FROM runs WHERE id = ?");
        exists.bindInt(1, runID);
        const bool found = exists.next();
        if (!exists.ok()) return failLocked("append run event: " + exists.error());
        if (!found) return failLocked("append run event: no run with id " + std::to_string(runID));
    }
    return true;
}

std::optional<SQLiteStore::ProfilingRunRecord> SQLiteStore::activeRun(std::string* error) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_, std::string("SELECT ") + kRunColumns +
                               " FROM runs WHERE stopped_at IS NULL ORDER BY started_at DESC, "
                               "id DESC LIMIT 1");
    std::optional<ProfilingRunRecord> run;
    if (s.next()) run = store::readRun(s);
    if (!s.run()) {
        failLocked("active run: " + s.error(), error);
        return std::nullopt;
    }
    return run;
}

std::optional<SQLiteStore::ProfilingRunRecord> SQLiteStore::run(std::int64_t id,
                                                                std::string* error) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_, std::string("SELECT ") + kRunColumns + " FROM runs WHERE id = ?");
    s.bindInt(1, id);
    std::optional<ProfilingRunRecord> run;
    if (s.next()) run = store::readRun(s);
    if (!s.run()) {
        failLocked("run: " + s.error(), error);
        return std::nullopt;
    }
    return run;
}

std::optional<SQLiteStore::ProfilingRunRecord> SQLiteStore::latestCompletedRun(std::string* error) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_, std::string("SELECT ") + kRunColumns +
                               " FROM runs WHERE status = 'completed' ORDER BY stopped_at DESC, "
                               "id DESC LIMIT 1");
    std::optional<ProfilingRunRecord> run;
    if (s.next()) run = store::readRun(s);
    if (!s.run()) {
        failLocked("latest completed run: " + s.error(), error);
        return std::nullopt;
    }
    return run;
}

std::vector<std::int64_t> SQLiteStore::keptRunIDs(int limit, std::string* error) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_, "SELECT id FROM runs WHERE status != 'active' ORDER BY id LIMIT ?");
    s.bindInt(1, limit);
    std::vector<std::int64_t> ids;
    while (s.next()) ids.push_back(s.integer(0));
    if (!s.ok()) {
        failLocked("kept runs: " + s.error(), error);
        return {};
    }
    return ids;
}

std::vector<SQLiteStore::ProfilingRunRecord> SQLiteStore::closeAbandonedRuns(
    Timestamp now, std::string* error, std::optional<std::int64_t> keep) {
    std::lock_guard lock(mutex_);
    SQLiteTransaction transaction(db_);
    if (!transaction.ok()) {
        failLocked(transaction.error(), error);
        return {};
    }
    std::vector<ProfilingRunRecord> runs;
    {
        SQLiteStatement s(db_, std::string("SELECT ") + kRunColumns +
                                   " FROM runs WHERE stopped_at IS NULL AND id != ? ORDER BY "
                                   "started_at, id");
        s.bindInt(1, keep.value_or(-1));
        while (s.next()) runs.push_back(store::readRun(s));
        if (!s.ok()) {
            failLocked("close abandoned runs: " + s.error(), error);
            return {};
        }
    }
    {
        SQLiteStatement update(db_,
                               "UPDATE runs SET stopped_at = ?, status = 'abandoned' "
                               "WHERE stopped_at IS NULL AND id != ?");
        update.bindReal(1, now);
        update.bindInt(2, keep.value_or(-1));
        if (!update.run()) {
            failLocked("close abandoned runs: " + update.error(), error);
            return {};
        }
    }
    if (!transaction.commit()) {
        failLocked(transaction.error(), error);
        return {};
    }
    for (auto& run : runs) {
        run.stoppedAt = now;
        run.status = "abandoned";
    }
    return runs;
}

std::optional<Timestamp> SQLiteStore::lastRunSampleTimestamp(std::int64_t id, std::string* error) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_, "SELECT MAX(timestamp) FROM run_samples WHERE run_id = ?");
    s.bindInt(1, id);
    std::optional<Timestamp> latest;
    if (s.next()) latest = s.optReal(0);
    if (!s.run()) {
        failLocked("last run sample: " + s.error(), error);
        return std::nullopt;
    }
    return latest;
}

std::vector<TelemetrySample> SQLiteStore::runSamples(std::int64_t id, std::string* error) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_, std::string("SELECT ") + kSampleColumns +
                               " FROM run_samples WHERE run_id = ? ORDER BY timestamp, rowid");
    s.bindInt(1, id);
    std::vector<TelemetrySample> result;
    while (s.next()) result.push_back(store::readSample(s, 0));
    if (!s.ok()) {
        failLocked("run samples: " + s.error(), error);
        return {};
    }
    return result;
}

std::vector<RuntimeEvent> SQLiteStore::runEvents(std::int64_t id) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_,
                      "SELECT uuid, timestamp, message, is_failure, is_build_identity FROM "
                      "run_events WHERE run_id = ? ORDER BY timestamp, rowid");
    s.bindInt(1, id);
    std::vector<RuntimeEvent> result;
    while (s.next()) result.push_back(store::readEvent(s, 0));
    if (!s.ok()) {
        failLocked("run events: " + s.error());
        return {};
    }
    return result;
}

std::vector<ProfilingRunEvent> SQLiteStore::runEventRecords(std::int64_t id, std::string* error) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_,
                      "SELECT uuid, timestamp, kind, severity, details, message FROM run_events "
                      "WHERE run_id = ? ORDER BY timestamp, rowid");
    s.bindInt(1, id);
    std::vector<ProfilingRunEvent> result;
    while (s.next()) {
        ProfilingRunEvent event;
        event.id = Uuid::parse(s.text(0)).value_or(Uuid{});
        event.timestamp = s.real(1);
        event.kind = s.text(2);
        event.severity = s.text(3);
        event.values = store::decodeValues(s.text(4));
        // Events stored without a kind (plain runtime events) keep their message as the kind.
        if (event.kind.empty()) event.kind = s.text(5);
        result.push_back(std::move(event));
    }
    if (!s.ok()) {
        failLocked("run events: " + s.error(), error);
        return {};
    }
    return result;
}

bool SQLiteStore::clearRun(std::int64_t id) {
    auto removed = clearRunRows(id);
    if (!removed) return false;
    if (*removed == 0) {
        std::lock_guard lock(mutex_);
        return failLocked("clear run: no run with id " + std::to_string(id));
    }
    return true;
}

std::optional<int> SQLiteStore::clearRunRows(std::int64_t id) {
    std::lock_guard lock(mutex_);
    SQLiteTransaction transaction(db_);
    if (!transaction.ok()) {
        failLocked(transaction.error());
        return std::nullopt;
    }
    int removed = 0;
    for (const char* sql :
         {"DELETE FROM run_samples WHERE run_id = ?", "DELETE FROM run_events WHERE run_id = ?",
          "DELETE FROM runs WHERE id = ?"}) {
        SQLiteStatement s(db_, sql);
        s.bindInt(1, id);
        if (!s.run()) {
            failLocked("clear run: " + s.error());
            return std::nullopt;
        }
        removed += sqlite3_changes(db_);
    }
    if (!transaction.commit()) {
        failLocked(transaction.error());
        return std::nullopt;
    }
    return removed;
}

std::optional<int> SQLiteStore::countRunRows(std::int64_t id) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_,
                      "SELECT (SELECT COUNT(*) FROM run_samples WHERE run_id = ?1) + "
                      "(SELECT COUNT(*) FROM run_events WHERE run_id = ?1) + "
                      "(SELECT COUNT(*) FROM runs WHERE id = ?1)");
    s.bindInt(1, id);
    std::optional<int> count;
    if (s.next()) count = static_cast<int>(s.integer(0));
    if (!s.run()) {
        failLocked("count run rows: " + s.error());
        return std::nullopt;
    }
    return count;
}

}  // namespace kelvo
