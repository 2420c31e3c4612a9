// The simulated machines the controllers are judged on.
#pragma once

#include <string>
#include <vector>

#include "foundation/sim/ThermalPlant.h"

namespace kelvo::quality {

struct MachineProfile {
    std::string name;
    sim::PlantConfig plant;
};

// A thin laptop: little thermal mass, one small fast fan, a heatsink that needs airflow.
MachineProfile thinLaptop();
// The same laptop in a 35 °C room with a partly clogged heatsink: at its thermal edge.
MachineProfile hotThinLaptop();
// A desktop with a large tower cooler: big slow fans, a heavy sink, much more power.
MachineProfile desktopLargeCooler();
// The machine `kelvo --harness-simulated-fans` runs on: a compact desktop, two fans.
MachineProfile simulatedDefault();
std::vector<MachineProfile> standardMachines();

}  // namespace kelvo::quality
