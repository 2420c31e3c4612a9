// CPU utilisation from /proc/stat and CPU clock from cpufreq.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace kelvo {

struct CpuReading {
    std::optional<double> utilizationPct;  // busy share of all CPUs since the previous sample
    // Mean scaling_cur_freq of the busiest cluster (cores grouped by cpuinfo_max_freq), or of
    // every core while per-core load is unknown or there is one cluster only.
    std::optional<double> clockMHz;
    std::optional<double> maxClockMHz;  // highest cpuinfo_max_freq of any core
    bool operator==(const CpuReading&) const = default;
};

// Not thread-safe: one caller samples at a time.
class CpuSampler {
public:
    explicit CpuSampler(std::string sysRoot = "/");

    // Utilisation and cluster choice need the previous call's counters, so the first sample
    // has no utilisation and averages every core.
    CpuReading sample();

private:
    struct Times {
        std::uint64_t total = 0;
        std::uint64_t idle = 0;
    };

    std::string sysRoot_;
    std::optional<Times> previousTotal_;
    std::map<int, Times> previousPerCpu_;
};

}  // namespace kelvo
