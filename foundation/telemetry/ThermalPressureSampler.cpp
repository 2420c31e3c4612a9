#include "foundation/telemetry/ThermalPressureSampler.h"

#include <algorithm>
#include <filesystem>

#include "foundation/telemetry/CpuThermalZones.h"
#include "foundation/telemetry/SysfsValues.h"

namespace kelvo {

namespace fs = std::filesystem;

namespace {

std::optional<ThermalPressureLevel> temperatureLevel(const fs::path& root,
                                                     std::optional<double> sensorC) {
    const auto zones = readCpuThermalZones(root);
    if (sensorC) {
        // The hwmon sensor has no trips of its own; the CPU zones describe the same die.
        std::optional<double> tripC;
        for (const CpuThermalZone& zone : zones) {
            if (zone.lowestTripC && (!tripC || *zone.lowestTripC < *tripC)) {
                tripC = zone.lowestTripC;
            }
        }
        if (!tripC) return std::nullopt;
        return ThermalPressureSampler::pressureLevel(*sensorC, *tripC);
    }
    const auto hottest = std::max_element(
        zones.begin(), zones.end(),
        [](const auto& a, const auto& b) { return a.temperatureC < b.temperatureC; });
    if (hottest == zones.end() || !hottest->lowestTripC) return std::nullopt;
    return ThermalPressureSampler::pressureLevel(hottest->temperatureC, *hottest->lowestTripC);
}

}  // namespace

ThermalPressureSampler::ThermalPressureSampler(std::string sysRoot)
    : sysRoot_(sysRoot.empty() ? "/" : std::move(sysRoot)) {}

ThermalPressureLevel ThermalPressureSampler::pressureLevel(double temperatureC, double tripC) {
    if (temperatureC < tripC - 15) return ThermalPressureLevel::nominal;
    if (temperatureC < tripC - 5) return ThermalPressureLevel::fair;
    if (temperatureC < tripC) return ThermalPressureLevel::serious;
    return ThermalPressureLevel::critical;
}

std::optional<ThermalPressureLevel> ThermalPressureSampler::sample(
    std::optional<double> cpuSensorTemperatureC) {
    const fs::path root(sysRoot_);
    std::optional<ThermalPressureLevel> level = temperatureLevel(root, cpuSensorTemperatureC);

    // The counters count the times the hardware throttled itself, which can happen well below
    // any trip point (power or current limits that the firmware handles thermally).
    std::map<std::string, std::uint64_t> counts;
    bool compared = false;
    bool raised = false;
    for (const fs::path& cpu : sysfs::numberedEntries(root / "sys/devices/system/cpu", "cpu")) {
        for (const char* file : {"core_throttle_count", "package_throttle_count"}) {
            const fs::path path = cpu / "thermal_throttle" / file;
            const auto count = sysfs::readUnsigned(path);
            if (!count) continue;
            const auto previous = previousCounts_.find(path.string());
            if (previous != previousCounts_.end()) {
                compared = true;
                if (*count > previous->second) raised = true;
            }
            counts.emplace(path.string(), *count);
        }
    }
    previousCounts_ = std::move(counts);

    const auto atLeast = [&level](ThermalPressureLevel floor) {
        if (!level || *level < floor) level = floor;
    };
    if (raised) {
        atLeast(ThermalPressureLevel::serious);
    } else if (compared) {
        atLeast(ThermalPressureLevel::nominal);
    }
    return level;
}

}  // namespace kelvo
