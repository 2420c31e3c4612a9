#include "ReportWriter.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <ostream>

namespace kelvo::quality {

namespace {

constexpr double kFloorSlackDb = 1.0;
constexpr double kMaxChangesPerHour = 2.0;
constexpr double kTieDb = 0.05;
constexpr double kRetentionTarget = 0.99;
constexpr double kRetentionLeadOverFirmware = 0.05;
// Traces with minutes of sustained load, where anticipation has something to win.
const char* const kSustainedTraces[] = {"compile", "game", "render", "mixed-day"};
// What a user would otherwise run: the machine's own curve and the Linux peers.
const char* const kPeers[] = {"firmware", "fancontrol", "thinkfan"};

bool isSustained(const std::string& trace) {
    return std::find(std::begin(kSustainedTraces), std::end(kSustainedTraces), trace) !=
           std::end(kSustainedTraces);
}

std::string format(const char* pattern, auto... values) {
    char text[512];
    std::snprintf(text, sizeof text, pattern, values...);
    return text;
}

// "CPU 12 s, GPU 3 s" for the limits a row crossed.
std::string crossed(const QualityRow& row) {
    std::string text;
    if (row.overCpuLimitS > 0) text += format("CPU limit %.0f s", row.overCpuLimitS);
    if (row.overGpuLimitS > 0)
        text += format("%sGPU limit %.0f s", text.empty() ? "" : ", ", row.overGpuLimitS);
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

std::vector<const QualityRow*> ReportWriter::rowsOf(const std::string& controller) const {
    std::vector<const QualityRow*> rows;
    for (const auto& row : rows_)
        if (row.controller == controller) rows.push_back(&row);
    return rows;
}

// Against the floor: the limits wherever the floor keeps them, noise within a decibel of it, and
// no more than two audible changes an hour.
bool ReportWriter::checkFloor(std::ostream& out, const QualityRow& row) const {
    const QualityRow* floor = find(row.machine, row.trace, "foresight");
    if (!floor) return true;
    std::string why;
    if (floor->overLimitS == 0 && row.overLimitS > 0)
        why += format("; over the limits (%s) where foresight keeps them", crossed(row).c_str());
    const double excessDb = row.meanDb - floor->meanDb;
    if (excessDb > kFloorSlackDb) why += format("; %.1f dB above foresight", excessDb);
    if (row.audibleChangesPerHour > kMaxChangesPerHour)
        why += format("; %.1f audible changes an hour", row.audibleChangesPerHour);
    const std::string where = row.machine + " / " + row.trace;
    out << format(
        "  %-34s %-12s %5.1f dB vs foresight %5.1f (%+.1f), over %3.0f s vs %3.0f s, "
        "%4.1f changes/h: %s%s\n",
        where.c_str(), row.controller.c_str(), row.meanDb, floor->meanDb, excessDb, row.overLimitS,
        floor->overLimitS, row.audibleChangesPerHour, why.empty() ? "MET" : "MISSED", why.c_str());
    return why.empty();
}

bool ReportWriter::checkAnticipation(std::ostream& out, const QualityRow& hybrid) const {
    const QualityRow* quiet = find(hybrid.machine, hybrid.trace, "quiet");
    if (!quiet || !isSustained(hybrid.trace)) return true;
    const bool met = hybrid.meanDb <= quiet->meanDb;
    const std::string where = hybrid.machine + " / " + hybrid.trace;
    out << format("  %-34s quietHybrid %5.1f dB vs quiet %5.1f dB: %s\n", where.c_str(),
                  hybrid.meanDb, quiet->meanDb, met ? "MET" : "MISSED");
    return met;
}

// A peer that crossed a limit bought its quiet with heat: the row says which limit instead.
bool ReportWriter::checkPeer(std::ostream& out, const QualityRow& hybrid,
                             const QualityRow& peer) const {
    const std::string where = hybrid.machine + " / " + hybrid.trace;
    if (peer.overLimitS > 0) {
        out << format(
            "  %-34s vs %-10s %s crossed the %s; quietHybrid %s: MET\n", where.c_str(),
            peer.controller.c_str(), peer.controller.c_str(), crossed(peer).c_str(),
            hybrid.overLimitS > 0 ? ("crossed the " + crossed(hybrid)).c_str() : "kept the limits");
        return true;
    }
    if (hybrid.overLimitS > 0) {
        out << format("  %-34s vs %-10s quietHybrid crossed the %s, %s kept the limits: MISSED\n",
                      where.c_str(), peer.controller.c_str(), crossed(hybrid).c_str(),
                      peer.controller.c_str());
        return false;
    }
    // Two rows at the fans' minimum speed all along tie: nothing is quieter than that.
    const bool tie = std::abs(hybrid.meanDb - peer.meanDb) < kTieDb;
    const bool met = tie || hybrid.meanDb < peer.meanDb;
    out << format("  %-34s vs %-10s %5.1f dB vs %5.1f dB (%+.1f)%s: %s\n", where.c_str(),
                  peer.controller.c_str(), hybrid.meanDb, peer.meanDb, hybrid.meanDb - peer.meanDb,
                  tie ? ", a tie" : "", met ? "MET" : "MISSED");
    return met;
}

// 99 % everywhere; where the firmware curve throttles, also five points above it. A firmware
// that keeps more than 95 % leaves no five points to win, and the line says so.
bool ReportWriter::checkRetention(std::ostream& out, const QualityRow& performance) const {
    const QualityRow* firmware = find(performance.machine, performance.trace, "firmware");
    std::string why;
    std::string note;
    if (performance.retention < kRetentionTarget)
        why += format("; under %.0f%%", kRetentionTarget * 100);
    if (firmware && firmware->throttledS > 0) {
        const double lead = performance.retention - firmware->retention;
        if (firmware->retention <= 1.0 - kRetentionLeadOverFirmware) {
            if (lead < kRetentionLeadOverFirmware - 1e-9)
                why += format("; only %.1f points above firmware", lead * 100);
        } else {
            note = "; firmware throttles but keeps over 95%";
        }
        note += format("; firmware %.2f%% (%+.1f points)", firmware->retention * 100, lead * 100);
    }
    const std::string where = performance.machine + " / " + performance.trace;
    out << format("  %-34s retention %6.2f%%%s: %s%s\n", where.c_str(), performance.retention * 100,
                  note.c_str(), why.empty() ? "MET" : "MISSED", why.c_str());
    return why.empty();
}

bool ReportWriter::printTargets(std::ostream& out) const {
    bool all = true;
    out << "quiet and quietHybrid: no second over the quiet limits where foresight has none, mean "
           "level at most 1.0 dB above foresight, at most 2 audible changes an hour\n";
    for (const char* mode : {"quiet", "quietHybrid"})
        for (const QualityRow* row : rowsOf(mode)) all = checkFloor(out, *row) && all;
    out << "quietHybrid: mean level at most quiet's on traces with sustained load\n";
    for (const QualityRow* row : rowsOf("quietHybrid")) all = checkAnticipation(out, *row) && all;
    out << "quietHybrid: quieter than what users run otherwise, or that one crossed a limit\n";
    for (const QualityRow* row : rowsOf("quietHybrid"))
        for (const char* name : kPeers)
            if (const QualityRow* peer = find(row->machine, row->trace, name))
                all = checkPeer(out, *row, *peer) && all;
    out << "performance: clock retention under load >= 99%, and 5 points above firmware where "
           "the firmware curve throttles\n";
    for (const QualityRow* row : rowsOf("performance")) all = checkRetention(out, *row) && all;
    return all;
}

}  // namespace kelvo::quality
