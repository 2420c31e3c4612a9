// Telemetry as the dashboard tests need it: plain readings at chosen times.
#pragma once

#include <vector>

#include "dashboard/FixedViewportTrendSnapshot.h"
#include "foundation/core/Types.h"
#include "live/LiveDashboardStore.h"

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

// A live snapshot of a loaded machine at 80 W, with the reference clocks the Peak Performance
// figure needs.
inline LiveSnapshot loadedSnapshot(Timestamp t) {
    LiveSnapshot s;
    s.sample = loadedSample(t);
    s.sample.totalPowerW = 80;
    s.gpuConfig.cpuReferenceClockMHz = 4100;
    s.gpuConfig.referenceClockMHz = 1500;
    return s;
}

// The fan preview is the only dashed series.
inline bool hasPreview(const FixedViewportTrendSnapshot& snapshot) {
    for (const auto& s : snapshot.series)
        if (s.dashPatternPixels) return true;
    return false;
}

}  // namespace kelvo::test
