// Kelvo's one database: downsampled telemetry, events, profiling runs, learned models and fan
// curves. The loop thread and the main thread share it, and a second connection (the profiling
// service) may open the same file; WAL keeps their reads and writes from blocking each other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/core/FanCoupling.h"
#include "foundation/core/ProfilingTypes.h"
#include "foundation/core/Types.h"

struct sqlite3;
struct sqlite3_stmt;

namespace kelvo {

class SQLiteStatement;

class SQLiteStore {
public:
    using FanCurve = std::vector<std::pair<double, double>>;  // (pwm, rpm)

    struct ProfilingRunRecord {
        std::int64_t id = 0;
        std::string scenario;
        std::string mode;  // ControlMode raw value
        std::string modelID;
        std::string modelSource;
        std::string notes;
        Timestamp startedAt = 0;
        std::optional<Timestamp> stoppedAt;
        std::string status;  // "active", "completed" or "abandoned"
        bool operator==(const ProfilingRunRecord&) const = default;
    };

    static constexpr int kSchemaVersion = 3;
    // The trend keeps the fine-grained history in memory; the database needs one row per 10 s.
    static constexpr double kSampleSpacingSeconds = 10;

    // Never throws. An unreadable file is moved aside and recreated; an unusable location leaves
    // Kelvo on an in-memory database. Either way a failure event waits in takeStartupEvents().
    explicit SQLiteStore(std::string path, std::function<Timestamp()> now = wallClockNow);
    ~SQLiteStore();
    SQLiteStore(const SQLiteStore&) = delete;
    SQLiteStore& operator=(const SQLiteStore&) = delete;

    std::vector<RuntimeEvent> takeStartupEvents();
    bool isPersistent() const;
    const std::string& path() const { return path_; }
    int schemaVersion() const;
    std::string lastError() const;  // the most recent failure, kept until the next one

    // Events (SQLiteStoreEvents.cpp). A repeated id is stored once.
    bool appendEvent(const RuntimeEvent& event);
    std::vector<RuntimeEvent> recentEvents(std::size_t limit);  // oldest first

    // Telemetry history (SQLiteStoreSamples.cpp). Fans are kept as their mean speed: a stored
    // sample reads back with one entry in fanCurrentRPM.
    bool appendSample(const TelemetrySample& sample);
    std::vector<TelemetrySample> samples(Timestamp from, Timestamp to);
    int pruneSamplesOlderThan(Timestamp cutoff);  // rows removed, or -1 on failure

    // Profiling runs (SQLiteStoreRuns.cpp).
    std::optional<std::int64_t> startRun(const std::string& scenario, ControlMode mode,
                                         const std::string& modelID, const std::string& modelSource,
                                         const std::string& notes, Timestamp startedAt);
    bool stopRun(std::int64_t id, Timestamp stoppedAt);  // false if no active run has that id
    // Adds a paragraph to an open run's notes (a resumed capture keeps what it was started with).
    bool appendRunNotes(std::int64_t id, const std::string& notes);
    bool appendRunSample(std::int64_t runID, const TelemetrySample& sample);
    bool appendRunEvent(std::int64_t runID, const RuntimeEvent& event);
    bool appendRunEvent(std::int64_t runID, const ProfilingRunEvent& event);
    // The optional `error` tells a failed read apart from "nothing there".
    std::optional<ProfilingRunRecord> activeRun(std::string* error = nullptr);
    std::optional<ProfilingRunRecord> run(std::int64_t id, std::string* error = nullptr);
    std::optional<ProfilingRunRecord> latestCompletedRun(std::string* error = nullptr);
    // Runs that are over and still here: their export has not succeeded yet (rows go once it
    // has). Oldest first, at most `limit`.
    std::vector<std::int64_t> keptRunIDs(int limit, std::string* error = nullptr);
    // Runs left active by an earlier process: stopped at `now` and marked "abandoned"; all of
    // them but `keep`.
    std::vector<ProfilingRunRecord> closeAbandonedRuns(Timestamp now, std::string* error = nullptr,
                                                       std::optional<std::int64_t> keep = {});
    std::optional<Timestamp> lastRunSampleTimestamp(std::int64_t id, std::string* error = nullptr);
    std::vector<TelemetrySample> runSamples(std::int64_t id, std::string* error = nullptr);
    std::vector<RuntimeEvent> runEvents(std::int64_t id);
    std::vector<ProfilingRunEvent> runEventRecords(std::int64_t id, std::string* error = nullptr);
    bool clearRun(std::int64_t id);  // the run and its samples and events
    // The same, in one transaction; how many rows went (0 for an unknown run), none on failure.
    std::optional<int> clearRunRows(std::int64_t id);
    std::optional<int> countRunRows(std::int64_t id);  // samples + events + the run itself

