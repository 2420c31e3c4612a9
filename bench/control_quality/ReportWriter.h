// Prints the comparison table, writes it as CSV and checks Kelvo's targets against the rows.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "QualityMetrics.h"

namespace kelvo::quality {

class ReportWriter {
public:
    explicit ReportWriter(std::vector<QualityRow> rows) : rows_(std::move(rows)) {}

    void printTable(std::ostream& out) const;
    bool writeCsv(const std::string& path) const;
    // Kelvo's quiet modes against the foresight floor and against what users run otherwise, and
    // performance's clock retention; one line per check with MET or MISSED and why. False when
    // any target is missed. Checks whose reference row is absent are left out.
    bool printTargets(std::ostream& out) const;

    static const char* csvHeader();

private:
    const QualityRow* find(const std::string& machine, const std::string& trace,
                           const std::string& controller) const;
    std::vector<const QualityRow*> rowsOf(const std::string& controller) const;
    bool checkFloor(std::ostream& out, const QualityRow& row) const;
    bool checkAnticipation(std::ostream& out, const QualityRow& hybrid) const;
    bool checkPeer(std::ostream& out, const QualityRow& hybrid, const QualityRow& peer) const;
    bool checkRetention(std::ostream& out, const QualityRow& performance) const;

    std::vector<QualityRow> rows_;
};

}  // namespace kelvo::quality
