// One pass over the hwmon class: CPU and GPU temperatures and every fan channel.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "foundation/fans/HwmonFanService.h"

namespace kelvo {

struct HwmonSnapshot {
    // coretemp package sensor, else k10temp Tdie, else Tctl, else the hottest CPU thermal zone.
    std::optional<double> cpuTemperatureC;
    bool cpuTemperatureFromThermalZone = false;
    // The hottest temp1 (edge) of an amdgpu, nouveau, i915 or xe hwmon.
    std::optional<double> gpuTemperatureC;
    // Every fan channel with its stable identity, ordered by identity.
    std::vector<HwmonFan> fans;
};

class HwmonSnapshotSampler {
public:
    explicit HwmonSnapshotSampler(std::string sysRoot = "/");

    HwmonSnapshot sample() const;

private:
    std::string sysRoot_;
    HwmonFanService fans_;
};

}  // namespace kelvo
