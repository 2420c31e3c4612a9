#include "MachineProfile.h"

namespace kelvo::quality {

MachineProfile thinLaptop() {
    sim::PlantConfig p;
    p.cpuIdlePowerW = 3;
    p.cpuFullLoadPowerW = 35;
    p.cpuMaxClockMHz = 4400;
    p.cpuBaseClockMHz = 1800;
    p.cpuLimitC = 95;
    p.cpuHeatCapacityJPerK = 2;
    p.cpuToSinkWPerK = 2.0;
    p.gpuIdlePowerW = 2;
    p.gpuFullLoadPowerW = 30;
    p.gpuMaxClockMHz = 1500;
    p.gpuBaseClockMHz = 600;
    p.gpuReferenceMaxClockMHz = 1500;
    p.gpuLimitC = 90;
    p.gpuHeatCapacityJPerK = 3;
    p.gpuToSinkWPerK = 2.5;
    p.sinkHeatCapacityJPerK = 90;
    p.sinkPassiveWPerK = 0.15;
    p.sinkAirflowWPerK = 2.4;
    p.airflowReferenceRPM = 6000;
    p.platformPowerW = 3;
    p.fanPowerAtMaxW = 1.5;
    // A small blower: barely heard at its floor, loud at full speed.
    p.fans = {{"Laptop fan", 2000, 6000, 45, 6000}};
    p.fanTimeConstantS = 1.0;
    return {"thin-laptop", p};
}

MachineProfile desktopLargeCooler() {
    sim::PlantConfig p;
    p.cpuIdlePowerW = 12;
    p.cpuFullLoadPowerW = 125;
    p.cpuMaxClockMHz = 5000;
    p.cpuBaseClockMHz = 3000;
    p.cpuLimitC = 95;
    p.cpuHeatCapacityJPerK = 8;
    p.cpuToSinkWPerK = 8;
    p.gpuIdlePowerW = 15;
    p.gpuFullLoadPowerW = 120;
    p.gpuMaxClockMHz = 2500;
    p.gpuBaseClockMHz = 1200;
    p.gpuReferenceMaxClockMHz = 2500;
    p.gpuLimitC = 90;
    p.gpuHeatCapacityJPerK = 12;
    p.gpuToSinkWPerK = 10;
    p.sinkHeatCapacityJPerK = 700;
    p.sinkPassiveWPerK = 0.5;
    p.sinkAirflowWPerK = 6.0;
    p.airflowReferenceRPM = 1500;
    p.platformPowerW = 20;
    p.fanPowerAtMaxW = 3;
    // 140 mm fans; those on the cooler a little louder, as they push air through dense fins.
    p.fans = {{"Cooler fan 1", 300, 1500, 30, 1500},
              {"Cooler fan 2", 300, 1500, 30, 1500},
              {"Case fan", 300, 1500, 29, 1500}};
    p.fanTimeConstantS = 2.0;
    p.fanSlewRPMPerS = 800;
    return {"desktop-large-cooler", p};
}

MachineProfile hotThinLaptop() {
    MachineProfile machine = thinLaptop();
    machine.name = "thin-laptop-hot";
    machine.plant.ambientC = 35;
    machine.plant.sinkAirflowWPerK = 1.25;  // dust in the fins
    return machine;
}

// Its fans keep FanConfig's default sound reference: about 19 dB(A) at their 1200 rpm floor and 52
// at their 5400 rpm top, as loud as fast fans in a compact case get.
MachineProfile simulatedDefault() {
    return {"sim-default", sim::PlantConfig{}};
}

std::vector<MachineProfile> standardMachines() {
    return {thinLaptop(), hotThinLaptop(), desktopLargeCooler(), simulatedDefault()};
}

}  // namespace kelvo::quality
