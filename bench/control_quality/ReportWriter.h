// Prints the comparison table, writes it as CSV and checks Kelvo's targets against the rows.
#pragma once

#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

#include "QualityMetrics.h"

namespace kelvo::quality {

class ReportWriter {
public:
    explicit ReportWriter(std::vector<QualityRow> rows) : rows_(std::move(rows)) {}

    void printTable(std::ostream& out) const;
    bool writeCsv(const std::string& path) const;
    // One row per machine × controller × trace × fan: the fan's mean speed and mean level.
    bool writeFanCsv(const std::string& path) const;
    // Every target on every machine × trace the rows cover: the foresight floor, Kelvo's quiet
    // modes against it, against the firmware at light load and after a launch, and against what
    // users run otherwise, and performance's clock retention; one line per check with PASS or
    // FAIL and the figures (n/a where the trace has nothing to judge). False when any target
    // fails. Checks whose reference row is absent are left out.
    bool printTargets(std::ostream& out) const;

    static const char* csvHeader();
    static const char* fanCsvHeader();

private:
    const QualityRow* find(const std::string& machine, const std::string& trace,
                           const std::string& controller) const;
    std::vector<const QualityRow*> rowsOf(const std::string& controller) const;
    std::vector<std::pair<std::string, std::string>> runs() const;  // machine × trace, in order
    bool checkForesightFloor(std::ostream& out, const std::string& machine,
                             const std::string& trace) const;
    bool checkLight(std::ostream& out, const QualityRow& row) const;
    std::string lightContext(const QualityRow& firmware) const;
    bool checkFloor(std::ostream& out, const QualityRow& row) const;
    bool checkChanges(std::ostream& out, const QualityRow& row) const;
    bool checkLaunch(std::ostream& out, const QualityRow& row) const;
    bool checkMix(std::ostream& out, const QualityRow& row, const std::string& fresh) const;
    bool checkAnticipation(std::ostream& out, const QualityRow& hybrid) const;
    bool checkPeer(std::ostream& out, const QualityRow& hybrid, const QualityRow& peer) const;
    bool checkRetention(std::ostream& out, const QualityRow& performance) const;

    std::vector<QualityRow> rows_;
};

// A fan's name as the CSV files write it: always quoted, its quotes doubled.
std::string csvQuoted(const std::string& text);

}  // namespace kelvo::quality
