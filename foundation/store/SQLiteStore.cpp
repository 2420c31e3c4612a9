#include "foundation/store/SQLiteStore.h"

#include "foundation/store/SQLiteSchemaShape.h"

#include <sqlite3.h>

#include <charconv>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <string_view>
#include <system_error>

namespace kelvo {

namespace {

namespace fs = std::filesystem;

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
};
static_assert(std::size(kMigrations) == SQLiteStore::kSchemaVersion);

constexpr const char* kSampleColumns =
    "timestamp, cpu_temp, gpu_temp, cpu_clock, gpu_clock, gpu_ref_clock, power, fan_rpm, "
    "cpu_util, gpu_util, thermal_pressure";
constexpr const char* kRunColumns =
    "id, scenario, mode, model_id, model_source, notes, started_at, stopped_at, status";

// Codes that say the bytes on disk are not a database we can use; anything else (permissions,
// I/O, locks, a full disk) says the location is the problem and moving the file would not help.
bool meansUnreadableFile(int code) {
    code &= 0xff;
    return code == SQLITE_NOTADB || code == SQLITE_CORRUPT || code == SQLITE_FORMAT ||
           code == SQLITE_ERROR;
}

// A prepared statement that remembers the first error it met, so callers check once at the end.
class Statement {
public:
    Statement(sqlite3* db, std::string_view sql) : db_(db) {
        if (!db_) {
            error_ = "no database is open";
            code_ = SQLITE_MISUSE;
            return;
        }
        int rc = sqlite3_prepare_v2(db_, sql.data(), static_cast<int>(sql.size()), &stmt_, nullptr);
        if (rc != SQLITE_OK) capture(rc);
    }
    // Borrows a statement the store keeps prepared; it is reset, not finalized, when done.
    Statement(sqlite3* db, sqlite3_stmt* kept) : db_(db), stmt_(kept), borrowed_(true) {
        if (!db_) {
            error_ = "no database is open";
            code_ = SQLITE_MISUSE;
        } else if (!stmt_) {
            capture(sqlite3_errcode(db_) != SQLITE_OK ? sqlite3_errcode(db_) : SQLITE_ERROR);
        }
    }
    ~Statement() {
        if (!borrowed_) {
            sqlite3_finalize(stmt_);
        } else if (stmt_) {
            sqlite3_reset(stmt_);
            sqlite3_clear_bindings(stmt_);
        }
    }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    void bindReal(int index, double value) {
        if (ok()) check(sqlite3_bind_double(stmt_, index, value));
    }
    void bindReal(int index, const std::optional<double>& value) {
        if (!ok()) return;
        if (value && std::isfinite(*value))
            check(sqlite3_bind_double(stmt_, index, *value));
        else
            check(sqlite3_bind_null(stmt_, index));
    }
    void bindInt(int index, std::int64_t value) {
        if (ok()) check(sqlite3_bind_int64(stmt_, index, value));
    }
    void bindText(int index, std::string_view value) {
        if (ok())
            check(sqlite3_bind_text64(stmt_, index, value.data(), value.size(), SQLITE_TRANSIENT,
                                      SQLITE_UTF8));
    }
    void bindNull(int index) {
        if (ok()) check(sqlite3_bind_null(stmt_, index));
    }

    // True while rows come; false when done or failed (see ok()).
    bool next() {
        // Stepping past DONE would silently restart the statement.
        if (!ok() || done_) return false;
        int rc = sqlite3_step(stmt_);
        if (rc == SQLITE_ROW) return true;
        done_ = true;
        if (rc != SQLITE_DONE) capture(rc);
        return false;
    }
    bool run() {
        while (next()) {
        }
        return ok();
    }

    bool ok() const { return error_.empty(); }
    const std::string& error() const { return error_; }
    int code() const { return code_; }

    bool isNull(int column) const { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }
    double real(int column) const { return sqlite3_column_double(stmt_, column); }
    std::optional<double> optReal(int column) const {
        if (isNull(column)) return std::nullopt;
        return real(column);
    }
    std::int64_t integer(int column) const { return sqlite3_column_int64(stmt_, column); }
    std::string text(int column) const {
        const auto* bytes = sqlite3_column_text(stmt_, column);
        if (!bytes) return {};
        return std::string(reinterpret_cast<const char*>(bytes),
                           static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)));
    }

private:
    void check(int rc) {
        if (rc != SQLITE_OK) capture(rc);
    }
    void capture(int rc) {
        code_ = rc;
        const int dbCode = sqlite3_errcode(db_);
        error_ = (dbCode != SQLITE_OK) ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
    }

    sqlite3* db_ = nullptr;
    sqlite3_stmt* stmt_ = nullptr;
    bool borrowed_ = false;
    std::string error_;
    int code_ = SQLITE_OK;
    bool done_ = false;
};

std::optional<ThermalPressureLevel> pressureFromRaw(std::string_view raw) {
    for (auto level : {ThermalPressureLevel::nominal, ThermalPressureLevel::fair,
                       ThermalPressureLevel::serious, ThermalPressureLevel::critical})
        if (rawValue(level) == raw) return level;
    return std::nullopt;
}

