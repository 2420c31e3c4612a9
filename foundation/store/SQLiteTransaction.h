// One write transaction on a SQLite connection, as a scope: BEGIN IMMEDIATE when made, ROLLBACK
// when it ends without a commit. Reports like SQLiteStatement: ok() says whether it began,
// commit() whether it held, error() and code() why not.
#pragma once

#include <string>

struct sqlite3;

namespace kelvo {

class SQLiteTransaction {
public:
    // IMMEDIATE takes the write lock at once (waiting out the connection's busy timeout), so a
    // second connection's write cannot slip in between this one's read and its write.
    explicit SQLiteTransaction(sqlite3* db);
    // Rolls back unless committed. A transaction that never began is left alone: the connection
    // may be inside someone else's.
    ~SQLiteTransaction();
    SQLiteTransaction(const SQLiteTransaction&) = delete;
    SQLiteTransaction& operator=(const SQLiteTransaction&) = delete;

    // False once BEGIN or COMMIT has failed. After a failed BEGIN there is nothing to commit or
    // roll back.
    bool ok() const { return error_.empty(); }
    // False if the transaction never began or COMMIT failed (the destructor then rolls back
    // what is still open). Committing again is a no-op that says it holds.
    [[nodiscard]] bool commit();

    const std::string& error() const { return error_; }
    int code() const { return code_; }

private:
    bool run(const char* sql);

    sqlite3* db_ = nullptr;
    bool begun_ = false;
    bool committed_ = false;
    std::string error_;
    int code_ = 0;  // SQLITE_OK
};

}  // namespace kelvo
