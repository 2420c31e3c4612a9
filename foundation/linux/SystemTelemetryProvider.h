// Telemetry from procfs and sysfs: utilisation (/proc/stat), CPU clock (cpufreq), CPU and GPU
// temperature (hwmon, thermal zones) and thermal pressure (thermal-zone trip points).
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "foundation/TelemetryProvider.h"

namespace kelvo {

class SystemTelemetryProvider : public TelemetryProvider {
public:
    explicit SystemTelemetryProvider(std::string sysRoot = "/");

    // Utilisation is the busy share since the previous call, so the first sample has none.
    TelemetrySample sample(Timestamp now) override;

    // Thermal pressure of a temperature against the zone's lowest passive/hot trip point.
    static ThermalPressureLevel pressureLevel(double temperatureC, double tripC);

private:
    struct CpuTimes {
        std::uint64_t total = 0;
        std::uint64_t idle = 0;
    };

    std::optional<double> cpuUtilization();
    std::optional<double> cpuClockMHz() const;

    std::string sysRoot_;
    std::mutex mutex_;
    std::optional<CpuTimes> previousCpuTimes_;
};

}  // namespace kelvo
