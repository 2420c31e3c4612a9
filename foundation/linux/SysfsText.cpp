#include "foundation/linux/SysfsText.h"

#include <fstream>
#include <sstream>

namespace kelvo::sysfs {

std::optional<std::string> readTrimmed(const std::filesystem::path& path) {
    std::ifstream in(path);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) return std::nullopt;
    std::string value = text.str();
    const auto first = value.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return std::string();
    const auto last = value.find_last_not_of(" \t\r\n");
    return value.substr(first, last - first + 1);
}

}  // namespace kelvo::sysfs
