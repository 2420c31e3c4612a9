// Total power from the powercap RAPL energy counters (package and dram zones).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "foundation/core/Types.h"

namespace kelvo {

// Not thread-safe for sample(); packageLongTermLimitW() keeps no state.
class RaplSampler {
public:
    // Reads a counter the caller may not read itself (energy_uj is root-only on current
    // kernels). The path is the file's path as on a real system, below the sysfs root:
    // "/sys/class/powercap/intel-rapl:0/energy_uj". None when the read fails.
    using PrivilegedRead =
        std::function<std::optional<std::uint64_t>(const std::string& relativePath)>;

    explicit RaplSampler(std::string sysRoot = "/", PrivilegedRead privilegedRead = {});

    // Watts drawn by every package zone plus every dram zone since the previous call, from
    // the energy deltas over `now` minus the previous call's `now`. A counter that wrapped is
    // unwrapped with its max_energy_range_uj. None on the first call, when no package counter
    // can be read twice, or when time did not advance.
    std::optional<double> sample(Timestamp now);

    // Sum of the package zones' long-term power limits (the constraint named long_term, else
    // constraint 0), in watts; none when no package zone has a readable limit.
    std::optional<double> packageLongTermLimitW() const;

private:
    struct Previous {
        std::uint64_t energyUJ = 0;
        Timestamp at = 0;
    };

    std::optional<std::uint64_t> readCounter(const std::string& zone, const char* file) const;

    std::string sysRoot_;
    PrivilegedRead privilegedRead_;
    std::map<std::string, Previous> previous_;  // by zone directory name
};

}  // namespace kelvo
