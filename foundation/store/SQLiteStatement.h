// A prepared SQLite statement that remembers the first error it met, so its user checks once at
// the end. The store's own convention: a call says whether it worked (ok(), or the bool it
// returns) and error() says why; code() keeps SQLite's result code for the few callers that sort
// failures by kind.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace kelvo {

class SQLiteStatement {
public:
    // Prepares `sql` (a single statement); finalized when done.
    SQLiteStatement(sqlite3* db, std::string_view sql);
    // Borrows a statement the store keeps prepared; it is reset, not finalized, when done. A null
    // `kept` (its preparation failed) reports the connection's error.
    SQLiteStatement(sqlite3* db, sqlite3_stmt* kept);
    ~SQLiteStatement();
    SQLiteStatement(const SQLiteStatement&) = delete;
    SQLiteStatement& operator=(const SQLiteStatement&) = delete;

    // Binding after a failure does nothing: the first error is the one kept.
    void bindReal(int index, double value);
    void bindReal(int index, const std::optional<double>& value);  // absent or non-finite: NULL
    void bindInt(int index, std::int64_t value);
    void bindText(int index, std::string_view value);
    void bindNull(int index);

    // True while rows come; false when done or failed (see ok()).
    bool next();
    // Steps to the end; ok().
    bool run();

    bool ok() const { return error_.empty(); }
    const std::string& error() const { return error_; }
    int code() const { return code_; }

    bool isNull(int column) const;
    double real(int column) const;
    std::optional<double> optReal(int column) const;
    std::int64_t integer(int column) const;
    std::string text(int column) const;

private:
    void check(int rc);
    void capture(int rc);

    sqlite3* db_ = nullptr;
    sqlite3_stmt* stmt_ = nullptr;
    bool borrowed_ = false;
    std::string error_;
    int code_ = 0;  // SQLITE_OK
    bool done_ = false;
};

}  // namespace kelvo
