// SQLiteTransaction: what a commit keeps, and what leaving the scope without one takes back.
#include "foundation/store/SQLiteTransaction.h"

#include "foundation/store/SQLiteStatement.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "foundation/core/Types.h"

namespace kelvo {
namespace {

namespace fs = std::filesystem;

// One connection to a fresh database holding `items (name TEXT PRIMARY KEY NOT NULL)`.
class Database {
public:
    explicit Database(const std::string& path = ":memory:") {
        sqlite3_open(path.c_str(), &db_);
        exec("CREATE TABLE IF NOT EXISTS items (name TEXT PRIMARY KEY NOT NULL)");
    }
    ~Database() { sqlite3_close(db_); }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    sqlite3* db() const { return db_; }

    bool exec(const std::string& sql) {
        return sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    }
    bool insert(const std::optional<std::string>& name) {
        SQLiteStatement s(db_, "INSERT INTO items (name) VALUES (?)");
        if (name)
            s.bindText(1, *name);
        else
            s.bindNull(1);
        return s.run();
    }
    std::int64_t count() {
        SQLiteStatement s(db_, "SELECT COUNT(*) FROM items");
        return s.next() ? s.integer(0) : -1;
    }
    bool inTransaction() const { return sqlite3_get_autocommit(db_) == 0; }

private:
    sqlite3* db_ = nullptr;
};

TEST(SQLiteTransaction, CommitKeepsTheRows) {
    Database d;
    {
        SQLiteTransaction transaction(d.db());
        ASSERT_TRUE(transaction.ok()) << transaction.error();
        EXPECT_TRUE(d.inTransaction());
        ASSERT_TRUE(d.insert("a"));
        ASSERT_TRUE(d.insert("b"));
        EXPECT_TRUE(transaction.commit()) << transaction.error();
        EXPECT_TRUE(transaction.ok());
        EXPECT_FALSE(d.inTransaction());
    }
    EXPECT_FALSE(d.inTransaction());
    EXPECT_EQ(d.count(), 2);
}

TEST(SQLiteTransaction, LeavingTheScopeWithoutCommitRollsBack) {
    Database d;
    ASSERT_TRUE(d.insert("before"));
    {
        SQLiteTransaction transaction(d.db());
        ASSERT_TRUE(transaction.ok()) << transaction.error();
        ASSERT_TRUE(d.insert("a"));
        ASSERT_TRUE(d.insert("b"));
        EXPECT_EQ(d.count(), 3);
    }
    EXPECT_FALSE(d.inTransaction());
    EXPECT_EQ(d.count(), 1);
}

TEST(SQLiteTransaction, AFailingStatementInsideLeavesNothing) {
    Database d;
    // The store's pattern: every statement checked, and the first failure leaves the scope
    // before the commit.
    auto insertAll = [&d](std::initializer_list<std::optional<std::string>> names) {
        SQLiteTransaction transaction(d.db());
        if (!transaction.ok()) return false;
        for (const auto& name : names)
            if (!d.insert(name)) return false;
        return transaction.commit();
    };
    EXPECT_FALSE(insertAll({"a", "b", std::nullopt}));  // NOT NULL
    EXPECT_FALSE(d.inTransaction());
    EXPECT_EQ(d.count(), 0);
    EXPECT_FALSE(insertAll({"c", "c"}));  // PRIMARY KEY
    EXPECT_EQ(d.count(), 0);
    // The connection is left fit for the next transaction.
    EXPECT_TRUE(insertAll({"x", "y"}));
    EXPECT_EQ(d.count(), 2);
}

TEST(SQLiteTransaction, AFailedCommitIsReportedAndRolledBack) {
    Database d;
    // A deferred foreign key is checked at COMMIT, which then fails and leaves the transaction
    // open.
    ASSERT_TRUE(d.exec("PRAGMA foreign_keys = ON"));
    ASSERT_TRUE(d.exec("CREATE TABLE parents (id INTEGER PRIMARY KEY)"));
    ASSERT_TRUE(
        d.exec("CREATE TABLE children (parent INTEGER REFERENCES parents(id) DEFERRABLE "
               "INITIALLY DEFERRED)"));
    {
        SQLiteTransaction transaction(d.db());
        ASSERT_TRUE(transaction.ok()) << transaction.error();
        ASSERT_TRUE(d.insert("a"));
        ASSERT_TRUE(d.exec("INSERT INTO children (parent) VALUES (42)"));
        EXPECT_FALSE(transaction.commit());
        EXPECT_FALSE(transaction.ok());
        EXPECT_NE(transaction.error().find("FOREIGN KEY"), std::string::npos)
            << transaction.error();
        EXPECT_EQ(transaction.code() & 0xff, SQLITE_CONSTRAINT);
        EXPECT_TRUE(d.inTransaction());
    }
    EXPECT_FALSE(d.inTransaction());
    EXPECT_EQ(d.count(), 0);
}

TEST(SQLiteTransaction, ABeginThatFailsLeavesTheOuterTransactionAlone) {
    Database d;
    SQLiteTransaction outer(d.db());
    ASSERT_TRUE(outer.ok()) << outer.error();
    ASSERT_TRUE(d.insert("a"));
    {
        SQLiteTransaction inner(d.db());
        EXPECT_FALSE(inner.ok());
        EXPECT_FALSE(inner.error().empty());
        EXPECT_FALSE(inner.commit());
    }
    // Had the inner guard rolled back, the row and the transaction would be gone.
    EXPECT_TRUE(d.inTransaction());
    EXPECT_EQ(d.count(), 1);
    EXPECT_TRUE(outer.commit()) << outer.error();
    EXPECT_EQ(d.count(), 1);
}

TEST(SQLiteTransaction, ABusyDatabaseIsReported) {
    const fs::path dir =
        fs::temp_directory_path() / ("kelvo-transaction-" + Uuid::generate().toString());
    fs::create_directories(dir);
    {
        const std::string file = (dir / "store.db").string();
        Database first(file);
        Database second(file);
        sqlite3_busy_timeout(second.db(), 0);
        SQLiteTransaction holding(first.db());
        ASSERT_TRUE(holding.ok()) << holding.error();
        ASSERT_TRUE(first.insert("a"));
        {
            SQLiteTransaction waiting(second.db());
            EXPECT_FALSE(waiting.ok());
            EXPECT_EQ(waiting.code() & 0xff, SQLITE_BUSY);
            EXPECT_FALSE(waiting.commit());
        }
        EXPECT_TRUE(holding.commit()) << holding.error();
        EXPECT_EQ(second.count(), 1);
    }
    std::error_code ec;
    fs::remove_all(dir, ec);
}

TEST(SQLiteTransaction, NoDatabaseIsReported) {
    SQLiteTransaction transaction(nullptr);
    EXPECT_FALSE(transaction.ok());
    EXPECT_EQ(transaction.error(), "no database is open");
    EXPECT_FALSE(transaction.commit());
}

}  // namespace
}  // namespace kelvo
