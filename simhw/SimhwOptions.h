// kelvo-simhw's command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kelvo::simhw {

struct SimhwOptions {
    std::string machineFile;
    std::string traceFile;
    bool followHostLoad = false;
    std::string logFile;
    std::uint64_t seed = 1;
    std::string mountPoint;
};

// None with `error` set (one line) when the arguments make no sense.
std::optional<SimhwOptions> parseSimhwOptions(int argc, char** argv, std::string* error);

inline constexpr const char* kSimhwUsage =
    "usage: kelvo-simhw --machine FILE [--trace FILE | --follow-host-load] [--log CSV] "
    "[--seed N] MOUNTPOINT";

}  // namespace kelvo::simhw
