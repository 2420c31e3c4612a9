#include "foundation/store/SQLiteSchemaShape.h"

#include <sqlite3.h>

namespace kelvo {

namespace {
std::set<std::string> columnsOf(sqlite3* db, const std::string& table) {
    std::set<std::string> columns;
    sqlite3_stmt* statement = nullptr;
    // Table names come from sqlite_master, and the pragma takes no bound parameter: quote it.
    std::string quoted = "\"";
    for (char c : table) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    quoted += "\"";
    const std::string sql = "PRAGMA table_info(" + quoted + ")";
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK)
        while (sqlite3_step(statement) == SQLITE_ROW)
            if (const auto* name = sqlite3_column_text(statement, 1))
                columns.insert(reinterpret_cast<const char*>(name));
    sqlite3_finalize(statement);
    return columns;
}
}  // namespace

SchemaShape schemaShapeOf(sqlite3* db) {
    SchemaShape shape;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db,
                           "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT "
                           "LIKE 'sqlite_%'",
                           -1, &statement, nullptr) != SQLITE_OK) {
        sqlite3_finalize(statement);
        return shape;
    }
    while (sqlite3_step(statement) == SQLITE_ROW)
        if (const auto* name = sqlite3_column_text(statement, 0))
            shape[reinterpret_cast<const char*>(name)] = {};
    sqlite3_finalize(statement);
    for (auto& [table, columns] : shape) columns = columnsOf(db, table);
    return shape;
}

SchemaShape schemaShapeBuiltBy(std::span<const std::string_view> migrations) {
    sqlite3* db = nullptr;
    SchemaShape shape;
    if (sqlite3_open(":memory:", &db) == SQLITE_OK) {
        bool built = true;
        for (std::string_view script : migrations)
            built = built && sqlite3_exec(db, std::string(script).c_str(), nullptr, nullptr,
                                          nullptr) == SQLITE_OK;
        if (built) shape = schemaShapeOf(db);
    }
    sqlite3_close(db);
    return shape;
}

std::string schemaShortfall(const SchemaShape& expected, const SchemaShape& actual) {
    for (const auto& [table, columns] : expected) {
        const auto found = actual.find(table);
        if (found == actual.end()) return "no table " + table;
        for (const std::string& column : columns)
            if (!found->second.contains(column))
                return "table " + table + " has no column " + column;
    }
    return {};
}

}  // namespace kelvo