// Binds the sample columns in kSampleColumns order, starting at `first`.
void bindSample(Statement& s, int first, const TelemetrySample& sample) {
    s.bindReal(first, sample.timestamp);
    s.bindReal(first + 1, sample.cpuTemperatureC);
    s.bindReal(first + 2, sample.gpuTemperatureC);
    s.bindReal(first + 3, sample.cpuClockMHz);
    s.bindReal(first + 4, sample.gpuClockMHz);
    s.bindReal(first + 5, sample.gpuReferenceMaxClockMHz);
    s.bindReal(first + 6, sample.totalPowerW);
    s.bindReal(first + 7, sample.meanFanCurrentRPM());
    s.bindReal(first + 8, sample.cpuUtilizationPct);
    s.bindReal(first + 9, sample.gpuUtilizationPct);
    if (sample.thermalPressure)
        s.bindText(first + 10, rawValue(*sample.thermalPressure));
    else
        s.bindNull(first + 10);
}

TelemetrySample readSample(const Statement& s, int first) {
    TelemetrySample sample;
    sample.timestamp = s.real(first);
    sample.cpuTemperatureC = s.optReal(first + 1);
    sample.gpuTemperatureC = s.optReal(first + 2);
    sample.cpuClockMHz = s.optReal(first + 3);
    sample.gpuClockMHz = s.optReal(first + 4);
    sample.gpuReferenceMaxClockMHz = s.optReal(first + 5);
    sample.totalPowerW = s.optReal(first + 6);
    if (auto fan = s.optReal(first + 7)) sample.fanCurrentRPM = {*fan};
    sample.cpuUtilizationPct = s.optReal(first + 8);
    sample.gpuUtilizationPct = s.optReal(first + 9);
    if (!s.isNull(first + 10)) sample.thermalPressure = pressureFromRaw(s.text(first + 10));
    return sample;
}

RuntimeEvent readEvent(const Statement& s, int first) {
    RuntimeEvent event;
    event.id = Uuid::parse(s.text(first)).value_or(Uuid{});
    event.timestamp = s.real(first + 1);
    event.message = s.text(first + 2);
    event.isFailure = s.integer(first + 3) != 0;
    event.isBuildIdentity = s.integer(first + 4) != 0;
    return event;
}

SQLiteStore::ProfilingRunRecord readRun(const Statement& s) {
    SQLiteStore::ProfilingRunRecord run;
    run.id = s.integer(0);
    run.scenario = s.text(1);
    run.mode = s.text(2);
    run.modelID = s.text(3);
    run.modelSource = s.text(4);
    run.notes = s.text(5);
    run.startedAt = s.real(6);
    run.stoppedAt = s.optReal(7);
    run.status = s.text(8);
    return run;
}

std::string formatNumber(double value) {
    char buffer[64];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

std::optional<double> parseNumber(std::string_view text) {
    double value = 0;
    auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size()) return std::nullopt;
    if (!std::isfinite(value)) return std::nullopt;
    return value;
}

std::string encodeCurve(const SQLiteStore::FanCurve& curve) {
    std::string out;
    for (const auto& [pwm, rpm] : curve) {
        if (!out.empty()) out += ',';
        out += formatNumber(pwm);
        out += ':';
        out += formatNumber(rpm);
    }
    return out;
}

std::optional<SQLiteStore::FanCurve> decodeCurve(std::string_view text) {
    SQLiteStore::FanCurve curve;
    while (!text.empty()) {
        const auto comma = text.find(',');
        const std::string_view point = text.substr(0, comma);
        const auto colon = point.find(':');
        if (colon == std::string_view::npos) return std::nullopt;
        auto pwm = parseNumber(point.substr(0, colon));
        auto rpm = parseNumber(point.substr(colon + 1));
        if (!pwm || !rpm) return std::nullopt;
        curve.emplace_back(*pwm, *rpm);
        if (comma == std::string_view::npos) break;
        text.remove_prefix(comma + 1);
        if (text.empty()) return std::nullopt;  // trailing comma
    }
    return curve;
}

// "name=value;name=value": names are ours (no '=' or ';'), values round-trip exactly.
std::string encodeValues(const std::vector<std::pair<std::string, double>>& values) {
    std::string out;
    for (const auto& [name, value] : values) {
        if (!std::isfinite(value)) continue;
        if (!out.empty()) out += ';';
        out += name;
        out += '=';
        out += formatNumber(value);
    }
    return out;
}

std::vector<std::pair<std::string, double>> decodeValues(std::string_view text) {
    std::vector<std::pair<std::string, double>> values;
    while (!text.empty()) {
        const auto semicolon = text.find(';');
        const std::string_view item = text.substr(0, semicolon);
        const auto equals = item.find('=');
        if (equals != std::string_view::npos)
            if (auto value = parseNumber(item.substr(equals + 1)))
                values.emplace_back(std::string(item.substr(0, equals)), *value);
        if (semicolon == std::string_view::npos) break;
        text.remove_prefix(semicolon + 1);
    }
    return values;
}

void setError(std::string* out, const std::string& error) {
    if (out) *out = error;
}

