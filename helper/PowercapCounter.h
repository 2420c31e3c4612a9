// Reads RAPL energy counters for unprivileged clients. The kernel makes energy_uj root-only
// (it leaks timing information), so the helper reads it on their behalf, but only that file
// under the powercap class: a client cannot use this to read anything else as root.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/helper_protocol/HelperProtocol.h"

namespace kelvo::helperd {

class PowercapCounter {
public:
    explicit PowercapCounter(std::string sysRoot);

    // "/sys/class/powercap/intel-rapl<...>/[intel-rapl<...>/...]energy_uj": every directory
    // below powercap named intel-rapl*, no "." or ".." and nothing but [A-Za-z0-9:_-].
    static bool allowedPath(std::string_view path);

    // The counter's value; errors for a refused path, a path that resolves (through links)
    // outside the powercap devices, an unreadable file or a value that is not a number.
    helper_protocol::Decoded<std::uint64_t> read(std::string_view path) const;

private:
    std::string sysRoot_;
};

}  // namespace kelvo::helperd
