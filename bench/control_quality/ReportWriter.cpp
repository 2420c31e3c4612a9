#include "ReportWriter.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <ostream>

namespace kelvo::quality {

namespace {

constexpr double kChangesReduction = 0.40;
constexpr double kRPMReduction = 0.15;
constexpr double kRetentionTarget = 0.99;

bool isBaseline(const std::string& controller) {
    return controller == "linear-curve" || controller == "stepped-hysteresis" ||
           controller == "pid";
}

std::string format(const char* pattern, auto... values) {
    char text[512];
    std::snprintf(text, sizeof text, pattern, values...);
    return text;
}

}  // namespace

const char* ReportWriter::csvHeader() {
    return "machine,controller,trace,peak_c,p95_c,over_limit_s,throttled_s,retention,mean_rpm,"
           "audible_changes_per_h,rpm_sd,mean_db,peak_db";
}

void ReportWriter::printTable(std::ostream& out) const {
    out << format("%-21s %-12s %-19s %7s %7s %8s %8s %8s %8s %8s %7s %7s %7s\n", "machine", "trace",
                  "controller", "peak C", "p95 C", "over s", "throt s", "retain", "mean rpm",
                  "chg/h", "rpm sd", "mean dB", "peak dB");
    std::string lastGroup;
    for (const auto& row : rows_) {
        std::string group = row.machine + row.trace;
        if (!lastGroup.empty() && group != lastGroup) out << '\n';
        lastGroup = group;
        out << format(
            "%-21s %-12s %-19s %7.1f %7.1f %8.0f %8.0f %7.2f%% %8.0f %8.1f %7.0f %7.1f %7.1f\n",
            row.machine.c_str(), row.trace.c_str(), row.controller.c_str(), row.peakC, row.p95C,
            row.overLimitS, row.throttledS, row.retention * 100, row.meanRPM,
            row.audibleChangesPerHour, row.rpmSD, row.meanDb, row.peakDb);
    }
}

bool ReportWriter::writeCsv(const std::string& path) const {
    std::ofstream file(path);
    if (!file) return false;
    file << csvHeader() << '\n';
    for (const auto& row : rows_) {
        file << format("%s,%s,%s,%.3f,%.3f,%.1f,%.1f,%.5f,%.1f,%.2f,%.2f,%.3f,%.3f\n",
                       row.machine.c_str(), row.controller.c_str(), row.trace.c_str(), row.peakC,
                       row.p95C, row.overLimitS, row.throttledS, row.retention, row.meanRPM,
                       row.audibleChangesPerHour, row.rpmSD, row.meanDb, row.peakDb);
    }
    return static_cast<bool>(file);
}

const QualityRow* ReportWriter::find(const std::string& machine, const std::string& trace,
                                     const std::string& controller) const {
    for (const auto& row : rows_)
        if (row.machine == machine && row.trace == trace && row.controller == controller)
            return &row;
    return nullptr;
}

// How far under the baseline's speed the limit-hold reference gets: where even holding the quiet
// limits saves less than the target, no quiet controller can reach it on that trace.
std::string ReportWriter::reach(const QualityRow& hybrid, const QualityRow& baseline) const {
    const QualityRow* hold = find(hybrid.machine, hybrid.trace, "limit-hold");
    if (!hold || baseline.meanRPM <= 0) return {};
    const double cut = 1.0 - hold->meanRPM / baseline.meanRPM;
    return format("; at the limits %+.0f%%%s", -cut * 100,
                  cut < kRPMReduction ? " (out of reach)" : "");
}

// "Best" is taken per figure: the fewest changes and the lowest mean speed of any baseline that
// throttles no longer than quietHybrid, so one baseline cannot hide behind another.
bool ReportWriter::checkHybrid(std::ostream& out, const QualityRow& hybrid) const {
    const QualityRow* fewestChanges = nullptr;
    const QualityRow* lowestRPM = nullptr;
    for (const auto& row : rows_) {
        if (row.machine != hybrid.machine || row.trace != hybrid.trace) continue;
        if (!isBaseline(row.controller) || row.throttledS > hybrid.throttledS) continue;
        if (!fewestChanges || row.audibleChangesPerHour < fewestChanges->audibleChangesPerHour)
            fewestChanges = &row;
        if (!lowestRPM || row.meanRPM < lowestRPM->meanRPM) lowestRPM = &row;
    }
    std::string where = hybrid.machine + " / " + hybrid.trace;
    if (!fewestChanges) {
        out << format("  %-36s quietHybrid throttles less than every baseline (%.0f s): met\n",
                      where.c_str(), hybrid.throttledS);
        return true;
    }
    const double baseChanges = fewestChanges->audibleChangesPerHour;
    const double changesCut = baseChanges > 0 ? 1.0 - hybrid.audibleChangesPerHour / baseChanges
                                              : (hybrid.audibleChangesPerHour > 0 ? -1.0 : 1.0);
    const double rpmCut = 1.0 - hybrid.meanRPM / lowestRPM->meanRPM;
    const bool met = changesCut >= kChangesReduction && rpmCut >= kRPMReduction;
    out << format(
        "  %-34s changes/h %5.1f vs %5.1f %-18s  rpm %5.0f vs %5.0f (%+4.0f%%) %-18s %s%s\n",
        where.c_str(), hybrid.audibleChangesPerHour, baseChanges, fewestChanges->controller.c_str(),
        hybrid.meanRPM, lowestRPM->meanRPM, -rpmCut * 100, lowestRPM->controller.c_str(),
        met ? "met" : "MISSED", reach(hybrid, *lowestRPM).c_str());
    return met;
}

// The retention target only applies where some controller reaches it at all.
bool ReportWriter::checkRetention(std::ostream& out, const QualityRow& performance) const {
    double best = 0;
    for (const auto& row : rows_)
        if (row.machine == performance.machine && row.trace == performance.trace)
            best = std::max(best, row.retention);
    std::string where = performance.machine + " / " + performance.trace;
    if (best < kRetentionTarget) {
        out << format("  %-36s retention %.2f%%; no controller reaches 99%% (best %.2f%%)\n",
                      where.c_str(), performance.retention * 100, best * 100);
        return true;
    }
    const bool met = performance.retention >= kRetentionTarget;
    out << format("  %-36s retention %.2f%%: %s\n", where.c_str(), performance.retention * 100,
                  met ? "met" : "MISSED");
    return met;
}

bool ReportWriter::printTargets(std::ostream& out) const {
    bool all = true;
    out << "quietHybrid: >= 40% fewer audible changes and >= 15% lower mean rpm than the best "
           "baseline at equal or lower time throttled\n";
    for (const auto& row : rows_)
        if (row.controller == "quietHybrid") all = checkHybrid(out, row) && all;
    out << "performance: clock retention under load >= 99%\n";
    for (const auto& row : rows_)
        if (row.controller == "performance") all = checkRetention(out, row) && all;
    return all;
}

}  // namespace kelvo::quality
