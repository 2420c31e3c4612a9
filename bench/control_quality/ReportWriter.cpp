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
// Foresight's levels are found to 10^-4 of the fan range: closer than this is the same level.
constexpr double kFloorTieDb = 0.01;
constexpr double kRetentionTarget = 0.99;
constexpr double kRetentionLeadOverFirmware = 0.05;
constexpr double kMinLightS = 60;  // fewer light seconds than this say nothing about light load
constexpr std::size_t kLaunchSeconds = 120;
// What a user would otherwise run: the machine's own curve and the Linux peers.
const char* const kPeers[] = {"firmware", "fancontrol", "thinkfan"};
const char* const kKelvoModes[] = {"quiet", "quietHybrid", "performance"};
const char* const kQuietModes[] = {"quiet", "quietHybrid"};
// Kelvo's quiet modes launched again on the profile they built on the machine, and the rows they
// are measured against.
const char* const kLearnedModes[][2] = {
    {"quiet-learned", "quiet"}, {"quietHybrid-learned", "quietHybrid"}, {"quiet-known", "quiet"}};
constexpr double kMixGainDb = 2.0;
constexpr double kSameAsOneDutyDb = 0.2;

// One fan, or fans all alike: no share of the work beats one duty.
bool nothingToShare(const QualityRow& row) {
    return row.fanNames.size() < 2 || row.fansAlike;
}

