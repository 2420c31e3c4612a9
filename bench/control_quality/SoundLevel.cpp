#include "SoundLevel.h"

#include <algorithm>
#include <cmath>

namespace kelvo::quality {

double fanSoundPower(const sim::PlantConfig& plant, const std::vector<double>& rpm) {
    double power = 0;
    const std::size_t fans = std::min(plant.fans.size(), rpm.size());
    for (std::size_t i = 0; i < fans; ++i) {
        const sim::FanConfig& fan = plant.fans[i];
        if (!(rpm[i] > 0) || !(fan.soundRefRPM > 0)) continue;
        // 10^(L/10) with L from the fan law: the rpm ratio to the 5th power.
        power += std::pow(10.0, fan.soundRefDb / 10.0) * std::pow(rpm[i] / fan.soundRefRPM, 5.0);
    }
    return power;
}

double soundPower(const sim::PlantConfig& plant, const std::vector<double>& rpm) {
    return std::max(fanSoundPower(plant, rpm), 1.0);
}

double levelOfPower(double power) {
    return power > 1.0 ? 10.0 * std::log10(power) : 0.0;
}

double soundLevelDb(const sim::PlantConfig& plant, const std::vector<double>& rpm) {
    return levelOfPower(soundPower(plant, rpm));
}

}  // namespace kelvo::quality