std::string timestampSuffix(Timestamp now) {
    std::time_t seconds = static_cast<std::time_t>(std::floor(now));
    std::tm local{};
    if (!localtime_r(&seconds, &local)) return "unknown-time";
    char buffer[32];
    if (std::strftime(buffer, sizeof buffer, "%Y%m%d-%H%M%S", &local) == 0) return "unknown-time";
    return buffer;
}

}  // namespace

SQLiteStore::SQLiteStore(std::string path, std::function<Timestamp()> now)
    : path_(std::move(path)),
      now_(now ? std::move(now) : std::function<Timestamp()>(wallClockNow)) {
    try {
        open();
    } catch (const std::exception& error) {
        closeLocked();
        try {
            openInMemory(error.what());
        } catch (...) {
            closeLocked();
        }
    } catch (...) {
        closeLocked();
    }
}

SQLiteStore::~SQLiteStore() {
    std::lock_guard lock(mutex_);
    closeLocked();
}

sqlite3_stmt* SQLiteStore::keptLocked(const std::string& sql) {
    if (!db_) return nullptr;
    for (const auto& [text, stmt] : kept_)
        if (text == sql) return stmt;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v3(db_, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                           &stmt, nullptr) != SQLITE_OK) {
        sqlite3_finalize(stmt);
        return nullptr;
    }
    kept_.emplace_back(sql, stmt);
    return stmt;
}

void SQLiteStore::closeLocked() {
    for (const auto& kept : kept_) sqlite3_finalize(kept.second);
    kept_.clear();
    if (db_) sqlite3_close_v2(db_);
    db_ = nullptr;
    persistent_ = false;
}

void SQLiteStore::queueFailure(std::string message) {
    RuntimeEvent event = RuntimeEvent::make(std::move(message), true);
    event.timestamp = now_();
    startupEvents_.push_back(std::move(event));
}

SQLiteStore::OpenResult SQLiteStore::openAt(const std::string& target) {
    closeLocked();
    sqlite3* db = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;
    int rc = sqlite3_open_v2(target.c_str(), &db, flags, nullptr);
    if (rc != SQLITE_OK) {
        std::string reason = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
        sqlite3_close_v2(db);
        return {false, false, reason};
    }
    db_ = db;
    sqlite3_busy_timeout(db_, 2000);
    if (sqlite3_db_readonly(db_, "main") == 1) {
        closeLocked();
        return {false, false, "the file is read-only"};
    }

    auto fail = [this](const Statement& s, std::string context) {
        OpenResult result{false, meansUnreadableFile(s.code()), context + s.error()};
        closeLocked();
        return result;
    };

    {
        Statement wal(db_, "PRAGMA journal_mode=WAL");
        wal.run();
        if (!wal.ok()) return fail(wal, "");
    }
    {
        // With the log, a commit no longer waits for the disk every second: a crash of Kelvo
        // loses nothing, a power cut at most the last commits, and the file stays consistent.
        Statement sync(db_, "PRAGMA synchronous=NORMAL");
        sync.run();
        if (!sync.ok()) return fail(sync, "");
    }
    {
        Statement check(db_, "PRAGMA quick_check");
        std::string verdict;
        if (check.next()) verdict = check.text(0);
        check.run();
        if (!check.ok()) return fail(check, "");
        if (verdict != "ok") {
            closeLocked();
            return {false, true, "integrity check failed: " + verdict};
        }
    }
    auto readVersion = [this](int& version) {
        Statement s(db_, "PRAGMA user_version");
        if (s.next()) version = static_cast<int>(s.integer(0));
        s.run();
        return s.ok();
    };
    int version = 0;
    if (!readVersion(version)) {
        OpenResult result{false, true,
                          "cannot read the schema version: " + std::string(sqlite3_errmsg(db_))};
        closeLocked();
        return result;
    }
    if (version > kSchemaVersion || version < 0) {
        closeLocked();
        return {false, true,
                "schema version " + std::to_string(version) +
                    " is newer than this build understands (" + std::to_string(kSchemaVersion) +
                    ")"};
    }
    if (version < kSchemaVersion) {
        // IMMEDIATE takes the write lock first, so a second connection opening the same file
        // waits and then finds the schema already current.
        char* message = nullptr;
        rc = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, &message);
        std::string failure;
        if (rc != SQLITE_OK) failure = message ? message : sqlite3_errstr(rc);
        sqlite3_free(message);
        if (rc == SQLITE_OK && !readVersion(version)) {
            rc = sqlite3_errcode(db_);
            failure = sqlite3_errmsg(db_);
        }
        for (int next = version; rc == SQLITE_OK && next < kSchemaVersion; ++next) {
            std::string script(kMigrations[next]);
            script += "PRAGMA user_version = " + std::to_string(next + 1) + ";";
            rc = sqlite3_exec(db_, script.c_str(), nullptr, nullptr, &message);
            if (rc != SQLITE_OK)
                failure = "schema migration to version " + std::to_string(next + 1) +
                          " failed: " + (message ? message : sqlite3_errstr(rc));
            sqlite3_free(message);
            message = nullptr;
        }
        if (rc == SQLITE_OK) {
            rc = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
            if (rc != SQLITE_OK) failure = sqlite3_errmsg(db_);
        }
        if (rc != SQLITE_OK) {
            sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
            OpenResult result{false, meansUnreadableFile(rc), failure};
            closeLocked();
            return result;
        }
        version = kSchemaVersion;
    }
    // A file can claim our version and still be someone else's: every write would then fail.
    static const SchemaShape ours = schemaShapeBuiltBy(kMigrations);
    if (const std::string shortfall = schemaShortfall(ours, schemaShapeOf(db_));
        !shortfall.empty()) {
        closeLocked();
        return {false, true, "not a Kelvo database: " + shortfall};
    }
    schemaVersion_ = version;
    lastSampleTimestamp_ = lastStoredSampleTimestampLocked();
    return {true, false, {}};
}

