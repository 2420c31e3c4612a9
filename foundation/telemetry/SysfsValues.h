// Numeric sysfs/procfs attributes and numbered directory entries, shared by the samplers.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvo::sysfs {

// The trimmed content of a small attribute file (at most 64 KiB are read), with one open and
// read instead of a stream; none when it cannot be read.
std::optional<std::string> readAttribute(const std::filesystem::path& path);

// The whole trimmed file as a number; none when unreadable, empty or not entirely a number.
std::optional<double> readDouble(const std::filesystem::path& path);
std::optional<std::int64_t> readInt(const std::filesystem::path& path);
std::optional<std::uint64_t> readUnsigned(const std::filesystem::path& path);

// sysfs temperatures are millidegrees Celsius.
std::optional<double> readMilliCelsius(const std::filesystem::path& path);

// Entries of `dir` named `prefix` followed by digits only, in numeric order of those digits
// (cpu2 before cpu10). Links are listed as links; nothing is resolved.
std::vector<std::filesystem::path> numberedEntries(const std::filesystem::path& dir,
                                                   std::string_view prefix);

// The number after `prefix` in an entry name from numberedEntries.
int entryNumber(const std::filesystem::path& entry, std::string_view prefix);

}  // namespace kelvo::sysfs
