#include "helper/PowercapCounter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>

namespace kelvo::helperd {

namespace fs = std::filesystem;
using helper_protocol::Decoded;

namespace {

constexpr std::string_view kClassPrefix = "/sys/class/powercap/";
constexpr std::string_view kCounterFile = "energy_uj";
constexpr std::string_view kZonePrefix = "intel-rapl";

bool safeComponent(std::string_view part) {
    return std::all_of(part.begin(), part.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == ':' || c == '_' || c == '-';
    });
}

bool hasComponent(const fs::path& path, std::string_view name) {
    return std::any_of(path.begin(), path.end(),
                       [&](const fs::path& part) { return part.native() == name; });
}

bool below(const fs::path& path, const fs::path& base) {
    const fs::path relative = path.lexically_relative(base);
    return !relative.empty() && *relative.begin() != ".." && relative != ".";
}

}  // namespace

PowercapCounter::PowercapCounter(std::string sysRoot) : sysRoot_(std::move(sysRoot)) {}

bool PowercapCounter::allowedPath(std::string_view path) {
    if (!path.starts_with(kClassPrefix)) return false;
    std::string_view rest = path.substr(kClassPrefix.size());
    std::size_t directories = 0;
    while (true) {
        const std::size_t slash = rest.find('/');
        const std::string_view part = rest.substr(0, slash);
        if (part.empty() || !safeComponent(part)) return false;
        if (slash == std::string_view::npos) return part == kCounterFile && directories > 0;
        if (!part.starts_with(kZonePrefix)) return false;
        ++directories;
        rest.remove_prefix(slash + 1);
    }
}

Decoded<std::uint64_t> PowercapCounter::read(std::string_view path) const {
    using Result = Decoded<std::uint64_t>;
    if (!allowedPath(path)) {
        return Result::failure(
            "counter path not allowed: only /sys/class/powercap/intel-rapl*/.../energy_uj");
    }
    // The class entries are links into /sys/devices; follow them, then check where they led.
    std::error_code ec;
    const fs::path root = fs::canonical(sysRoot_.empty() ? "/" : sysRoot_, ec);
    if (ec) return Result::failure("cannot resolve the sysfs root: " + ec.message());
    const fs::path resolved = fs::canonical(root / fs::path(path).relative_path(), ec);
    if (ec) return Result::failure("cannot read " + std::string(path) + ": " + ec.message());
    const bool inPowercap =
        (below(resolved, root / "sys/devices") || below(resolved, root / "sys/class/powercap")) &&
        hasComponent(resolved.lexically_relative(root), "powercap") &&
        resolved.filename() == kCounterFile;
    if (!inPowercap) {
        return Result::failure("counter path not allowed: " + std::string(path) +
                               " leads outside the powercap devices");
    }

    const int fd = ::open(resolved.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        return Result::failure("cannot read " + std::string(path) + ": " + std::strerror(errno));
    }
    struct stat info {};
    char buffer[64];
    ssize_t n = -1;
    int readError = 0;
    if (::fstat(fd, &info) != 0) {
        readError = errno;
    } else if (!S_ISREG(info.st_mode)) {
        readError = EINVAL;
    } else {
        n = ::read(fd, buffer, sizeof(buffer));
        if (n < 0) readError = errno;
    }
    ::close(fd);
    if (readError != 0) {
        return Result::failure("cannot read " + std::string(path) + ": " +
                               std::strerror(readError));
    }
    std::string_view text(buffer, static_cast<std::size_t>(n));
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.remove_suffix(1);
    std::uint64_t value = 0;
    const auto [ptr, parseError] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || parseError != std::errc() || ptr != text.data() + text.size()) {
        return Result::failure(std::string(path) + " does not hold a counter value");
    }
    return Result::success(value);
}

}  // namespace kelvo::helperd
