// The prepared-statement wrapper every query in the store goes through.
#include "foundation/store/SQLiteStatement.h"

#include <sqlite3.h>

#include <cmath>

namespace kelvo {

static_assert(SQLITE_OK == 0);

SQLiteStatement::SQLiteStatement(sqlite3* db, std::string_view sql) : db_(db) {
    if (!db_) {
        error_ = "no database is open";
        code_ = SQLITE_MISUSE;
        return;
    }
    int rc = sqlite3_prepare_v2(db_, sql.data(), static_cast<int>(sql.size()), &stmt_, nullptr);
    if (rc != SQLITE_OK) capture(rc);
}

SQLiteStatement::SQLiteStatement(sqlite3* db, sqlite3_stmt* kept)
    : db_(db), stmt_(kept), borrowed_(true) {
    if (!db_) {
        error_ = "no database is open";
        code_ = SQLITE_MISUSE;
    } else if (!stmt_) {
        capture(sqlite3_errcode(db_) != SQLITE_OK ? sqlite3_errcode(db_) : SQLITE_ERROR);
    }
}

SQLiteStatement::~SQLiteStatement() {
    if (!borrowed_) {
        sqlite3_finalize(stmt_);
    } else if (stmt_) {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }
}

void SQLiteStatement::bindReal(int index, double value) {
    if (ok()) check(sqlite3_bind_double(stmt_, index, value));
}

void SQLiteStatement::bindReal(int index, const std::optional<double>& value) {
    if (!ok()) return;
    if (value && std::isfinite(*value))
        check(sqlite3_bind_double(stmt_, index, *value));
    else
        check(sqlite3_bind_null(stmt_, index));
}

void SQLiteStatement::bindInt(int index, std::int64_t value) {
    if (ok()) check(sqlite3_bind_int64(stmt_, index, value));
}

void SQLiteStatement::bindText(int index, std::string_view value) {
    if (ok())
        check(sqlite3_bind_text64(stmt_, index, value.data(), value.size(), SQLITE_TRANSIENT,
                                  SQLITE_UTF8));
}

void SQLiteStatement::bindNull(int index) {
    if (ok()) check(sqlite3_bind_null(stmt_, index));
}

bool SQLiteStatement::next() {
    // Stepping past DONE would silently restart the statement.
    if (!ok() || done_) return false;
    int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    done_ = true;
    if (rc != SQLITE_DONE) capture(rc);
    return false;
}

bool SQLiteStatement::run() {
    while (next()) {
    }
    return ok();
}

bool SQLiteStatement::isNull(int column) const {
    return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}

double SQLiteStatement::real(int column) const {
    return sqlite3_column_double(stmt_, column);
}

std::optional<double> SQLiteStatement::optReal(int column) const {
    if (isNull(column)) return std::nullopt;
    return real(column);
}

std::int64_t SQLiteStatement::integer(int column) const {
    return sqlite3_column_int64(stmt_, column);
}

std::string SQLiteStatement::text(int column) const {
    const auto* bytes = sqlite3_column_text(stmt_, column);
    if (!bytes) return {};
    return std::string(reinterpret_cast<const char*>(bytes),
                       static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)));
}

void SQLiteStatement::check(int rc) {
    if (rc != SQLITE_OK) capture(rc);
}

void SQLiteStatement::capture(int rc) {
    code_ = rc;
    const int dbCode = sqlite3_errcode(db_);
    error_ = (dbCode != SQLITE_OK) ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
}

}  // namespace kelvo