void SQLiteStore::open() {
    std::lock_guard lock(mutex_);
    if (path_ == ":memory:") {
        openInMemory({});
        return;
    }
    if (path_.empty()) {
        openInMemory("no path was given");
        return;
    }

    const fs::path file(path_);
    if (file.has_parent_path()) {
        std::error_code ec;
        fs::create_directories(file.parent_path(), ec);
        if (ec) {
            openInMemory("cannot create folder " + file.parent_path().string() + ": " +
                         ec.message());
            return;
        }
    }

    OpenResult first = openAt(path_);
    if (first.ok) {
        persistent_ = true;
        return;
    }
    if (!first.unreadable) {
        openInMemory(first.reason);
        return;
    }

    // Keep the unreadable file for inspection rather than deleting someone's history.
    const std::string base = path_ + ".corrupt-" + timestampSuffix(now_());
    std::string aside = base;
    std::error_code ec;
    for (int n = 2; fs::exists(aside, ec) && n < 1000; ++n) aside = base + "-" + std::to_string(n);
    fs::rename(path_, aside, ec);
    if (ec) {
        openInMemory(first.reason + "; moving it aside failed: " + ec.message());
        return;
    }
    for (const char* suffix : {"-wal", "-shm"}) {
        const std::string companion = path_ + suffix;
        if (!fs::exists(companion, ec)) continue;
        fs::rename(companion, aside + suffix, ec);
        // A stale log left next to a fresh file would be replayed into it.
        if (ec) fs::remove(companion, ec);
    }

    OpenResult second = openAt(path_);
    if (!second.ok) {
        openInMemory(first.reason + "; moved aside to " + aside +
                     " but recreating it failed: " + second.reason);
        return;
    }
    persistent_ = true;
    queueFailure("Database at " + path_ + " was unreadable (" + first.reason +
                 "); moved aside to " + aside + " and recreated");
}

void SQLiteStore::openInMemory(const std::string& reason) {
    OpenResult result = openAt(":memory:");
    persistent_ = false;
    if (!result.ok) lastError_ = "in-memory database failed: " + result.reason;
    if (!reason.empty())
        queueFailure("Database at " + path_ + " could not be opened (" + reason +
                     "); using a temporary in-memory store");
}

std::vector<RuntimeEvent> SQLiteStore::takeStartupEvents() {
    std::lock_guard lock(mutex_);
    return std::exchange(startupEvents_, {});
}

bool SQLiteStore::isPersistent() const {
    std::lock_guard lock(mutex_);
    return persistent_;
}

int SQLiteStore::schemaVersion() const {
    std::lock_guard lock(mutex_);
    return db_ ? schemaVersion_ : 0;
}

std::string SQLiteStore::lastError() const {
    std::lock_guard lock(mutex_);
    return lastError_;
}

bool SQLiteStore::failLocked(const std::string& what) {
    lastError_ = what;
    return false;
}

bool SQLiteStore::execLocked(const char* sql) {
    if (!db_) return failLocked("no database is open");
    char* message = nullptr;
    int rc = sqlite3_exec(db_, sql, nullptr, nullptr, &message);
    if (rc != SQLITE_OK) {
        lastError_ = message ? message : sqlite3_errstr(rc);
        sqlite3_free(message);
        return false;
    }
    return true;
}

std::optional<Timestamp> SQLiteStore::lastStoredSampleTimestampLocked() {
    Statement s(db_, "SELECT MAX(timestamp) FROM samples");
    std::optional<Timestamp> latest;
    if (s.next()) latest = s.optReal(0);
    s.run();
    return s.ok() ? latest : std::nullopt;
}

// ----- Events --------------------------------------------------------------------------------

bool SQLiteStore::appendEvent(const RuntimeEvent& event) {
    std::lock_guard lock(mutex_);
    Statement s(db_,
                "INSERT OR IGNORE INTO events (uuid, timestamp, message, is_failure, "
                "is_build_identity) VALUES (?, ?, ?, ?, ?)");
    s.bindText(1, event.id.toString());
    s.bindReal(2, event.timestamp);
    s.bindText(3, event.message);
    s.bindInt(4, event.isFailure ? 1 : 0);
    s.bindInt(5, event.isBuildIdentity ? 1 : 0);
    if (!s.run()) return failLocked("append event: " + s.error());
    return true;
}

