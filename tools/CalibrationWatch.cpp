#include "tools/CalibrationWatch.h"

#include <sqlite3.h>

#include <chrono>
#include <thread>
#include <utility>
#include <vector>

namespace kelvo::kelvoctl {

namespace {
struct Row {
    long long id = 0;
    std::string message;
};
}  // namespace

CalibrationWatch::CalibrationWatch(std::string databasePath, std::string identity,
                                   double answerSeconds, double followSeconds)
    : path_(std::move(databasePath)),
      identity_(std::move(identity)),
      answerSeconds_(answerSeconds),
      followSeconds_(followSeconds) {}

CalibrationWatch::~CalibrationWatch() {
    if (db_) sqlite3_close(db_);
}

bool CalibrationWatch::open() {
    if (sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        error_ = "cannot read Kelvo's database " + path_ + " (" +
                 (db_ ? sqlite3_errmsg(db_) : "out of memory") +
                 "): is Kelvo installed and has it run as this user?";
        return false;
    }
    sqlite3_busy_timeout(db_, 2000);
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, "SELECT IFNULL(MAX(rowid), 0) FROM events", -1, &statement,
                           nullptr) != SQLITE_OK ||
        sqlite3_step(statement) != SQLITE_ROW) {
        error_ = "cannot read the events in " + path_ + " (" + sqlite3_errmsg(db_) + ")";
        sqlite3_finalize(statement);
        return false;
    }
    lastRow_ = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    return true;
}

int CalibrationWatch::follow(const Line& out, const Line& fail) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const auto since = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    const std::string running = "Calibrating " + identity_ + ":";
    const std::string finished = "Calibration of " + identity_ + " finished";
    const std::string failed = "Calibration of " + identity_ + " failed";
    const std::string refused = "Cannot calibrate " + identity_ + ":";
    bool answered = false;
    while (true) {
        sqlite3_stmt* statement = nullptr;
        std::vector<Row> rows;
        if (sqlite3_prepare_v2(db_,
                               "SELECT rowid, message FROM events WHERE rowid > ?1 ORDER BY rowid",
                               -1, &statement, nullptr) == SQLITE_OK) {
            sqlite3_bind_int64(statement, 1, lastRow_);
            while (sqlite3_step(statement) == SQLITE_ROW) {
                const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, 1));
                rows.push_back({sqlite3_column_int64(statement, 0), text ? text : ""});
            }
        }
        sqlite3_finalize(statement);
        for (const Row& row : rows) {
            lastRow_ = row.id;
            const std::string& m = row.message;
            if (m.starts_with(running)) {
                answered = true;
                out(m);
            } else if (m.starts_with(finished)) {
                out(m);
                return 0;
            } else if (m.starts_with(failed) || m.starts_with(refused)) {
                fail(m);
                return 1;
            }
        }
        if (!answered && since() > answerSeconds_) {
            fail("no running Kelvo answered the request; start Kelvo and ask again");
            return 1;
        }
        if (since() > followSeconds_) {
            fail(
                "the calibration is still running after 3 minutes; Kelvo carries on, and its "
                "Fans pane shows how it goes");
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
}

}  // namespace kelvo::kelvoctl
