#include "foundation/fans/SysfsText.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace kelvo::sysfs {

namespace fs = std::filesystem;

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

bool writeInteger(const std::filesystem::path& path, long long value, std::string* error,
                  int* errorNumber) {
    const std::string text = std::to_string(value) + "\n";
    const int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    int failure = 0;
    if (fd < 0) {
        failure = errno;
    } else {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written < 0) {
            failure = errno;
        } else if (static_cast<size_t>(written) != text.size()) {
            failure = EIO;
        }
        if (::close(fd) != 0 && failure == 0) failure = errno;
    }
    if (failure == 0) return true;
    if (error) *error = "cannot write " + path.string() + ": " + std::strerror(failure);
    if (errorNumber) *errorNumber = failure;
    return false;
}

std::string hwmonDevicePath(const std::filesystem::path& hwmonDir,
                            const std::filesystem::path& root) {
    std::error_code ec;
    const fs::path device = fs::canonical(hwmonDir / "device", ec);
    if (ec) return "virtual";
    const fs::path canonicalRoot = fs::canonical(root, ec);
    if (ec) return device.string();
    const fs::path relative = device.lexically_relative(canonicalRoot);
    if (relative.empty() || *relative.begin() == "..") return device.string();
    if (relative == ".") return "/";
    return (fs::path("/") / relative).generic_string();
}

}  // namespace kelvo::sysfs
