// The shape of a SQLite schema (its tables and their columns), so that a file that claims to be
// Kelvo's database but holds something else is told apart from ours.
#pragma once

#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>

struct sqlite3;

namespace kelvo {

// Table name → column names; SQLite's own tables are left out.
using SchemaShape = std::map<std::string, std::set<std::string>>;

// What `db` holds now; empty when it cannot be read.
SchemaShape schemaShapeOf(sqlite3* db);

// What the migration scripts build from an empty database, applied in order in memory.
SchemaShape schemaShapeBuiltBy(std::span<const std::string_view> migrations);

// How `actual` falls short of `expected` ("no table runs", "table samples has no column
// fan_rpm"), or empty when every expected table and column is there. More is allowed: a later
// build may have added its own.
std::string schemaShortfall(const SchemaShape& expected, const SchemaShape& actual);

}  // namespace kelvo
