// BEGIN, COMMIT and ROLLBACK for the store, written once.
#include "foundation/store/SQLiteTransaction.h"

#include "foundation/store/SQLiteStatement.h"

#include <sqlite3.h>

namespace kelvo {

SQLiteTransaction::SQLiteTransaction(sqlite3* db) : db_(db) {
    begun_ = run("BEGIN IMMEDIATE");
}

SQLiteTransaction::~SQLiteTransaction() {
    // A failed COMMIT may have ended the transaction already (SQLite rolls some errors back
    // itself); ROLLBACK is for one that is still open. Its own failure has nowhere to go.
    if (begun_ && !committed_ && sqlite3_get_autocommit(db_) == 0) {
        SQLiteStatement rollback(db_, "ROLLBACK");
        rollback.run();
    }
}

bool SQLiteTransaction::commit() {
    if (!begun_) return false;  // error() says why BEGIN failed
    if (!committed_) committed_ = run("COMMIT");
    return committed_;
}

bool SQLiteTransaction::run(const char* sql) {
    SQLiteStatement statement(db_, sql);
    if (statement.run()) return true;
    error_ = statement.error();
    code_ = statement.code();
    return false;
}

}  // namespace kelvo
