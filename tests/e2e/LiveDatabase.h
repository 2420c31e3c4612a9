// Reads the database of a kelvo that is still running. A plain read-only connection: a store
// opened here would check and migrate the file under its owner's feet.
#pragma once

#include <sqlite3.h>

#include <QString>
#include <string>

// The first column of the first row `sql` gives, or -1 while the file cannot be read (not made
// yet, or busy past the wait).
inline long long queryNumber(const QString& path, const std::string& sql) {
    sqlite3* db = nullptr;
    long long result = -1;
    if (sqlite3_open_v2(path.toUtf8().constData(), &db, SQLITE_OPEN_READONLY, nullptr) ==
        SQLITE_OK) {
        sqlite3_busy_timeout(db, 1000);
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK &&
            sqlite3_step(statement) == SQLITE_ROW)
            result = sqlite3_column_int64(statement, 0);
        sqlite3_finalize(statement);
    }
    sqlite3_close(db);
    return result;
}
