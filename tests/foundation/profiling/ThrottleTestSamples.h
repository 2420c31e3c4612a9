// Samples for the throttle-signal tests: a loaded, hot machine at the baseline's clocks, and the
// same machine with its CPU clock drooping.
#pragma once

#include "foundation/core/Types.h"

namespace kelvo::throttle_test {

// A loaded, hot sample at the baseline's clocks: no droop, no ramp.
inline TelemetrySample loadedSample(Timestamp t) {
    TelemetrySample s;
    s.timestamp = t;
    s.cpuTemperatureC = 90;
    s.gpuTemperatureC = 80;
    s.cpuClockMHz = 4000;
    s.gpuClockMHz = 1500;
    s.cpuUtilizationPct = 95;
    s.gpuUtilizationPct = 40;
    s.totalPowerW = 90;
    s.thermalPressure = ThermalPressureLevel::nominal;
    return s;
}

inline TelemetrySample droopSample(Timestamp t) {
    TelemetrySample s = loadedSample(t);
    s.cpuClockMHz = 3000;  // 25 % under the reference at 95 % load
    return s;
}

}  // namespace kelvo::throttle_test
