// The thermal zones that describe the CPU die, with their lowest throttling trip point.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kelvo {

struct CpuThermalZone {
    std::string type;
    double temperatureC = 0;
    std::optional<double> lowestTripC;  // lowest passive or hot trip; critical ones shut down
};

// Zones of type x86_pkg_temp, acpitz or containing "cpu", with a readable temperature, in
// zone order.
std::vector<CpuThermalZone> readCpuThermalZones(const std::filesystem::path& sysRoot);

}  // namespace kelvo