    // Models (SQLiteStoreModels.cpp). Saving stores a new row (the model's own id is ignored) and
    // returns its id. The optional `error` tells a failed read apart from "no active model".
    std::optional<std::int64_t> saveLearnedModel(const LearnedModel& model, bool makeActive);
    std::optional<LearnedModel> activeLearnedModel(std::string* error = nullptr);
    std::optional<std::int64_t> saveAdaptiveLeadModel(const AdaptiveLeadModel& model,
                                                      bool makeActive);
    std::optional<AdaptiveLeadModel> activeAdaptiveLeadModel(std::string* error = nullptr);

    // PWM-to-RPM curves learned once per fan, by stable fan identity (SQLiteStoreMachine.cpp).
    bool saveFanCurve(const std::string& identity, const FanCurve& curve);
    std::optional<FanCurve> fanCurve(const std::string& identity);
    // What probing each fan has shown about the dies it cools, by fan identity (the same file).
    // Reading skips a row that is not finite, or negative where it cannot be, and names it in
    // `skipped`: that fan's probing starts over, the others' evidence stands.
    bool saveFanCoupling(const std::string& identity, const FanCouplingEvidence& evidence);
    std::optional<std::map<std::string, FanCouplingEvidence>> fanCouplings(
        std::string* skipped = nullptr);

    // What a machine has shown it can report, as the capability tracker encodes it (the same file).
    bool saveMachineCapabilities(const std::string& machineIdentity, const std::string& encoded);
    std::optional<std::string> machineCapabilities(const std::string& machineIdentity);

private:
    // Every call above reports the same way: its return value says whether it worked (false,
    // none, empty, -1) and failLocked() has put the reason in lastError() (and in `*error`, where
    // the call takes one). Internals say whether they worked the same way, and keep the reason
    // beside it (SQLiteStatement, SQLiteTransaction, OpenFailure).

    // Why a file could not be opened, and whether its bytes are at fault (moving the file aside
    // would help) rather than its location (permissions, I/O, locks, a full disk).
    struct OpenFailure {
        std::string reason;
        bool unreadable = false;
        // Unreadable or not by the SQLite result code that stopped the opening.
        static OpenFailure of(std::string reason, int code);
    };
    // SQLiteStore.cpp: opening, falling back, moving an unreadable file aside.
    bool openAt(const std::string& target, OpenFailure& why);
    void open();
    void openInMemory(const std::string& reason);
    void closeLocked();
    sqlite3_stmt* keptLocked(const std::string& sql);
    void queueFailure(std::string message);
    bool failLocked(const std::string& what, std::string* error = nullptr);
    // SQLiteMigrations.cpp: brings the open file's schema to kSchemaVersion and checks that it is
    // ours.
    bool upgradeSchemaLocked(OpenFailure& why);
    // SQLiteStoreSamples.cpp
    std::optional<Timestamp> lastStoredSampleTimestampLocked();
    // SQLiteStoreModels.cpp: one new row of a models table in one transaction, the active one when
    // `makeActive` (the others are deactivated first). `bind` fills the INSERT's values.
    std::optional<std::int64_t> insertModelLocked(const char* table, const std::string& insertSql,
                                                  const std::function<void(SQLiteStatement&)>& bind,
                                                  bool makeActive, const std::string& what);

    const std::string path_;
    const std::function<Timestamp()> now_;
    mutable std::mutex mutex_;
    sqlite3* db_ = nullptr;
    bool persistent_ = false;
    int schemaVersion_ = 0;
    std::string lastError_;
    std::vector<RuntimeEvent> startupEvents_;
    std::optional<Timestamp> lastSampleTimestamp_;
    // Statements run every tick stay prepared while the database is open.
    std::vector<std::pair<std::string, sqlite3_stmt*>> kept_;
};

using ProfilingRunRecord = SQLiteStore::ProfilingRunRecord;

}  // namespace kelvo
