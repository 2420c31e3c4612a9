// The quietest mix of fan speeds for a simulated machine, with its true coupling and loudness:
// what the floor plans with.
#pragma once

#include "foundation/control/QuietestMix.h"
#include "foundation/sim/ThermalPlant.h"

namespace kelvo::quality {

QuietestMix quietestMixFor(const sim::PlantConfig& plant);

}  // namespace kelvo::quality
