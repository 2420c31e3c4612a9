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

MachineProfile thinLaptop45W() {
    sim::PlantConfig p;
    p.logicalCpus = 16;
    // A 45 W APU: eight cores, and integrated graphics on the same package that can draw 20 W of
    // their own. At the deepest droop the clock falls to the droop scale times its maximum.
    p.cpuIdlePowerW = 4;
    p.cpuFullLoadPowerW = 45;
    p.cpuMaxClockMHz = 4800;
    p.cpuBaseClockMHz = 1700;
    p.cpuLimitC = 100;
    p.cpuHeatCapacityJPerK = 3;
    p.cpuToSinkWPerK = 2.5;
    p.gpuIdlePowerW = 1;
    p.gpuFullLoadPowerW = 20;
    p.gpuMaxClockMHz = 2200;
    p.gpuBaseClockMHz = 770;
    p.gpuReferenceMaxClockMHz = 2200;
    p.gpuLimitC = 100;  // the same silicon as the cores
    p.gpuHeatCapacityJPerK = 3;
    p.gpuToSinkWPerK = 1.5;
    // Two heat pipes into two small fin stacks: light, and nearly useless without airflow.
    p.sinkHeatCapacityJPerK = 60;
    p.sinkPassiveWPerK = 0.2;
    p.sinkAirflowWPerK = 1.3;
    p.airflowReferenceRPM = 6000;
    p.platformPowerW = 4;
    p.fanPowerAtMaxW = 1.2;
    // Two small blowers, together as loud at full speed as thin-laptop's one.
    p.fans = {{"CPU-side blower", 1800, 6000, 42, 6000}, {"GPU-side blower", 1800, 6000, 42, 6000}};
    p.fanTimeConstantS = 1.0;
    // A quiet-first EC: the blowers stay at their floor until the die is nearly at its junction
    // limit, and the ramp after that is shallow. Under sustained load the die sits at 100 °C and
    // sheds clock while the blowers turn about 2400 rpm; at full speed they would hold it near
    // 85 °C.
    p.firmwareMinUntilC = 95;
    p.firmwareMaxAtC = 130;
    return {"thin-laptop-45w", p};
}

MachineProfile desktopSilentGpu() {
    sim::PlantConfig p;
    p.logicalCpus = 32;
    // Sixteen cores with stacked cache: the extra layer makes the die run hot for its power, and
    // the part throttles at 89 °C.
    p.cpuIdlePowerW = 25;
    p.cpuFullLoadPowerW = 150;
    p.cpuMaxClockMHz = 5000;
    p.cpuBaseClockMHz = 1750;
    p.cpuLimitC = 89;
    p.cpuHeatCapacityJPerK = 12;
    p.cpuToSinkWPerK = 5;
    // A 220 W graphics card whose clocks step down from 87 °C.
    p.gpuIdlePowerW = 15;
    p.gpuFullLoadPowerW = 220;
    p.gpuMaxClockMHz = 2600;
    p.gpuBaseClockMHz = 900;
    p.gpuReferenceMaxClockMHz = 2600;
    p.gpuLimitC = 87;
    p.gpuHeatCapacityJPerK = 40;
    p.gpuToSinkWPerK = 11;
    // The tower cooler, the card's cooler and the case air as one sink.
    p.sinkHeatCapacityJPerK = 450;
    p.sinkPassiveWPerK = 0.8;
    p.sinkAirflowWPerK = 11;
    p.airflowReferenceRPM = 2000;
    p.platformPowerW = 25;
    p.fanPowerAtMaxW = 3;
    // The card's axial fans on one output are the loudest at full speed; 140 mm fans elsewhere.
    p.fans = {{"Graphics card fans", 800, 3000, 44, 3000},
              {"CPU cooler fan", 400, 1500, 30, 1500},
              {"Case fans", 400, 1500, 29, 1500}};
    p.fanTimeConstantS = 2.0;
    p.fanSlewRPMPerS = 800;
    // Tuned for silence: the fans stay at their floor until the hotter die reaches 85 °C and
    // would reach full speed only at 110 °C. Under sustained load the loaded die sits at its
    // throttle point and sheds clock while the fans run a little over their floor; at full speed
    // they would hold both dies under 86 °C.
    p.firmwareMinUntilC = 85;
    p.firmwareMaxAtC = 110;
    return {"desktop-silent-gpu", p};
}

