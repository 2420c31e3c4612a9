#include "CouplingReport.h"

#include "ReportWriter.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>

namespace kelvo::quality {

namespace {
double weightOf(const sim::PlantConfig& plant, std::size_t fan, sim::Die die) {
    if (!plant.splitsSinks()) return 1;
    return die == sim::Die::cpu ? plant.fans[fan].cpuCooling : plant.fans[fan].gpuCooling;
}

std::string shareText(const std::optional<double>& share) {
    if (!share) return "  -  ";
    char text[16];
    std::snprintf(text, sizeof text, "%5.2f", *share);
    return text;
}

}  // namespace

double fileShare(const sim::PlantConfig& plant, std::size_t fan, sim::Die die) {
    double total = 0;
    for (std::size_t i = 0; i < plant.fans.size(); ++i) total += weightOf(plant, i, die);
    return total > 0 ? weightOf(plant, fan, die) / total : 0;
}

std::optional<double> worstShareGap(const CouplingRow& row) {
    double worst = 0;
    for (std::size_t i = 0; i < row.learned.size() && i < row.plant.fans.size(); ++i) {
        for (sim::Die die : {sim::Die::cpu, sim::Die::gpu}) {
            const auto& share =
                die == sim::Die::cpu ? row.learned[i].cpuShare : row.learned[i].gpuShare;
            if (!share) return std::nullopt;
            worst = std::max(worst, std::abs(*share - fileShare(row.plant, i, die)));
        }
    }
    return worst;
}

void printCouplingTable(std::ostream& out, const std::vector<CouplingRow>& rows) {
    out << "Fan cooling Kelvo measured: each fan's share of a die's fan cooling per rpm, learned"
           " (file)\n";
    char line[256];
    for (const auto& row : rows) {
        const auto gap = worstShareGap(row);
        std::snprintf(line, sizeof line, "%-24s %-12s %-15s largest gap %s\n", row.machine.c_str(),
                      row.controller.c_str(), row.trace.c_str(),
                      gap ? shareText(gap).c_str() : "unknown");
        out << line;
        for (std::size_t i = 0; i < row.learned.size() && i < row.plant.fans.size(); ++i) {
            const FanCoupling& c = row.learned[i];
            std::snprintf(
                line, sizeof line,
                "    %-22s CPU %s (%5.2f)  GPU %s (%5.2f)  sure %3.0f %%  probes %d  %s\n",
                row.plant.fans[i].name.c_str(), shareText(c.cpuShare).c_str(),
                fileShare(row.plant, i, sim::Die::cpu), shareText(c.gpuShare).c_str(),
                fileShare(row.plant, i, sim::Die::gpu), 100 * c.confidence, c.probes,
                coolsMostly(c).empty() ? "" : ("cools mostly: " + coolsMostly(c)).c_str());
            out << line;
        }
    }
}

std::vector<LearningSummary> summarizeLearning(const std::vector<SeededRow>& runs, double line) {
    std::vector<LearningSummary> out;
    for (const auto& [seed, row] : runs) {
        auto it = std::find_if(out.begin(), out.end(), [&](const LearningSummary& s) {
            return s.machine == row.machine && s.trace == row.trace;
        });
        if (it == out.end()) it = out.insert(out.end(), {row.machine, row.trace});
        const auto known = worstShareGap(row);
        const double gap = known.value_or(1.0);
        it->unknown += known ? 0 : 1;
        it->within += gap <= line + 1e-12 ? 1 : 0;
        if (it->seeds == 0 || gap > it->worstGap) {
            it->worstGap = gap;
            it->worstSeed = seed;
        }
        it->meanGap += (gap - it->meanGap) / ++it->seeds;
    }
    return out;
}

void printLearningSummary(std::ostream& out, const std::vector<LearningSummary>& summaries,
                          double line) {
    char text[256];
    std::snprintf(text, sizeof text,
                  "Learned against the machine file, over seeds: the largest gap between a learned"
                  " share and the file's (unknown counted as 1), and the seeds within %.2f\n",
                  line);
    out << text;
    for (const auto& s : summaries) {
        std::snprintf(text, sizeof text,
                      "%-24s %-16s mean gap %5.2f  within %.2f: %3d of %3d  worst %5.2f (seed "
                      "%llu)%s\n",
                      s.machine.c_str(), s.trace.c_str(), s.meanGap, line, s.within, s.seeds,
                      s.worstGap, static_cast<unsigned long long>(s.worstSeed),
                      s.unknown ? ("  unknown on " + std::to_string(s.unknown)).c_str() : "");
        out << text;
    }
}

LoadTrace mixedUse(const std::vector<LoadTrace>& traces, int seconds) {
    LoadTrace out("mixed-use-" + std::to_string(seconds / 60) + "min");
    for (std::size_t i = 0; out.seconds() < seconds && !traces.empty(); ++i) {
        const LoadTrace& trace = traces[i % traces.size()];
        for (int s = 0; s < trace.seconds() && out.seconds() < seconds; ++s)
            out.hold(1, trace.at(s));
    }
    return out;
}

bool writeCouplingCsv(const std::string& path, const std::vector<CouplingRow>& rows) {
    std::ofstream file(path);
    file << "machine,controller,trace,fan,name,die,learned_share,file_share,confidence,probes\n";
    for (const auto& row : rows)
        for (std::size_t i = 0; i < row.learned.size() && i < row.plant.fans.size(); ++i)
            for (sim::Die die : {sim::Die::cpu, sim::Die::gpu}) {
                const FanCoupling& c = row.learned[i];
                const auto& share = die == sim::Die::cpu ? c.cpuShare : c.gpuShare;
                file << row.machine << ',' << row.controller << ',' << row.trace << ',' << i + 1
                     << ',' << csvQuoted(row.plant.fans[i].name) << ','
                     << (die == sim::Die::cpu ? "cpu" : "gpu") << ','
                     << (share ? std::to_string(*share) : std::string()) << ','
                     << fileShare(row.plant, i, die) << ',' << c.confidence << ',' << c.probes
                     << '\n';
            }
    return static_cast<bool>(file);
}

}  // namespace kelvo::quality
