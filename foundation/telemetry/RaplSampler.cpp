#include "foundation/telemetry/RaplSampler.h"

#include <filesystem>
#include <vector>

#include "foundation/core/SysfsMounts.h"
#include "foundation/telemetry/SysfsValues.h"

namespace kelvo {

namespace fs = std::filesystem;

namespace {

constexpr const char* kPowercapClass = "sys/class/powercap";

struct Zone {
    std::string dirName;  // "intel-rapl:0", "intel-rapl:0:2"
    bool isPackage = false;
};

// Package zones and dram zones (top-level on servers, a package's sub-zone on clients). Core,
// uncore and psys are left out: they are parts of a package or overlap all of it.
std::vector<Zone> energyZones(const fs::path& root) {
    std::vector<Zone> zones;
    for (const fs::path& entry : sysfs::directoryEntries(root / kPowercapClass)) {
        const std::string dirName = entry.filename().string();
        if (!dirName.starts_with("intel-rapl:")) continue;
        const auto name = sysfs::readAttribute(entry / "name");
        if (!name) continue;
        if (name->starts_with("package")) {
            zones.push_back({dirName, true});
        } else if (*name == "dram") {
            zones.push_back({dirName, false});
        }
    }
    return zones;
}

}  // namespace

RaplSampler::RaplSampler(std::string sysRoot, PrivilegedRead privilegedRead)
    : sysRoot_(sysRoot.empty() ? "/" : std::move(sysRoot)),
      privilegedRead_(std::move(privilegedRead)) {}

std::optional<std::uint64_t> RaplSampler::readCounter(const std::string& zone,
                                                      const char* file) const {
    const fs::path relative = fs::path(kPowercapClass) / zone / file;
    if (auto value = sysfs::readUnsigned(fs::path(sysRoot_) / relative)) return value;
    if (!privilegedRead_) return std::nullopt;
    // Built by appending: GCC 12 misreports `"/" + string` under -O3 (bug 105329).
    std::string absolute = "/";
    absolute += relative.generic_string();
    return privilegedRead_(absolute);
}

std::optional<double> RaplSampler::sample(Timestamp now) {
    double totalW = 0;
    bool packageMeasured = false;
    std::map<std::string, Previous> current;
    for (const Zone& zone : energyZones(fs::path(sysRoot_))) {
        const auto energy = readCounter(zone.dirName, "energy_uj");
        if (!energy) continue;
        current[zone.dirName] = {*energy, now};
        const auto before = previous_.find(zone.dirName);
        if (before == previous_.end()) continue;
        const double seconds = now - before->second.at;
        if (!(seconds > 0)) continue;
        std::uint64_t deltaUJ = 0;
        if (*energy >= before->second.energyUJ) {
            deltaUJ = *energy - before->second.energyUJ;
        } else {
            // The counter wrapped past its range back to zero.
            const auto range = readCounter(zone.dirName, "max_energy_range_uj");
            if (!range || *range < before->second.energyUJ) continue;
            deltaUJ = *range - before->second.energyUJ + *energy;
        }
        totalW += static_cast<double>(deltaUJ) / 1e6 / seconds;
        if (zone.isPackage) packageMeasured = true;
    }
    previous_ = std::move(current);
    if (!packageMeasured) return std::nullopt;
    return totalW;
}

std::optional<double> RaplSampler::packageLongTermLimitW() const {
    std::optional<double> totalW;
    for (const Zone& zone : energyZones(fs::path(sysRoot_))) {
        if (!zone.isPackage) continue;
        const fs::path dir = fs::path(sysRoot_) / kPowercapClass / zone.dirName;
        int constraint = 0;
        for (int index = 0;; ++index) {
            const auto name =
                sysfs::readAttribute(dir / ("constraint_" + std::to_string(index) + "_name"));
            if (!name) break;
            if (*name == "long_term") {
                constraint = index;
                break;
            }
        }
        const auto limitUW = sysfs::readDouble(
            dir / ("constraint_" + std::to_string(constraint) + "_power_limit_uw"));
        if (!limitUW || *limitUW <= 0) continue;
        totalW = totalW.value_or(0) + *limitUW / 1e6;
    }
    return totalW;
}

}  // namespace kelvo
