#include "PlantMix.h"

#include <cmath>
#include <vector>

namespace kelvo::quality {

QuietestMix quietestMixFor(const sim::PlantConfig& plant) {
    std::vector<QuietestMix::Fan> fans;
    for (std::size_t i = 0; i < plant.fans.size(); ++i) {
        const sim::FanConfig& config = plant.fans[i];
        QuietestMix::Fan fan;
        fan.lo = config.minRPM;
        fan.hi = config.maxRPM;
        // The plant's own airflow, one fan turning at 1 rpm at a time: the weights whatever the
        // machine's coupling.
        std::vector<double> unit(plant.fans.size(), 0.0);
        unit[i] = 1;
        fan.weight[0] = sim::coolingAirflow(plant, sim::Die::cpu, unit);
        fan.weight[1] = sim::coolingAirflow(plant, sim::Die::gpu, unit);
        fan.cost = config.soundRefRPM > 0 ? std::pow(10.0, config.soundRefDb / 10.0) /
                                                std::pow(config.soundRefRPM, 5.0)
                                          : 0.0;
        fan.canStop = config.canStop();
        fans.push_back(fan);
    }
    return QuietestMix(std::move(fans));
}

}  // namespace kelvo::quality
