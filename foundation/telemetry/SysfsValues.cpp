#include "foundation/telemetry/SysfsValues.h"

#include <algorithm>
#include <charconv>

#include "foundation/core/SysfsMounts.h"

namespace kelvo::sysfs {

namespace fs = std::filesystem;

namespace {

template <typename T>
std::optional<T> parseWhole(const fs::path& path) {
    const auto text = readAttribute(path);
    if (!text || text->empty()) return std::nullopt;
    T value{};
    const char* end = text->data() + text->size();
    const auto [ptr, ec] = std::from_chars(text->data(), end, value);
    if (ec != std::errc() || ptr != end) return std::nullopt;
    return value;
}

bool allDigits(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

std::optional<std::string> readAttribute(const fs::path& path) {
    // Sampling reads dozens of these per tick; a stream per file costs more than the read.
    constexpr std::size_t kLimit = 64 * 1024;
    const auto text = readFileText(path, kLimit);
    if (!text) return std::nullopt;
    const auto first = text->find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return std::string();
    const auto last = text->find_last_not_of(" \t\r\n");
    return text->substr(first, last - first + 1);
}

std::optional<double> readDouble(const fs::path& path) {
    return parseWhole<double>(path);
}
std::optional<std::int64_t> readInt(const fs::path& path) {
    return parseWhole<std::int64_t>(path);
}
std::optional<std::uint64_t> readUnsigned(const fs::path& path) {
    return parseWhole<std::uint64_t>(path);
}

std::optional<double> readMilliCelsius(const fs::path& path) {
    if (auto value = readDouble(path)) return *value / 1000.0;
    return std::nullopt;
}

int entryNumber(const fs::path& entry, std::string_view prefix) {
    const std::string name = entry.filename().string();
    int number = 0;
    if (name.size() <= prefix.size()) return 0;
    std::from_chars(name.data() + prefix.size(), name.data() + name.size(), number);
    return number;
}

std::vector<fs::path> numberedEntries(const fs::path& dir, std::string_view prefix) {
    std::vector<fs::path> entries;
    for (fs::path& entry : directoryEntries(dir)) {
        const std::string name = entry.filename().string();
        if (!name.starts_with(prefix) || !allDigits(std::string_view(name).substr(prefix.size()))) {
            continue;
        }
        entries.push_back(std::move(entry));
    }
    std::sort(entries.begin(), entries.end(), [&](const fs::path& a, const fs::path& b) {
        return entryNumber(a, prefix) < entryNumber(b, prefix);
    });
    return entries;
}

}  // namespace kelvo::sysfs
