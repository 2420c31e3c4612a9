#include "foundation/telemetry/CpuThermalZones.h"

#include "foundation/telemetry/SysfsValues.h"

namespace kelvo {

namespace fs = std::filesystem;

std::vector<CpuThermalZone> readCpuThermalZones(const fs::path& sysRoot) {
    std::vector<CpuThermalZone> zones;
    for (const fs::path& dir :
         sysfs::numberedEntries(sysRoot / "sys/class/thermal", "thermal_zone")) {
        const auto type = sysfs::readAttribute(dir / "type");
        if (!type) continue;
        if (type->find("cpu") == std::string::npos && *type != "x86_pkg_temp" &&
            *type != "acpitz") {
            continue;
        }
        const auto temperature = sysfs::readMilliCelsius(dir / "temp");
        if (!temperature) continue;
        CpuThermalZone zone{*type, *temperature, std::nullopt};
        for (int trip = 0;; ++trip) {
            const std::string base = "trip_point_" + std::to_string(trip);
            const auto tripType = sysfs::readAttribute(dir / (base + "_type"));
            if (!tripType) break;
            if (*tripType != "passive" && *tripType != "hot") continue;
            const auto tripC = sysfs::readMilliCelsius(dir / (base + "_temp"));
            // Writable trips (x86_pkg_temp) read 0 while unset.
            if (!tripC || *tripC <= 0) continue;
            if (!zone.lowestTripC || *tripC < *zone.lowestTripC) zone.lowestTripC = tripC;
        }
        zones.push_back(std::move(zone));
    }
    return zones;
}

}  // namespace kelvo
