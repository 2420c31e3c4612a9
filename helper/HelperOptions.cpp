#include "helper/HelperOptions.h"

#include <charconv>
#include <limits>
#include <optional>

namespace kelvo::helperd {

namespace {

std::optional<uid_t> parseUid(const std::string& text) {
    unsigned long long value = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    // (uid_t)-1 is "no uid" to the kernel's credential calls.
    if (text.empty() || ec != std::errc() || ptr != text.data() + text.size() ||
        value >= std::numeric_limits<uid_t>::max()) {
        return std::nullopt;
    }
    return static_cast<uid_t>(value);
}

}  // namespace

std::string HelperOptions::usage() {
    return "usage: kelvo-helperd [--sysfs-root PATH] [--runtime-dir DIR] [--allowed-group NAME]\n"
           "                     [--allow-uid UID]... [--config PATH] [--nvml-library PATH]\n"
           "                     [--version] [--help]\n"
           "\n"
           "  --sysfs-root PATH    read and write hwmon and powercap under PATH instead of /\n"
           "  --runtime-dir DIR    socket (helper.sock) and fan journal in DIR (default "
           "/run/kelvo)\n"
           "  --allowed-group NAME members of NAME may use the helper (default kelvo)\n"
           "  --allow-uid UID      also allow this uid (repeatable)\n"
           "  --config PATH        read floors and forbidden fans from PATH (default\n"
           "                       /etc/kelvo/helperd.conf, where a missing file means none)\n"
           "  --nvml-library PATH  NVML for NVIDIA fans (default libnvidia-ml.so.1; none: off)\n";
}

HelperOptions::Parsed HelperOptions::parse(const std::vector<std::string>& arguments) {
    Parsed parsed;
    HelperOptions& options = parsed.options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        std::string name = arguments[i];
        std::optional<std::string> value;
        if (const auto equals = name.find('='); name.starts_with("--") && equals != name.npos) {
            value = name.substr(equals + 1);
            name.resize(equals);
        }
        if (name == "--help" || name == "-h") {
            options.showHelp = true;
            continue;
        }
        if (name == "--version") {
            options.showVersion = true;
            continue;
        }
        if (name != "--sysfs-root" && name != "--runtime-dir" && name != "--allowed-group" &&
            name != "--allow-uid" && name != "--config" && name != "--nvml-library") {
            parsed.error = "unknown option " + arguments[i];
            return parsed;
        }
        if (!value) {
            if (i + 1 >= arguments.size()) {
                parsed.error = name + " needs a value";
                return parsed;
            }
            value = arguments[++i];
        }
        if (value->empty()) {
            parsed.error = name + " needs a non-empty value";
            return parsed;
        }
        if (name == "--sysfs-root") {
            options.sysfsRoot = *value;
        } else if (name == "--runtime-dir") {
            options.runtimeDir = *value;
        } else if (name == "--config") {
            options.configPath = *value;
            options.configGiven = true;
        } else if (name == "--nvml-library") {
            options.nvmlLibrary = *value;
        } else if (name == "--allowed-group") {
            options.allowedGroup = *value;
        } else {
            const auto uid = parseUid(*value);
            if (!uid) {
                parsed.error = "--allow-uid needs a numeric uid, not " + *value;
                return parsed;
            }
            options.allowedUids.push_back(*uid);
        }
    }
    parsed.ok = true;
    return parsed;
}

}  // namespace kelvo::helperd
