// kelvo-simhw's command line.
#pragma once

#include <cstdint>
#include <filesystem>
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

// A machine or trace given by its bare name ("thin-laptop") is one of those the package ships
// under `shippedDir`; a path, or a name that is a file here, is taken as it stands.
std::string resolveShippedFile(const std::string& value, const std::filesystem::path& shippedDir);

inline constexpr const char* kSimhwUsage =
    "usage: kelvo-simhw --machine FILE [--trace FILE | --follow-host-load] [--log CSV] "
    "[--seed N] MOUNTPOINT";

inline constexpr const char* kSimhwHelp =
    "Serves one simulated machine's sysfs and procfs under the empty directory MOUNTPOINT, in\n"
    "real time, for `kelvo --sysfs-root`, kelvo-helperd, fancontrol or thinkfan.\n"
    "  --machine FILE        the machine (JSON), or the name of one shipped in\n"
    "                        /usr/share/kelvo/machines (thin-laptop, desktop-silent-gpu, ...)\n"
    "  --trace FILE          the load to play (JSON, or a name from /usr/share/kelvo/traces);\n"
    "                        without it the machine idles\n"
    "  --follow-host-load    load the machine as much as this machine's CPU is loaded\n"
    "  --log CSV             one row a second: temperatures, duties, speeds, power\n"
    "  --seed N              the sensor noise's seed (default 1)\n"
    "  -h, --help            this help\n"
    "  --version             the version\n"
    "See kelvo-simhw(1).\n";

}  // namespace kelvo::simhw
