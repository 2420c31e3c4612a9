// amdgpu telemetry from the DRM card's device attributes and its hwmon.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "foundation/telemetry/GpuReading.h"

namespace kelvo {

struct AmdDpmLevels {
    std::optional<double> currentMHz;  // the level marked "*"
    std::optional<double> maxMHz;      // the highest level
};

class AmdGpuSampler {
public:
    explicit AmdGpuSampler(std::string sysRoot = "/");

    // The first card (lowest cardN) with a readable pp_dpm_sclk: clock and maximum from it,
    // gpu_busy_percent, and from its amdgpu hwmon power1_average (else power1_input) and
    // temp1_input. Absent when there is no such card.
    std::optional<GpuReading> sample() const;

    // "0: 500Mhz\n1: 1800Mhz *\n2: 2600Mhz\n"
    static AmdDpmLevels parseDpmLevels(std::string_view text);

private:
    std::string sysRoot_;
};

}  // namespace kelvo