std::vector<RuntimeEvent> SQLiteStore::recentEvents(std::size_t limit) {
    std::lock_guard lock(mutex_);
    Statement s(db_,
                "SELECT uuid, timestamp, message, is_failure, is_build_identity FROM events "
                "ORDER BY timestamp DESC, rowid DESC LIMIT ?");
    s.bindInt(1, static_cast<std::int64_t>(std::min<std::size_t>(limit, INT64_MAX)));
    std::vector<RuntimeEvent> events;
    while (s.next()) events.push_back(readEvent(s, 0));
    if (!s.ok()) {
        failLocked("recent events: " + s.error());
        return {};
    }
    return {events.rbegin(), events.rend()};
}

// ----- Samples -------------------------------------------------------------------------------

bool SQLiteStore::appendSample(const TelemetrySample& sample) {
    std::lock_guard lock(mutex_);
    if (lastSampleTimestamp_ &&
        std::abs(sample.timestamp - *lastSampleTimestamp_) < kSampleSpacingSeconds)
        return true;
    static const std::string kInsert = std::string("INSERT INTO samples (") + kSampleColumns +
                                       ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
    Statement s(db_, keptLocked(kInsert));
    bindSample(s, 1, sample);
    if (!s.run()) return failLocked("append sample: " + s.error());
    lastSampleTimestamp_ = sample.timestamp;
    return true;
}

std::vector<TelemetrySample> SQLiteStore::samples(Timestamp from, Timestamp to) {
    std::lock_guard lock(mutex_);
    Statement s(db_,
                std::string("SELECT ") + kSampleColumns +
                    " FROM samples WHERE timestamp >= ? AND timestamp <= ? ORDER BY timestamp");
    s.bindReal(1, from);
    s.bindReal(2, to);
    std::vector<TelemetrySample> result;
    while (s.next()) result.push_back(readSample(s, 0));
    if (!s.ok()) {
        failLocked("samples: " + s.error());
        return {};
    }
    return result;
}

int SQLiteStore::pruneSamplesOlderThan(Timestamp cutoff) {
    std::lock_guard lock(mutex_);
    Statement s(db_, "DELETE FROM samples WHERE timestamp < ?");
    s.bindReal(1, cutoff);
    if (!s.run()) {
        failLocked("prune samples: " + s.error());
        return -1;
    }
    return sqlite3_changes(db_);
}

// ----- Runs ----------------------------------------------------------------------------------

