// Follows one fan's calibration through the events a running Kelvo records in its database,
// which it opens read-only: the sentence saying what happens, the progress, the result.
#pragma once

#include <functional>
#include <string>

struct sqlite3;

namespace kelvo::kelvoctl {

class CalibrationWatch {
public:
    using Line = std::function<void(const std::string&)>;

    // Kelvo answers a request within a tick or two; a calibration is followed for 3 minutes.
    CalibrationWatch(std::string databasePath, std::string identity, double answerSeconds = 10,
                     double followSeconds = 180);
    ~CalibrationWatch();
    CalibrationWatch(const CalibrationWatch&) = delete;
    CalibrationWatch& operator=(const CalibrationWatch&) = delete;

    // Opens the database and notes where its events end, so only later ones count.
    bool open();
    const std::string& error() const { return error_; }
    // Prints the fan's events as they come; the exit status: 0 once it finished, 1 when it
    // was refused, failed, nobody answered, or it was still running when the wait ran out.
    int follow(const Line& out, const Line& fail);

private:
    std::string path_;
    std::string identity_;
    double answerSeconds_;
    double followSeconds_;
    sqlite3* db_ = nullptr;
    long long lastRow_ = 0;
    std::string error_;
};

}  // namespace kelvo::kelvoctl
