// kelvo-helperd's command line.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kelvo::helperd {

struct HelperOptions {
    std::string sysfsRoot = "/";            // hwmon and powercap are read below this
    std::string runtimeDir = "/run/kelvo";  // helper.sock and the fan journal live here
    std::string allowedGroup = "kelvo";
    std::vector<uid_t> allowedUids;
    std::string configPath = "/etc/kelvo/helperd.conf";
    bool configGiven = false;  // --config: the file must exist
    // NVIDIA fans: the NVML library to load ("none": no NVIDIA fans).
    std::string nvmlLibrary = "libnvidia-ml.so.1";
    bool showHelp = false;
    bool showVersion = false;

    std::string socketPath() const { return runtimeDir + "/helper.sock"; }
    std::string journalPath() const { return runtimeDir + "/fan-journal"; }
    std::string lockPath() const { return runtimeDir + "/helper.lock"; }

    struct Parsed;
    // Accepts "--name value" and "--name=value".
    static Parsed parse(const std::vector<std::string>& arguments);
    static std::string usage();
};

struct HelperOptions::Parsed {
    bool ok = false;
    std::string error;
    HelperOptions options;
};

}  // namespace kelvo::helperd
