// Opening the store: the file or, failing that, memory; moving an unreadable file aside; the
// connection's kept statements and the failure bookkeeping every table group reports through.
#include "foundation/store/SQLiteStore.h"

#include "foundation/store/SQLiteStatement.h"

#include <sqlite3.h>

#include <cmath>
#include <ctime>
#include <filesystem>
#include <system_error>

namespace kelvo {

namespace {

namespace fs = std::filesystem;

std::string timestampSuffix(Timestamp now) {
    std::time_t seconds = static_cast<std::time_t>(std::floor(now));
    std::tm local{};
    if (!localtime_r(&seconds, &local)) return "unknown-time";
    char buffer[32];
    if (std::strftime(buffer, sizeof buffer, "%Y%m%d-%H%M%S", &local) == 0) return "unknown-time";
    return buffer;
}

}  // namespace

SQLiteStore::OpenFailure SQLiteStore::OpenFailure::of(std::string reason, int code) {
    // Codes that say the bytes on disk are not a database we can use; anything else (permissions,
    // I/O, locks, a full disk) says the location is the problem and moving the file would not
    // help.
    code &= 0xff;
    const bool unreadable = code == SQLITE_NOTADB || code == SQLITE_CORRUPT ||
                            code == SQLITE_FORMAT || code == SQLITE_ERROR;
    return {std::move(reason), unreadable};
}

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

bool SQLiteStore::openAt(const std::string& target, OpenFailure& why) {
    closeLocked();
    sqlite3* db = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;
    int rc = sqlite3_open_v2(target.c_str(), &db, flags, nullptr);
    if (rc != SQLITE_OK) {
        why = {db ? sqlite3_errmsg(db) : sqlite3_errstr(rc), false};
        sqlite3_close_v2(db);
        return false;
    }
    db_ = db;
    sqlite3_busy_timeout(db_, 2000);
    if (sqlite3_db_readonly(db_, "main") == 1) {
        closeLocked();
        why = {"the file is read-only", false};
        return false;
    }

    auto fail = [this, &why](OpenFailure failure) {
        why = std::move(failure);
        closeLocked();
        return false;
    };

    {
        SQLiteStatement wal(db_, "PRAGMA journal_mode=WAL");
        if (!wal.run()) return fail(OpenFailure::of(wal.error(), wal.code()));
    }
    {
        // With the log, a commit no longer waits for the disk every second: a crash of Kelvo
        // loses nothing, a power cut at most the last commits, and the file stays consistent.
        SQLiteStatement sync(db_, "PRAGMA synchronous=NORMAL");
        if (!sync.run()) return fail(OpenFailure::of(sync.error(), sync.code()));
    }
    {
        SQLiteStatement check(db_, "PRAGMA quick_check");
        std::string verdict;
        if (check.next()) verdict = check.text(0);
        if (!check.run()) return fail(OpenFailure::of(check.error(), check.code()));
        if (verdict != "ok") return fail({"integrity check failed: " + verdict, true});
    }
    OpenFailure schema;
    if (!upgradeSchemaLocked(schema)) return fail(std::move(schema));
    lastSampleTimestamp_ = lastStoredSampleTimestampLocked();
    return true;
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

    OpenFailure first;
    if (openAt(path_, first)) {
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

    OpenFailure second;
    if (!openAt(path_, second)) {
        openInMemory(first.reason + "; moved aside to " + aside +
                     " but recreating it failed: " + second.reason);
        return;
    }
    persistent_ = true;
    queueFailure("Database at " + path_ + " was unreadable (" + first.reason +
                 "); moved aside to " + aside + " and recreated");
}

void SQLiteStore::openInMemory(const std::string& reason) {
    OpenFailure failure;
    const bool opened = openAt(":memory:", failure);
    persistent_ = false;
    if (!opened) failLocked("in-memory database failed: " + failure.reason);
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

bool SQLiteStore::failLocked(const std::string& what, std::string* error) {
    lastError_ = what;
    if (error) *error = what;
    return false;
}

}  // namespace kelvo
