// Telemetry as the dashboard tests need it: plain readings at chosen times.
#pragma once

#include <vector>

#include "foundation/core/Types.h"

namespace kelvo::test {

// A machine under steady high load: every series has a positive reading.
inline TelemetrySample loadedSample(Timestamp t) {
    TelemetrySample s;
    s.timestamp = t;
    s.cpuTemperatureC = 60;
    s.gpuTemperatureC = 55;
    s.cpuClockMHz = 4000;
    s.gpuClockMHz = 1500;
    s.cpuUtilizationPct = 95;
    s.gpuUtilizationPct = 90;
    s.totalPowerW = 40;
    s.fanCurrentRPM = {2000, 2200};
    s.fanTargetRPM = {0, 0};
    s.fanMaxRPM = {5000, 5000};
    return s;
}

// `count` samples `spacing` seconds apart, the last one at `last`.
inline std::vector<TelemetrySample> loadedHistory(int count, Timestamp last,
                                                  double spacing = 0.25) {
    std::vector<TelemetrySample> samples;
    samples.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        samples.push_back(loadedSample(last - (count - 1 - i) * spacing));
    return samples;
}

}  // namespace kelvo::test
