// What a listener hears from a machine's fans: each fan follows the fan law,
// L = soundRefDb + 50·log10(rpm / soundRefRPM), and the fans add up as sound power.
#pragma once

#include <vector>

#include "foundation/sim/ThermalPlant.h"

namespace kelvo::quality {

// Sound power of all fans together, relative to 0 dB (so 10^(L/10)); a fan that stands still
// adds nothing, and a total under the threshold of hearing (0 dB) counts as 0 dB, so the result
// is at least 1. This is the quantity that averages and sums: a mean level is 10·log10 of its
// mean.
double soundPower(const sim::PlantConfig& plant, const std::vector<double>& rpm);

// The fans' sound power before that floor: below the threshold of hearing it still tells two
// quiet settings apart.
using sim::fanSoundPower;

// The same as a level in dB(A).
double soundLevelDb(const sim::PlantConfig& plant, const std::vector<double>& rpm);

// 10·log10 of a sound power, at least 0 dB.
double levelOfPower(double power);

}  // namespace kelvo::quality