MachineProfile desktopFanStop() {
    sim::PlantConfig p;
    p.logicalCpus = 12;
    // A mid-range desktop that idles cool: a 90 W processor and a 150 W card that both sip power
    // at rest, under a big tower cooler in an open case that sheds their idle heat without air.
    p.cpuIdlePowerW = 7;
    p.cpuFullLoadPowerW = 90;
    p.cpuMaxClockMHz = 4700;
    p.cpuBaseClockMHz = 2600;
    p.cpuLimitC = 95;
    p.cpuHeatCapacityJPerK = 6;
    p.cpuToSinkWPerK = 6;
    p.gpuIdlePowerW = 6;
    p.gpuFullLoadPowerW = 150;
    p.gpuMaxClockMHz = 2400;
    p.gpuBaseClockMHz = 1000;
    p.gpuReferenceMaxClockMHz = 2400;
    p.gpuLimitC = 90;
    p.gpuHeatCapacityJPerK = 20;
    p.gpuToSinkWPerK = 9;
    p.sinkHeatCapacityJPerK = 600;
    p.sinkPassiveWPerK = 0.9;
    p.sinkAirflowWPerK = 8;
    p.airflowReferenceRPM = 1800;
    p.platformPowerW = 15;
    p.fanPowerAtMaxW = 2.5;
    // 120 and 140 mm fans that stop: they stand still below 20 % duty and need 30 % to start.
    sim::FanConfig cooler{"CPU cooler fan", 450, 1800, 31, 1800};
    cooler.stopBelowDuty = 51;
    cooler.startDuty = 77;
    sim::FanConfig front{"Front case fan", 400, 1500, 29, 1500};
    front.stopBelowDuty = 51;
    front.startDuty = 77;
    sim::FanConfig rear{"Rear case fan", 400, 1500, 29, 1500};
    rear.stopBelowDuty = 51;
    rear.startDuty = 77;
    p.fans = {cooler, front, rear};
    p.fanTimeConstantS = 2.0;
    p.fanSlewRPMPerS = 900;
    // The board's fan stop: the fans stand still while the hotter die is under 50 °C and start
    // again at 56 °C; turning, they follow the usual curve.
    p.firmwareStopBelowC = 50;
    p.firmwareStopHysteresisC = 6;
    p.firmwareMinUntilC = 56;
    p.firmwareMaxAtC = 88;
    return {"desktop-fan-stop", p};
}

MachineProfile desktopUnequalFans() {
    sim::PlantConfig p;
    p.logicalCpus = 16;
    p.cpuIdlePowerW = 10;
    p.cpuFullLoadPowerW = 105;
    p.cpuMaxClockMHz = 4900;
    p.cpuBaseClockMHz = 2800;
    p.cpuLimitC = 95;
    p.cpuHeatCapacityJPerK = 7;
    p.cpuToSinkWPerK = 7;
    p.gpuIdlePowerW = 10;
    p.gpuFullLoadPowerW = 110;
    p.gpuMaxClockMHz = 2200;
    p.gpuBaseClockMHz = 1000;
    p.gpuReferenceMaxClockMHz = 2200;
    p.gpuLimitC = 88;
    p.gpuHeatCapacityJPerK = 12;
    p.gpuToSinkWPerK = 8;
    p.sinkHeatCapacityJPerK = 500;
    p.sinkPassiveWPerK = 0.6;
    p.sinkAirflowWPerK = 7;
    p.airflowReferenceRPM = 2200;
    p.platformPowerW = 18;
    p.fanPowerAtMaxW = 2.5;
    // Three fans that have nothing in common: a 120 mm cooler fan, a 200 mm case fan that moves
    // a lot of air slowly and barely makes a sound, and a 92 mm fan blowing on the card that
    // whines at speed.
    p.fans = {{"CPU cooler fan", 500, 2000, 31, 2000},
              {"200 mm case fan", 300, 800, 22, 800},
              {"GPU-side 92 mm fan", 1500, 4200, 40, 4200}};
    p.fanTimeConstantS = 1.8;
    p.fanSlewRPMPerS = 1500;
    p.firmwareMinUntilC = 50;
    p.firmwareMaxAtC = 85;
    return {"desktop-unequal-fans", p};
}

