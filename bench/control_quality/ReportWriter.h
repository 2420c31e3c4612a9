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
    // quietHybrid against the best baseline at equal or lower time throttled, and performance's
    // clock retention; prints one line per machine and trace. False when any target is missed.
    bool printTargets(std::ostream& out) const;

    static const char* csvHeader();

private:
    const QualityRow* find(const std::string& machine, const std::string& trace,
                           const std::string& controller) const;
    bool checkHybrid(std::ostream& out, const QualityRow& hybrid) const;
    std::string reach(const QualityRow& hybrid, const QualityRow& baseline) const;
    bool checkRetention(std::ostream& out, const QualityRow& performance) const;

    std::vector<QualityRow> rows_;
};

}  // namespace kelvo::quality
