// The adaptive lead model quietHybrid runs with, fitted on the machine the way the application
// fits it from a capture: a load step from idle, and how long quiet control takes to react to it.
#pragma once

#include <cstdint>
#include <optional>

#include "MachineProfile.h"
#include "foundation/core/Types.h"

namespace kelvo::quality {

// Seconds from a full-load step until plain quiet control first raises the fans, as the lead;
// none when quiet never reacts within the calibration window.
std::optional<AdaptiveLeadModel> calibrateLeadModel(const MachineProfile& machine,
                                                    std::uint64_t seed);

}  // namespace kelvo::quality