const char* verdict(bool pass) {
    return pass ? "PASS" : "FAIL";
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

const char* ReportWriter::fanCsvHeader() {
    return "machine,controller,trace,fan,name,mean_rpm,mean_db";
}

namespace {
// Each fan's mean speed, in the machine's order: where one duty drives every fan they move
// together; a controller that shares the work by what each fan cools shows it here.
std::string fanSpeeds(const QualityRow& row) {
    std::string text;
    for (double rpm : row.fanMeanRPM) text += (text.empty() ? "" : " ") + format("%.0f", rpm);
    return text;
}
}  // namespace

void ReportWriter::printTable(std::ostream& out) const {
    out << format("%-21s %-12s %-19s %7s %7s %8s %8s %8s %8s %8s %7s %7s %7s  %s\n", "machine",
                  "trace", "controller", "peak C", "p95 C", "over s", "throt s", "retain",
                  "mean rpm", "chg/h", "rpm sd", "mean dB", "peak dB", "each fan's mean rpm");
    std::string lastGroup;
    for (const auto& row : rows_) {
        std::string group = row.machine + row.trace;
        if (!lastGroup.empty() && group != lastGroup) out << '\n';
        lastGroup = group;
        out << format(
            "%-21s %-12s %-19s %7.1f %7.1f %8.0f %8.0f %7.2f%% %8.0f %8.1f %7.0f %7.1f %7.1f  %s\n",
            row.machine.c_str(), row.trace.c_str(), row.controller.c_str(), row.peakC, row.p95C,
            row.overLimitS, row.throttledS, row.retention * 100, row.meanRPM,
            row.audibleChangesPerHour, row.rpmSD, row.meanDb, row.peakDb, fanSpeeds(row).c_str());
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

bool ReportWriter::writeFanCsv(const std::string& path) const {
    std::ofstream file(path);
    if (!file) return false;
    file << fanCsvHeader() << '\n';
    for (const auto& row : rows_) {
        for (std::size_t i = 0; i < row.fanMeanRPM.size(); ++i) {
            const std::string quoted =
                csvQuoted(i < row.fanNames.size() ? row.fanNames[i] : std::string());
            file << format("%s,%s,%s,%zu,%s,%.1f,%.3f\n", row.machine.c_str(),
                           row.controller.c_str(), row.trace.c_str(), i + 1, quoted.c_str(),
                           row.fanMeanRPM[i], i < row.fanMeanDb.size() ? row.fanMeanDb[i] : 0.0);
        }
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

std::vector<std::pair<std::string, std::string>> ReportWriter::runs() const {
    std::vector<std::pair<std::string, std::string>> runs;
    for (const auto& row : rows_) {
        std::pair<std::string, std::string> run{row.machine, row.trace};
        if (std::find(runs.begin(), runs.end(), run) == runs.end()) runs.push_back(run);
    }
    return runs;
}

// Foresight knows the whole trace and the exact plant: no controller that keeps the limits can be
// quieter. A row that is names itself: either the floor or that row's run is wrong.
bool ReportWriter::checkForesightFloor(std::ostream& out, const std::string& machine,
                                       const std::string& trace) const {
    const QualityRow* floor = find(machine, trace, "foresight");
    if (!floor) return true;
    const std::string where = machine + " / " + trace;
    bool pass = true;
    int kept = 0;
    for (const auto& row : rows_) {
        if (row.machine != machine || row.trace != trace || &row == floor) continue;
        if (row.overLimitS > 0) continue;
        ++kept;
        if (row.meanDb < floor->meanDb - kFloorTieDb) {
            pass = false;
            out << format(
                "  %-34s FAIL floor check: %s %.2f dB keeps the limits, quieter than "
                "foresight %.2f dB\n",
                where.c_str(), row.controller.c_str(), row.meanDb, floor->meanDb);
        }
    }
    if (pass)
        out << format(
            "  %-34s foresight %5.1f dB, over %3.0f s; %d rows keep the limits, none "
            "quieter: PASS\n",
            where.c_str(), floor->meanDb, floor->overLimitS, kept);
    return pass;
}

// What a light-load failure is measured against: a firmware that sits at its floor through the
// light seconds may pay for it later over the limits, and the quietest plan found under the limits
// may spend more over those same seconds to keep them (it is the quietest over the whole trace,
// not over these seconds). Said beside the verdict, which it does not change.
std::string ReportWriter::lightContext(const QualityRow& firmware) const {
    std::string context;
    const QualityRow* floor = find(firmware.machine, firmware.trace, "foresight");
    if (floor && floor->overLimitS == 0 && floor->lightS >= kMinLightS &&
        floor->lightMeanDb - firmware.lightMeanDb >= kTieDb)
        context += format("; foresight, under the limits, is %+.2f dB over it there too",
                          floor->lightMeanDb - firmware.lightMeanDb);
    if (firmware.overLimitS > 0)
        context += format("; the firmware crosses the limits on this trace (%s)",
                          crossed(firmware).c_str());
    return context;
}

bool ReportWriter::checkLight(std::ostream& out, const QualityRow& row) const {
    const QualityRow* firmware = find(row.machine, row.trace, "firmware");
    if (!firmware) return true;
    const std::string where = row.machine + " / " + row.trace;
    if (row.lightS < kMinLightS) {
        out << format("  %-34s %-12s n/a: %.0f s of light load\n", where.c_str(),
                      row.controller.c_str(), row.lightS);
        return true;
    }
    const double excess = row.lightMeanDb - firmware->lightMeanDb;
    const bool pass = excess < kTieDb;
    out << format("  %-34s %-12s %5.1f dB vs firmware %5.1f dB (%+.2f) over %.0f light s: %s%s\n",
                  where.c_str(), row.controller.c_str(), row.lightMeanDb, firmware->lightMeanDb,
                  excess, row.lightS, verdict(pass), pass ? "" : lightContext(*firmware).c_str());
    return pass;
}

// The limits wherever the floor keeps them, and noise within a decibel of it.
bool ReportWriter::checkFloor(std::ostream& out, const QualityRow& row) const {
    const QualityRow* floor = find(row.machine, row.trace, "foresight");
    if (!floor) return true;
    std::string why;
    if (floor->overLimitS == 0 && row.overLimitS > 0)
        why += format("; over the limits (%s) where foresight keeps them", crossed(row).c_str());
    const double excessDb = row.meanDb - floor->meanDb;
    if (excessDb > kFloorSlackDb) why += format("; %.1f dB above foresight", excessDb);
    const std::string where = row.machine + " / " + row.trace;
    out << format(
        "  %-34s %-12s %5.1f dB vs foresight %5.1f (%+.1f), over %3.0f s vs %3.0f s: "
        "%s%s\n",
        where.c_str(), row.controller.c_str(), row.meanDb, floor->meanDb, excessDb, row.overLimitS,
        floor->overLimitS, verdict(why.empty()), why.c_str());
    return why.empty();
}

// A failure says what the quietest plan cost once held to the quiet ramp: where that is little,
// the level and the count do not pull against each other for a controller that knows what comes,
// and what this row paid is for not knowing it. Said beside the verdict, which it does not change.
bool ReportWriter::checkChanges(std::ostream& out, const QualityRow& row) const {
    const bool pass = row.audibleChangesPerHour <= kMaxChangesPerHour + 1e-9;
    const std::string where = row.machine + " / " + row.trace;
    std::string context;
    const QualityRow* floor = find(row.machine, row.trace, "foresight");
    const QualityRow* unheard = find(row.machine, row.trace, "foresight-unheard");
    if (!pass && floor && unheard)
        context =
            format("; foresight held to the quiet ramp: %.1f an hour, %+.2f dB over foresight",
                   unheard->audibleChangesPerHour, unheard->meanDb - floor->meanDb);
    out << format("  %-34s %-12s %4.1f audible changes an hour: %s%s\n", where.c_str(),
                  row.controller.c_str(), row.audibleChangesPerHour, verdict(pass),
                  context.c_str());
    return pass;
}

// On a machine with fans that differ, under sustained load: quieter by kMixGainDb than every
// controller that drives all fans with one duty (Kelvo's quiet mode with the sharing turned off,
// its modes from a fresh profile where they did not share the work within the trace, the
// firmware, the baselines) and keeps the limits as well. With one fan, or fans all alike, where no
// share of the work beats one duty: the same as `fresh`, the launch it is held to.
bool ReportWriter::checkMix(std::ostream& out, const QualityRow& row,
                            const std::string& fresh) const {
    const std::string where = row.machine + " / " + row.trace;
    if (nothingToShare(row)) {
        const QualityRow* same = find(row.machine, row.trace, fresh);
        if (!same) return true;
        const bool pass = std::abs(row.meanDb - same->meanDb) <= kSameAsOneDutyDb;
        out << format("  %-34s %-19s %5.2f dB vs %s %5.2f (%s): %s\n", where.c_str(),
                      row.controller.c_str(), row.meanDb, fresh.c_str(), same->meanDb,
                      row.fansAlike ? "alike fans" : "one fan", verdict(pass));
        return pass;
    }
    if (!row.sustainedLoad) {
        out << format("  %-34s %-19s n/a: no sustained load\n", where.c_str(),
                      row.controller.c_str());
        return true;
    }
    const QualityRow* best = nullptr;
    for (const QualityRow& other : rows_) {
        if (other.machine != row.machine || other.trace != row.trace) continue;
        if (other.controller.starts_with("foresight") || other.controller.ends_with("-learned") ||
            other.controller.ends_with("-known") || other.sharedS > 0)
            continue;
        if (other.overLimitS > row.overLimitS) continue;
        if (!best || other.meanDb < best->meanDb) best = &other;
    }
    if (!best) {
        out << format("  %-34s %-19s n/a: every one-duty controller crossed more\n", where.c_str(),
                      row.controller.c_str());
        return true;
    }
    const double gain = best->meanDb - row.meanDb;
    const bool pass = gain >= kMixGainDb - 1e-9;
    // Where the floor, which plans each fan on its own knowing the future, is not that much
    // quieter either, no controller can pass: said, so a failure there is read as the target's.
    std::string why;
    const QualityRow* floor = find(row.machine, row.trace, "foresight");
    if (!pass && floor && best->meanDb - floor->meanDb < kMixGainDb - 1e-9)
        why = format("; foresight itself is only %.2f dB quieter: no controller can pass",
                     best->meanDb - floor->meanDb);
    out << format("  %-34s %-19s %5.2f dB vs %s %5.2f (%.2f dB quieter), over %3.0f s: %s%s\n",
                  where.c_str(), row.controller.c_str(), row.meanDb, best->controller.c_str(),
                  best->meanDb, gain, row.overLimitS, verdict(pass), why.c_str());
    return pass;
}

bool ReportWriter::checkAnticipation(std::ostream& out, const QualityRow& hybrid) const {
    const QualityRow* quiet = find(hybrid.machine, hybrid.trace, "quiet");
    if (!quiet) return true;
    const std::string where = hybrid.machine + " / " + hybrid.trace;
    if (!hybrid.sustainedLoad) {
        out << format("  %-34s n/a: no sustained load\n", where.c_str());
        return true;
    }
    const bool pass = hybrid.meanDb <= quiet->meanDb;
    out << format("  %-34s quietHybrid %5.2f dB vs quiet %5.2f dB: %s\n", where.c_str(),
                  hybrid.meanDb, quiet->meanDb, verdict(pass));
    return pass;
}

// A fresh launch must not be the moment Kelvo is heard: second by second against the firmware.
bool ReportWriter::checkLaunch(std::ostream& out, const QualityRow& row) const {
    const QualityRow* firmware = find(row.machine, row.trace, "firmware");
    if (!firmware) return true;
    const std::size_t seconds =
        std::min({kLaunchSeconds, row.secondDb.size(), firmware->secondDb.size()});
    int louder = 0;
    double worst = 0;
    std::size_t worstAt = 0;
    for (std::size_t i = 0; i < seconds; ++i) {
        const double excess = row.secondDb[i] - firmware->secondDb[i];
        if (excess >= kTieDb) ++louder;
        if (excess > worst) {
            worst = excess;
            worstAt = i + 1;
        }
    }
    const std::string where = row.machine + " / " + row.trace;
    std::string detail =
        louder > 0 ? format("; %d s louder, most %+.1f dB at second %zu", louder, worst, worstAt)
                   : std::string();
    out << format("  %-34s %-12s first %zu s: %s%s\n", where.c_str(), row.controller.c_str(),
                  seconds, verdict(louder == 0), detail.c_str());
    return louder == 0;
}

// A peer that crossed a limit bought its quiet with heat: the row says which limit instead.
bool ReportWriter::checkPeer(std::ostream& out, const QualityRow& hybrid,
                             const QualityRow& peer) const {
    const std::string where = hybrid.machine + " / " + hybrid.trace;
    if (peer.overLimitS > 0) {
        out << format(
            "  %-34s vs %-10s %s crossed the %s; quietHybrid %s: PASS\n", where.c_str(),
            peer.controller.c_str(), peer.controller.c_str(), crossed(peer).c_str(),
            hybrid.overLimitS > 0 ? ("crossed the " + crossed(hybrid)).c_str() : "kept the limits");
        return true;
    }
    if (hybrid.overLimitS > 0) {
        out << format("  %-34s vs %-10s quietHybrid crossed the %s, %s kept the limits: FAIL\n",
                      where.c_str(), peer.controller.c_str(), crossed(hybrid).c_str(),
                      peer.controller.c_str());
        return false;
    }
    // Two rows at the fans' minimum speed all along tie: nothing is quieter than that.
    const bool tie = std::abs(hybrid.meanDb - peer.meanDb) < kTieDb;
    const bool pass = tie || hybrid.meanDb < peer.meanDb;
    out << format("  %-34s vs %-10s %5.1f dB vs %5.1f dB (%+.1f)%s: %s\n", where.c_str(),
                  peer.controller.c_str(), hybrid.meanDb, peer.meanDb, hybrid.meanDb - peer.meanDb,
                  tie ? ", a tie" : "", verdict(pass));
    return pass;
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
                  note.c_str(), verdict(why.empty()), why.c_str());
    return why.empty();
}

bool ReportWriter::printTargets(std::ostream& out) const {
    bool all = true;
    const auto machineTraces = runs();
    auto each = [&](const char* controller, auto check) {
        for (const auto& [machine, trace] : machineTraces)
            if (const QualityRow* row = find(machine, trace, controller))
                all = (this->*check)(out, *row) && all;
    };
    out << "foresight floor: no row that keeps the limits is quieter than foresight\n";
    for (const auto& [machine, trace] : machineTraces)
        all = checkForesightFloor(out, machine, trace) && all;
    out << "quiet and quietHybrid at idle and light load (seconds where each device's load, "
           "averaged over the 3 minutes centred on them and over the 5 minutes up to them, is "
           "under 40 %): mean level over them at most firmware's\n";
    for (const char* mode : kQuietModes) each(mode, &ReportWriter::checkLight);
    out << "quiet and quietHybrid: no second over the quiet limits where foresight has none, mean "
           "level at most 1.0 dB above foresight\n";
    for (const char* mode : kQuietModes) each(mode, &ReportWriter::checkFloor);
    for (const auto& [learned, fresh] : kLearnedModes) each(learned, &ReportWriter::checkFloor);
    out << "quiet and quietHybrid: at most 2 audible changes an hour (a fan's own level moving "
           "3 dB within 5 s, counted again once it has settled; the busiest fan)\n";
    for (const char* mode : kQuietModes) each(mode, &ReportWriter::checkChanges);
    for (const auto& [learned, fresh] : kLearnedModes) each(learned, &ReportWriter::checkChanges);
    out << "quiet and quietHybrid on the profile they built (learned), and quiet with the "
           "machine file's coupling (known, a reference): with fans that differ, "
           "under sustained load, at least 2 dB quieter than the quietest one-duty controller "
           "over the limits no longer; with one fan or fans all alike, within 0.2 dB of the "
           "fresh launch, and the fresh launch within 0.2 dB of the same launch with the sharing "
           "turned off\n";
    for (const auto& [learned, fresh] : kLearnedModes)
        for (const QualityRow* row : rowsOf(learned)) all = checkMix(out, *row, fresh) && all;
    // What the sharing costs a fresh launch where it cannot gain (its probes, its first plans) is
    // seen only against the launch without it: the learned rows differ from the fresh one by all
    // else a profile holds as well.
    for (const QualityRow* row : rowsOf("quiet"))
        if (nothingToShare(*row)) all = checkMix(out, *row, "quiet-one-duty") && all;
    out << "quietHybrid: mean level at most quiet's on traces with sustained load (either device "
           ">= 50 % for 2 minutes, dips of up to 10 s allowed)\n";
    each("quietHybrid", &ReportWriter::checkAnticipation);
    out << "Kelvo's modes after a fresh launch: none of the first 120 s louder than firmware's "
           "same second (by 0.05 dB or more)\n";
    for (const char* mode : kKelvoModes) each(mode, &ReportWriter::checkLaunch);
    out << "quietHybrid: quieter than what users run otherwise, or that one crossed a limit\n";
    for (const QualityRow* row : rowsOf("quietHybrid"))
        for (const char* name : kPeers)
            if (const QualityRow* peer = find(row->machine, row->trace, name))
                all = checkPeer(out, *row, *peer) && all;
    out << "performance: clock retention under load >= 99%, and 5 points above firmware where "
           "the firmware curve throttles\n";
    each("performance", &ReportWriter::checkRetention);
    return all;
}

std::string csvQuoted(const std::string& text) {
    std::string quoted = "\"";
    for (char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + '"';
}

}  // namespace kelvo::quality
