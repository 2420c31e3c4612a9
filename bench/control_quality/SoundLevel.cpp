#include "SoundLevel.h"

#include <algorithm>
#include <cmath>

namespace kelvo::quality {

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
