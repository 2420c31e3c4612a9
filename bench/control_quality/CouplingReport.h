// What Kelvo measured of which die each fan cools, beside what the machine file says: one line
// per Kelvo run on a machine with more than one fan.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "LoadTrace.h"
#include "foundation/core/FanCoupling.h"
#include "foundation/sim/ThermalPlant.h"

namespace kelvo::quality {

struct CouplingRow {
    std::string machine;
    std::string controller;
    std::string trace;
    sim::PlantConfig plant;
    std::vector<FanCoupling> learned;  // in the machine's fan order
};

// The machine file's share of a die's fan cooling per rpm for one fan: its weight over the sum
// of the fans' weights, or an equal share on a machine with one shared sink.
double fileShare(const sim::PlantConfig& plant, std::size_t fan, sim::Die die);

// The largest gap between a learned share and the file's, over the row's fans and both dies;
// none while any share is unknown.
std::optional<double> worstShareGap(const CouplingRow& row);

void printCouplingTable(std::ostream& out, const std::vector<CouplingRow>& rows);

// How well one machine had learned its fans after one length of use, over several draws of the
// traces and the machine's noise (seeds): one draw lands the probes elsewhere and moves the
// largest gap by tenths either way, so a single seed says little.
struct LearningSummary {
    std::string machine;
    std::string trace;
    int seeds = 0;
    int unknown = 0;      // seeds where some share was still unknown (counted as a gap of 1)
    double meanGap = 0;   // the mean largest gap
    int within = 0;       // seeds with the largest gap at most `line`
    double worstGap = 0;  // and the seed that had it
    std::uint64_t worstSeed = 0;
};
struct SeededRow {
    std::uint64_t seed = 0;
    CouplingRow row;
};
std::vector<LearningSummary> summarizeLearning(const std::vector<SeededRow>& runs, double line);
void printLearningSummary(std::ostream& out, const std::vector<LearningSummary>& summaries,
                          double line);

// Long use of a machine, for learning: `traces` played one after another, over again, for
// `seconds`.
LoadTrace mixedUse(const std::vector<LoadTrace>& traces, int seconds);
bool writeCouplingCsv(const std::string& path, const std::vector<CouplingRow>& rows);

}  // namespace kelvo::quality
