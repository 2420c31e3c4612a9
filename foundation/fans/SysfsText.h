// Reading sysfs/procfs attribute files: one short text value per file.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace kelvo::sysfs {

// The file's content without surrounding whitespace; none when it cannot be read.
std::optional<std::string> readTrimmed(const std::filesystem::path& path);

// Writes like `echo value > path` (sysfs parses the trailing newline). On failure `error` gets
// "cannot write <path>: <reason>" and `errorNumber` the errno.
bool writeInteger(const std::filesystem::path& path, long long value, std::string* error,
                  int* errorNumber = nullptr);

// The device an hwmon directory belongs to, as a path below `root` ("virtual" when it has
// none), so a device keeps its name whatever hwmonN the kernel gave it this time.
std::string hwmonDevicePath(const std::filesystem::path& hwmonDir,
                            const std::filesystem::path& root);

}  // namespace kelvo::sysfs
