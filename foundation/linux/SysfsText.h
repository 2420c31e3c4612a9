// Reading sysfs/procfs attribute files: one short text value per file.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace kelvo::sysfs {

// The file's content without surrounding whitespace; none when it cannot be read.
std::optional<std::string> readTrimmed(const std::filesystem::path& path);

}  // namespace kelvo::sysfs
