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
        fan.weight[0] = sim::fanCooling(plant, sim::Die::cpu, i);
        fan.weight[1] = sim::fanCooling(plant, sim::Die::gpu, i);
        fan.cost = config.soundRefRPM > 0 ? std::pow(10.0, config.soundRefDb / 10.0) /
                                                std::pow(config.soundRefRPM, 5.0)
                                          : 0.0;
        fan.canStop = config.canStop();
        fans.push_back(fan);
    }
    return QuietestMix(std::move(fans));
}

}  // namespace kelvo::quality