MachineProfile desktopCoolerGpuCase() {
    sim::PlantConfig p;
    p.logicalCpus = 16;
    p.cpuIdlePowerW = 9;
    p.cpuFullLoadPowerW = 125;
    p.cpuMaxClockMHz = 5000;
    p.cpuBaseClockMHz = 3000;
    p.cpuLimitC = 95;
    p.cpuHeatCapacityJPerK = 7;
    p.cpuToSinkWPerK = 6;
    p.gpuIdlePowerW = 12;
    p.gpuFullLoadPowerW = 200;
    p.gpuMaxClockMHz = 2500;
    p.gpuBaseClockMHz = 1100;
    p.gpuReferenceMaxClockMHz = 2500;
    p.gpuLimitC = 88;
    p.gpuHeatCapacityJPerK = 18;
    p.gpuToSinkWPerK = 12;
    // Two sinks: the tower cooler on the processor and the card's own fin stack. They share the
    // case air, which carries a little heat from one to the other.
    p.sinkHeatCapacityJPerK = 400;
    p.sinkPassiveWPerK = 0.6;
    p.sinkAirflowWPerK = 7;
    p.gpuSinkHeatCapacityJPerK = 250;
    p.gpuSinkPassiveWPerK = 0.5;
    p.gpuSinkAirflowWPerK = 9;
    p.sinkToSinkWPerK = 0.5;
    p.airflowReferenceRPM = 1800;
    p.platformPowerW = 20;
    p.fanPowerAtMaxW = 3;
    // The cooler's 120 mm fan blows through the processor's fins; the card's two 90 mm fans
    // (one header) through its own, moving less air per turn and whining at speed; the 140 mm
    // case fans are the quietest for their air and help both sinks a little by clearing the
    // warm case air, the card's more, as it dumps its heat into the case.
    sim::FanConfig cooler{"CPU cooler fan", 500, 1800, 31, 1800};
    cooler.cpuCooling = 0.9;
    cooler.gpuCooling = 0.05;
    sim::FanConfig card{"Graphics card fans", 900, 3200, 44, 3200};
    card.cpuCooling = 0.05;
    card.gpuCooling = 0.5;
    sim::FanConfig caseFans{"Case fans", 400, 1400, 27, 1400};
    caseFans.cpuCooling = 0.25;
    caseFans.gpuCooling = 0.35;
    p.fans = {cooler, card, caseFans};
    p.fanTimeConstantS = 2.0;
    p.fanSlewRPMPerS = 1000;
    p.firmwareMinUntilC = 50;
    p.firmwareMaxAtC = 85;
    return {"desktop-cooler-gpu-case", p};
}

MachineProfile laptopTwoBlowers() {
    sim::PlantConfig p;
    p.logicalCpus = 16;
    p.cpuIdlePowerW = 4;
    p.cpuFullLoadPowerW = 45;
    p.cpuMaxClockMHz = 4800;
    p.cpuBaseClockMHz = 2400;
    p.cpuLimitC = 100;
    p.cpuHeatCapacityJPerK = 2.5;
    p.cpuToSinkWPerK = 2.5;
    p.gpuIdlePowerW = 5;
    p.gpuFullLoadPowerW = 80;
    p.gpuMaxClockMHz = 2100;
    p.gpuBaseClockMHz = 900;
    p.gpuReferenceMaxClockMHz = 2100;
    p.gpuLimitC = 87;
    p.gpuHeatCapacityJPerK = 4;
    p.gpuToSinkWPerK = 4.5;
    // A fin stack per die at either rear corner, joined by a shared heat pipe.
    p.sinkHeatCapacityJPerK = 60;
    p.sinkPassiveWPerK = 0.2;
    p.sinkAirflowWPerK = 2.2;
    p.gpuSinkHeatCapacityJPerK = 80;
    p.gpuSinkPassiveWPerK = 0.25;
    p.gpuSinkAirflowWPerK = 3.2;
    p.sinkToSinkWPerK = 1.5;
    p.airflowReferenceRPM = 5400;
    p.platformPowerW = 8;
    p.fanPowerAtMaxW = 1.5;
    // Each blower pulls through its own fin stack and, through the shared intake, a little
    // across the other; the processor's is the smaller one and the louder for its air.
    sim::FanConfig cpuBlower{"CPU blower", 2200, 6000, 42, 6000};
    cpuBlower.cpuCooling = 0.9;
    cpuBlower.gpuCooling = 0.15;
    sim::FanConfig gpuBlower{"GPU blower", 2000, 5400, 40, 5400};
    gpuBlower.cpuCooling = 0.15;
    gpuBlower.gpuCooling = 0.9;
    p.fans = {cpuBlower, gpuBlower};
    p.fanTimeConstantS = 1.2;
    p.fanSlewRPMPerS = 3000;
    p.firmwareMinUntilC = 60;
    p.firmwareMaxAtC = 90;
    return {"laptop-two-blowers", p};
}

std::vector<MachineProfile> standardMachines() {
    return {thinLaptop(),           hotThinLaptop(),    desktopLargeCooler(), simulatedDefault(),
            thinLaptop45W(),        desktopSilentGpu(), desktopFanStop(),     desktopUnequalFans(),
            desktopCoolerGpuCase(), laptopTwoBlowers()};
}

}  // namespace kelvo::quality
