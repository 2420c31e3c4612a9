#include "foundation/fans/SysfsText.h"

#include <cstring>
#include <fstream>
#include <sstream>

#include "foundation/core/SysfsMounts.h"

namespace kelvo::sysfs {

namespace fs = std::filesystem;

namespace {

std::string trimmed(const std::string& value) {
    const auto first = value.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return std::string();
    const auto last = value.find_last_not_of(" \t\r\n");
    return value.substr(first, last - first + 1);
}

}  // namespace

std::optional<std::string> readTrimmed(const std::filesystem::path& path) {
    if (auto mounted = findMount(path)) {
        auto text = mounted->source->read(mounted->relative);
        if (!text) return std::nullopt;
        return trimmed(*text);
    }
    std::ifstream in(path);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) return std::nullopt;
    return trimmed(text.str());
}

bool writeInteger(const std::filesystem::path& path, long long value, std::string* error,
                  int* errorNumber) {
    const int failure = writeFileText(path, std::to_string(value) + "\n");
    if (failure == 0) return true;
    if (error) *error = "cannot write " + path.string() + ": " + std::strerror(failure);
    if (errorNumber) *errorNumber = failure;
    return false;
}

std::string hwmonDevicePath(const std::filesystem::path& hwmonDir,
                            const std::filesystem::path& root) {
    const auto device = canonicalPath(hwmonDir / "device");
    if (!device) return "virtual";
    const auto canonicalRoot = canonicalPath(root);
    if (!canonicalRoot) return device->string();
    const fs::path relative = device->lexically_relative(*canonicalRoot);
    if (relative.empty() || *relative.begin() == "..") return device->string();
    if (relative == ".") return "/";
    return (fs::path("/") / relative).generic_string();
}

}  // namespace kelvo::sysfs
