// A comparison controller: turns one telemetry sample into a fan duty between each fan's minimum
// (0) and maximum (1), the same scale Kelvo's own policy uses, so the RPM figures compare.
#pragma once

#include <string>

#include "foundation/core/Types.h"

namespace kelvo::quality {

class BaselinePolicy {
public:
    virtual ~BaselinePolicy() = default;
    virtual std::string name() const = 0;
    virtual std::string parameters() const = 0;
    virtual double duty(const TelemetrySample& sample, double dt) = 0;
};

// The hotter of the CPU and GPU, or nothing when neither is read.
inline std::optional<double> hottestTemperature(const TelemetrySample& sample) {
    if (sample.cpuTemperatureC && sample.gpuTemperatureC)
        return std::max(*sample.cpuTemperatureC, *sample.gpuTemperatureC);
    return sample.cpuTemperatureC ? sample.cpuTemperatureC : sample.gpuTemperatureC;
}

}  // namespace kelvo::quality
