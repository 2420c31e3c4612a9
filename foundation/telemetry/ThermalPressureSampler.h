// Thermal pressure level from the kernel's thermal throttle counters and the CPU thermal
// zones' trip points.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "foundation/core/Types.h"

namespace kelvo {

// Not thread-safe: one caller samples at a time.
class ThermalPressureSampler {
public:
    explicit ThermalPressureSampler(std::string sysRoot = "/");

    // The temperature level: `cpuSensorTemperatureC` (the CPU's hwmon sensor, when there is
    // one) against the lowest passive/hot trip of the CPU zones, else the hottest CPU zone
    // against its own trips. A core or package throttle counter that went up since the
    // previous call raises the level to at least serious; counters that stayed put make the
    // level at least nominal. Absent when neither is known.
    std::optional<ThermalPressureLevel> sample(std::optional<double> cpuSensorTemperatureC);

    // Within 15 °C of the trip fair, within 5 °C serious, at or past it critical.
    static ThermalPressureLevel pressureLevel(double temperatureC, double tripC);

private:
    std::string sysRoot_;
    std::map<std::string, std::uint64_t> previousCounts_;  // by counter file
};

}  // namespace kelvo
