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
// A thin laptop with a 45 W APU whose quiet-first firmware lets the die sit at its junction limit
// and shed clock; full-speed blowers would hold it near 85 °C.
MachineProfile thinLaptop45W();
// A desktop with a 220 W graphics card and a hot-running 89 °C processor, its fans on a curve
// tuned for silence: under sustained load both dies sit at their throttle points.
MachineProfile desktopSilentGpu();
// Fans that stand still when cool, stopped by the board's firmware (fan stop).
MachineProfile desktopFanStop();
// Three fans with different ranges and sound: a cooler fan, a slow 200 mm fan, a loud 92 mm one.
MachineProfile desktopUnequalFans();
// A sink per die and fans that each cool mostly one: a tower cooler's fan, a graphics card's
// fans and case fans.
MachineProfile desktopCoolerGpuCase();
// A gaming laptop: a blower and a fin stack for each die, joined by a shared heat pipe.
MachineProfile laptopTwoBlowers();
std::vector<MachineProfile> standardMachines();

}  // namespace kelvo::quality
