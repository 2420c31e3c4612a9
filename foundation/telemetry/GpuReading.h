// What one GPU sampler reports; every field the driver does not expose stays absent.
#pragma once

#include <cstdint>
#include <optional>

#include "foundation/core/Types.h"

namespace kelvo {

struct GpuReading {
    std::optional<double> clockMHz;
    std::optional<double> maxClockMHz;  // the reference maximum for clock-deficit analysis
    std::optional<double> utilizationPct;
    std::optional<double> powerW;
    std::optional<double> temperatureC;
    std::optional<double> requestedPState;  // lower = faster
    std::optional<double> grantedPState;
    std::uint32_t throttleReasons = gpuThrottleNone;  // GpuThrottleReason bits

    bool operator==(const GpuReading&) const = default;
};

}  // namespace kelvo
