// The two-fan machine the simhw tests share: fans of different ranges, two logical CPUs.
#pragma once

#include "foundation/sim/ThermalPlant.h"

namespace kelvo::simhw::test_support {

inline sim::PlantConfig twoFans() {
    sim::PlantConfig config;
    config.logicalCpus = 2;
    config.fans = {{"CPU fan", 800, 4000}, {"Case fan", 600, 2000}};
    return config;
}

}  // namespace kelvo::simhw::test_support