std::optional<std::int64_t> SQLiteStore::startRun(const std::string& scenario, ControlMode mode,
                                                  const std::string& modelID,
                                                  const std::string& modelSource,
                                                  const std::string& notes, Timestamp startedAt) {
    std::lock_guard lock(mutex_);
    Statement s(db_,
                "INSERT INTO runs (scenario, mode, model_id, model_source, notes, started_at, "
                "status) VALUES (?, ?, ?, ?, ?, ?, 'active')");
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
    Statement s(db_,
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
    Statement s(db_,
                "UPDATE runs SET notes = CASE WHEN notes = '' THEN ?1 ELSE notes || char(10) || ?1 "
                "END WHERE id = ?2 AND stopped_at IS NULL");
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
    Statement s(db_, keptLocked(kInsert));
    s.bindInt(1, runID);
    bindSample(s, 2, sample);
    if (!s.run()) return failLocked("append run sample: " + s.error());
    if (sqlite3_changes(db_) == 0)
        return failLocked("append run sample: no run with id " + std::to_string(runID));
    return true;
}

bool SQLiteStore::appendRunEvent(std::int64_t runID, const RuntimeEvent& event) {
    std::lock_guard lock(mutex_);
    {
        Statement exists(db_, "SELECT 1 FROM runs WHERE id = ?");
        exists.bindInt(1, runID);
        const bool found = exists.next();
        if (!exists.ok()) return failLocked("append run event: " + exists.error());
        if (!found) return failLocked("append run event: no run with id " + std::to_string(runID));
    }
    Statement s(db_,
                "INSERT OR IGNORE INTO run_events (run_id, uuid, timestamp, message, is_failure, "
                "is_build_identity) VALUES (?, ?, ?, ?, ?, ?)");
    s.bindInt(1, runID);
    s.bindText(2, event.id.toString());
    s.bindReal(3, event.timestamp);
    s.bindText(4, event.message);
    s.bindInt(5, event.isFailure ? 1 : 0);
    s.bindInt(6, event.isBuildIdentity ? 1 : 0);
    if (!s.run()) return failLocked("append run event: " + s.error());
    return true;
}

std::optional<SQLiteStore::ProfilingRunRecord> SQLiteStore::activeRun(std::string* error) {
    std::lock_guard lock(mutex_);
    Statement s(db_, std::string("SELECT ") + kRunColumns +
                         " FROM runs WHERE stopped_at IS NULL ORDER BY started_at DESC, id DESC "
                         "LIMIT 1");
    std::optional<ProfilingRunRecord> run;
    if (s.next()) run = readRun(s);
    s.run();
    if (!s.ok()) {
        failLocked("active run: " + s.error());
        setError(error, lastError_);
        return std::nullopt;
    }
    return run;
}

std::optional<SQLiteStore::ProfilingRunRecord> SQLiteStore::run(std::int64_t id,
                                                                std::string* error) {
    std::lock_guard lock(mutex_);
    Statement s(db_, std::string("SELECT ") + kRunColumns + " FROM runs WHERE id = ?");
    s.bindInt(1, id);
    std::optional<ProfilingRunRecord> run;
    if (s.next()) run = readRun(s);
    s.run();
    if (!s.ok()) {
        failLocked("run: " + s.error());
        setError(error, lastError_);
        return std::nullopt;
    }
    return run;
}

std::optional<SQLiteStore::ProfilingRunRecord> SQLiteStore::latestCompletedRun(std::string* error) {
    std::lock_guard lock(mutex_);
    Statement s(db_, std::string("SELECT ") + kRunColumns +
                         " FROM runs WHERE status = 'completed' ORDER BY stopped_at DESC, id DESC "
                         "LIMIT 1");
    std::optional<ProfilingRunRecord> run;
    if (s.next()) run = readRun(s);
    s.run();
    if (!s.ok()) {
        failLocked("latest completed run: " + s.error());
        setError(error, lastError_);
        return std::nullopt;
    }
    return run;
}

std::vector<std::int64_t> SQLiteStore::keptRunIDs(int limit, std::string* error) {
    std::lock_guard lock(mutex_);
    Statement s(db_, "SELECT id FROM runs WHERE status != 'active' ORDER BY id LIMIT ?");
    s.bindInt(1, limit);
    std::vector<std::int64_t> ids;
    while (s.next()) ids.push_back(s.integer(0));
    s.run();
    if (!s.ok()) {
        failLocked("kept runs: " + s.error());
        setError(error, lastError_);
        return {};
    }
    return ids;
}

std::vector<SQLiteStore::ProfilingRunRecord> SQLiteStore::closeAbandonedRuns(
    Timestamp now, std::string* error, std::optional<std::int64_t> keep) {
    std::lock_guard lock(mutex_);
    if (!execLocked("BEGIN IMMEDIATE")) {
        setError(error, lastError_);
        return {};
    }
    std::vector<ProfilingRunRecord> runs;
    {
        Statement s(db_,
                    std::string("SELECT ") + kRunColumns +
                        " FROM runs WHERE stopped_at IS NULL AND id != ? ORDER BY started_at, id");
        s.bindInt(1, keep.value_or(-1));
        while (s.next()) runs.push_back(readRun(s));
        if (!s.ok()) {
            failLocked("close abandoned runs: " + s.error());
            execLocked("ROLLBACK");
            setError(error, lastError_);
            return {};
        }
    }
    Statement update(db_,
                     "UPDATE runs SET stopped_at = ?, status = 'abandoned' "
                     "WHERE stopped_at IS NULL AND id != ?");
    update.bindReal(1, now);
    update.bindInt(2, keep.value_or(-1));
    if (!update.run()) {
        failLocked("close abandoned runs: " + update.error());
        execLocked("ROLLBACK");
        setError(error, lastError_);
        return {};
    }
    if (!execLocked("COMMIT")) {
        const std::string failure = lastError_;
        execLocked("ROLLBACK");
        lastError_ = failure;
        setError(error, failure);
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
    Statement s(db_, "SELECT MAX(timestamp) FROM run_samples WHERE run_id = ?");
    s.bindInt(1, id);
    std::optional<Timestamp> latest;
    if (s.next()) latest = s.optReal(0);
    s.run();
    if (!s.ok()) {
        failLocked("last run sample: " + s.error());
        setError(error, lastError_);
        return std::nullopt;
    }
    return latest;
}

std::vector<TelemetrySample> SQLiteStore::runSamples(std::int64_t id, std::string* error) {
    std::lock_guard lock(mutex_);
    Statement s(db_, std::string("SELECT ") + kSampleColumns +
                         " FROM run_samples WHERE run_id = ? ORDER BY timestamp, rowid");
    s.bindInt(1, id);
    std::vector<TelemetrySample> result;
    while (s.next()) result.push_back(readSample(s, 0));
    if (!s.ok()) {
        failLocked("run samples: " + s.error());
        setError(error, lastError_);
        return {};
    }
    return result;
}

std::vector<RuntimeEvent> SQLiteStore::runEvents(std::int64_t id) {
    std::lock_guard lock(mutex_);
    Statement s(db_,
                "SELECT uuid, timestamp, message, is_failure, is_build_identity FROM run_events "
                "WHERE run_id = ? ORDER BY timestamp, rowid");
    s.bindInt(1, id);
    std::vector<RuntimeEvent> result;
    while (s.next()) result.push_back(readEvent(s, 0));
    if (!s.ok()) {
        failLocked("run events: " + s.error());
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
    if (!execLocked("BEGIN IMMEDIATE")) return std::nullopt;
    int removed = 0;
    for (const char* sql :
         {"DELETE FROM run_samples WHERE run_id = ?", "DELETE FROM run_events WHERE run_id = ?",
          "DELETE FROM runs WHERE id = ?"}) {
        Statement s(db_, sql);
        s.bindInt(1, id);
        if (!s.run()) {
            failLocked("clear run: " + s.error());
            execLocked("ROLLBACK");
            return std::nullopt;
        }
        removed += sqlite3_changes(db_);
    }
    if (!execLocked("COMMIT")) {
        const std::string error = lastError_;
        execLocked("ROLLBACK");
        lastError_ = error;
        return std::nullopt;
    }
    return removed;
}

std::optional<int> SQLiteStore::countRunRows(std::int64_t id) {
    std::lock_guard lock(mutex_);
    Statement s(db_,
                "SELECT (SELECT COUNT(*) FROM run_samples WHERE run_id = ?1) + "
                "(SELECT COUNT(*) FROM run_events WHERE run_id = ?1) + "
                "(SELECT COUNT(*) FROM runs WHERE id = ?1)");
    s.bindInt(1, id);
    std::optional<int> count;
    if (s.next()) count = static_cast<int>(s.integer(0));
    s.run();
    if (!s.ok()) {
        failLocked("count run rows: " + s.error());
        return std::nullopt;
    }
    return count;
}

bool SQLiteStore::appendRunEvent(std::int64_t runID, const ProfilingRunEvent& event) {
    std::lock_guard lock(mutex_);
    Statement s(db_,
                "INSERT OR IGNORE INTO run_events (run_id, uuid, timestamp, message, kind, "
                "severity, details) SELECT ?1, ?2, ?3, ?4, ?5, ?6, ?7 "
                "WHERE EXISTS (SELECT 1 FROM runs WHERE id = ?1)");
    s.bindInt(1, runID);
    s.bindText(2, event.id.toString());
    s.bindReal(3, event.timestamp);
    s.bindText(4, event.kind + " (" + event.severity + ")");
    s.bindText(5, event.kind);
    s.bindText(6, event.severity);
    s.bindText(7, encodeValues(event.values));
    if (!s.run()) return failLocked("append run event: " + s.error());
    if (sqlite3_changes(db_) == 0) {
        // Either the run is gone or the id was stored already; only the first is a failure.
        Statement exists(db_, "SELECT 1 FROM runs WHERE id = ?");
        exists.bindInt(1, runID);
        const bool found = exists.next();
        if (!exists.ok()) return failLocked("append run event: " + exists.error());
        if (!found) return failLocked("append run event: no run with id " + std::to_string(runID));
    }
    return true;
}

std::vector<ProfilingRunEvent> SQLiteStore::runEventRecords(std::int64_t id, std::string* error) {
    std::lock_guard lock(mutex_);
    Statement s(db_,
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
        event.values = decodeValues(s.text(4));
        // Events stored without a kind (plain runtime events) keep their message as the kind.
        if (event.kind.empty()) event.kind = s.text(5);
        result.push_back(std::move(event));
    }
    if (!s.ok()) {
        failLocked("run events: " + s.error());
        setError(error, lastError_);
        return {};
    }
    return result;
}

// ----- Models --------------------------------------------------------------------------------

std::optional<std::int64_t> SQLiteStore::saveLearnedModel(const LearnedModel& model,
                                                          bool makeActive) {
    std::lock_guard lock(mutex_);
    if (!execLocked("BEGIN IMMEDIATE")) return std::nullopt;
    bool ok = true;
    if (makeActive) ok = execLocked("UPDATE learned_models SET active = 0 WHERE active != 0");
    std::int64_t id = 0;
    if (ok) {
        Statement s(db_,
                    "INSERT INTO learned_models (source, created_at, cpu_ref, gpu_ref, temp_ref, "
                    "active) VALUES (?, ?, ?, ?, ?, ?)");
        s.bindText(1, model.source);
        s.bindReal(2, model.createdAt);
        s.bindReal(3, model.cpuReferenceClockMHz);
        s.bindReal(4, model.gpuReferenceClockMHz);
        s.bindReal(5, model.temperatureReferenceC);
        s.bindInt(6, makeActive ? 1 : 0);
        ok = s.run() || failLocked("save learned model: " + s.error());
        id = sqlite3_last_insert_rowid(db_);
    }
    if (ok) ok = execLocked("COMMIT");
    if (!ok) {
        const std::string error = lastError_;
        execLocked("ROLLBACK");
        lastError_ = error;
        return std::nullopt;
    }
    return id;
}

std::optional<LearnedModel> SQLiteStore::activeLearnedModel(std::string* error) {
    std::lock_guard lock(mutex_);
    Statement s(db_,
                "SELECT id, source, created_at, cpu_ref, gpu_ref, temp_ref FROM learned_models "
                "WHERE active != 0 ORDER BY id DESC LIMIT 1");
    std::optional<LearnedModel> model;
    if (s.next()) {
        model.emplace();
        model->id = s.integer(0);
        model->source = s.text(1);
        model->createdAt = s.real(2);
        model->cpuReferenceClockMHz = s.optReal(3);
        model->gpuReferenceClockMHz = s.optReal(4);
        model->temperatureReferenceC = s.optReal(5);
    }
    s.run();
    if (!s.ok()) {
        failLocked("active learned model: " + s.error());
        if (error) *error = lastError_;
        return std::nullopt;
    }
    return model;
}

std::optional<std::int64_t> SQLiteStore::saveAdaptiveLeadModel(const AdaptiveLeadModel& model,
                                                               bool makeActive) {
    std::lock_guard lock(mutex_);
    if (!execLocked("BEGIN IMMEDIATE")) return std::nullopt;
    bool ok = true;
    if (makeActive) ok = execLocked("UPDATE adaptive_models SET active = 0 WHERE active != 0");
    std::int64_t id = 0;
    if (ok) {
        Statement s(db_,
                    "INSERT INTO adaptive_models (name, version, created_at, threshold, lead_ms, "
                    "misses, active) VALUES (?, ?, ?, ?, ?, ?, ?)");
        s.bindText(1, model.name);
        s.bindInt(2, model.version);
        s.bindReal(3, model.createdAt);
        s.bindReal(4, model.utilizationThresholdPct);
        s.bindReal(5, model.averageLeadMs);
        s.bindInt(6, model.misses);
        s.bindInt(7, makeActive ? 1 : 0);
        ok = s.run() || failLocked("save adaptive model: " + s.error());
        id = sqlite3_last_insert_rowid(db_);
    }
    if (ok) ok = execLocked("COMMIT");
    if (!ok) {
        const std::string error = lastError_;
        execLocked("ROLLBACK");
        lastError_ = error;
        return std::nullopt;
    }
    return id;
}

std::optional<AdaptiveLeadModel> SQLiteStore::activeAdaptiveLeadModel(std::string* error) {
    std::lock_guard lock(mutex_);
    Statement s(db_,
                "SELECT id, name, version, created_at, threshold, lead_ms, misses "
                "FROM adaptive_models WHERE active != 0 ORDER BY id DESC LIMIT 1");
    std::optional<AdaptiveLeadModel> model;
    if (s.next()) {
        model.emplace();
        model->id = s.integer(0);
        model->name = s.text(1);
        model->version = static_cast<int>(s.integer(2));
        model->createdAt = s.real(3);
        model->utilizationThresholdPct = s.real(4);
        model->averageLeadMs = s.real(5);
        model->misses = static_cast<int>(s.integer(6));
    }
    s.run();
    if (!s.ok()) {
        failLocked("active adaptive model: " + s.error());
        if (error) *error = lastError_;
        return std::nullopt;
    }
    return model;
}

// ----- Fan curves and capabilities -----------------------------------------------------------

bool SQLiteStore::saveFanCurve(const std::string& identity, const FanCurve& curve) {
    std::lock_guard lock(mutex_);
    if (curve.empty()) return failLocked("save fan curve: the curve has no points");
    for (const auto& [pwm, rpm] : curve)
        if (!std::isfinite(pwm) || !std::isfinite(rpm))
            return failLocked("save fan curve: the curve has a non-finite point");
    Statement s(db_,
                "INSERT OR REPLACE INTO fan_curves (fan_identity, points, learned_at) "
                "VALUES (?, ?, ?)");
    s.bindText(1, identity);
    s.bindText(2, encodeCurve(curve));
    s.bindReal(3, now_());
    if (!s.run()) return failLocked("save fan curve: " + s.error());
    return true;
}

std::optional<SQLiteStore::FanCurve> SQLiteStore::fanCurve(const std::string& identity) {
    std::lock_guard lock(mutex_);
    Statement s(db_, "SELECT points FROM fan_curves WHERE fan_identity = ?");
    s.bindText(1, identity);
    std::optional<std::string> points;
    if (s.next()) points = s.text(0);
    s.run();
    if (!s.ok()) {
        failLocked("fan curve: " + s.error());
        return std::nullopt;
    }
    if (!points) return std::nullopt;
    auto curve = decodeCurve(*points);
    if (!curve || curve->empty()) {
        failLocked("fan curve: stored points for " + identity + " are malformed");
        return std::nullopt;
    }
    return curve;
}

bool SQLiteStore::saveMachineCapabilities(const std::string& machineIdentity,
                                          const std::string& encoded) {
    std::lock_guard lock(mutex_);
    Statement s(db_,
                "INSERT OR REPLACE INTO machine_capabilities (machine_identity, capabilities, "
                "updated_at) VALUES (?, ?, ?)");
    s.bindText(1, machineIdentity);
    s.bindText(2, encoded);
    s.bindReal(3, now_());
    if (!s.run()) return failLocked("save machine capabilities: " + s.error());
    return true;
}

std::optional<std::string> SQLiteStore::machineCapabilities(const std::string& machineIdentity) {
    std::lock_guard lock(mutex_);
    Statement s(db_, "SELECT capabilities FROM machine_capabilities WHERE machine_identity = ?");
    s.bindText(1, machineIdentity);
    std::optional<std::string> encoded;
    if (s.next()) encoded = s.text(0);
    s.run();
    if (!s.ok()) {
        failLocked("machine capabilities: " + s.error());
        return std::nullopt;
    }
    return encoded;
}

}  // namespace kelvo
