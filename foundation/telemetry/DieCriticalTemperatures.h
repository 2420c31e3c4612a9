// Reads the CPU's and GPU's critical trip points from a sysfs tree: the user's limits must stay
// below the temperature at which the machine shuts itself down.
#pragma once

#include <filesystem>

#include "foundation/core/Types.h"

namespace kelvo {

// CPU: the critical trip of the CPU thermal zones (x86_pkg_temp, acpitz, "cpu"), else tempN_crit
// of a CPU hwmon (coretemp, k10temp, zenpower). GPU: tempN_crit of a GPU hwmon (amdgpu, nouveau,
// i915, xe). The lowest one found for each.
DieCriticalTemperatures readDieCriticalTemperatures(const std::filesystem::path& sysRoot);

}  // namespace kelvo
