// Busy share of the host's CPUs, from the aggregate line of /proc/stat, so that a simulated
// machine can heat up with what the real one is doing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kelvo::sim {

class HostLoadReader {
public:
    // `procRoot` is the procfs mount; tests point it at a temporary folder.
    explicit HostLoadReader(std::string procRoot = "/proc");

    // Busy fraction (0..1) of all CPUs since the previous call. None on the first call, when the
    // file cannot be read, or when the counters did not advance.
    std::optional<double> read();

private:
    struct CpuTimes {
        std::uint64_t total = 0;
        std::uint64_t idle = 0;
    };
    std::optional<CpuTimes> readTimes() const;

    std::string procRoot_;
    std::optional<CpuTimes> previous_;
};

}  // namespace kelvo::sim
