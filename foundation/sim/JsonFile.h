// What the machine and trace files share: reading a bounded JSON file and saying, in one line
// that names the file, what is wrong with it. Internal to the framework; callers include
// MachineFile.h or TraceFile.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace kelvo::sim::detail {

// Ordered, so files are written in the order a reader expects and not alphabetically.
using Json = nlohmann::ordered_json;

// One problem with a file's content, without the file's name; read and write add that.
class Invalid : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

[[noreturn]] void invalid(const std::string& message);

// A key or key path as JSON writes it: quoted, with anything odd in it escaped so that an error
// stays on one line.
std::string quotedKey(std::string_view key);

std::string readString(const Json& value, const std::string& key);
// Any finite JSON number.
double readDouble(const Json& value, const std::string& key);
// A JSON integer (never 4.0) from lo to hi.
std::int64_t readInteger(const Json& value, const std::string& key, std::int64_t lo,
                         std::int64_t hi);
void checkFinite(double value, const std::string& key);
// Names that end up in file names of the bench's output.
void checkName(const std::string& name, const std::string& key);

// The file's JSON, or nullopt with "FILE: what is wrong" in *error.
std::optional<Json> readJsonFile(const std::filesystem::path& path, std::size_t maxBytes,
                                 std::string* error);
bool writeTextFile(const std::filesystem::path& path, const std::string& text, std::string* error);
void setError(std::string* error, const std::filesystem::path& path, const std::string& problem);

}  // namespace kelvo::sim::detail
