#include "foundation/telemetry/DieCriticalTemperatures.h"

#include <algorithm>
#include <string>

#include "foundation/core/SysfsMounts.h"
#include "foundation/telemetry/SysfsValues.h"

namespace kelvo {

namespace fs = std::filesystem;

namespace {
void takeLowest(std::optional<double>& into, std::optional<double> value) {
    // Firmware reports nonsense like 0 or 255 °C on some boards; neither is a real trip point.
    if (!value || *value <= kLowestUserLimitC || *value > 150) return;
    into = into ? std::min(*into, *value) : *value;
}

bool isCpuZone(const std::string& type) {
    return type == "x86_pkg_temp" || type == "acpitz" || type.find("cpu") != std::string::npos;
}

std::optional<double> lowestHwmonCritical(const fs::path& hwmon) {
    std::optional<double> lowest;
    for (const fs::path& entry : sysfs::directoryEntries(hwmon)) {
        const std::string name = entry.filename().string();
        if (name.starts_with("temp") && name.ends_with("_crit"))
            takeLowest(lowest, sysfs::readMilliCelsius(entry));
    }
    return lowest;
}
}  // namespace

DieCriticalTemperatures readDieCriticalTemperatures(const fs::path& sysRoot) {
    DieCriticalTemperatures critical;
    for (const fs::path& zone :
         sysfs::numberedEntries(sysRoot / "sys/class/thermal", "thermal_zone")) {
        if (!isCpuZone(sysfs::readAttribute(zone / "type").value_or(""))) continue;
        for (int trip = 0; trip < 32; ++trip) {
            const std::string prefix = "trip_point_" + std::to_string(trip);
            auto type = sysfs::readAttribute(zone / (prefix + "_type"));
            if (!type) break;
            if (*type == "critical")
                takeLowest(critical.cpuC, sysfs::readMilliCelsius(zone / (prefix + "_temp")));
        }
    }
    std::optional<double> cpuHwmon;
    for (const fs::path& hwmon : sysfs::numberedEntries(sysRoot / "sys/class/hwmon", "hwmon")) {
        const std::string name = sysfs::readAttribute(hwmon / "name").value_or("");
        if (name == "coretemp" || name == "k10temp" || name == "zenpower")
            takeLowest(cpuHwmon, lowestHwmonCritical(hwmon));
        else if (name == "amdgpu" || name == "nouveau" || name == "i915" || name == "xe")
            takeLowest(critical.gpuC, lowestHwmonCritical(hwmon));
    }
    if (!critical.cpuC) critical.cpuC = cpuHwmon;
    return critical;
}

}  // namespace kelvo
