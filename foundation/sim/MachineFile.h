// Simulated machines as JSON files, so a machine can be described, shared and changed without a
// rebuild. A file is one object: "name" and any PlantConfig member, spelled as in C++; a member
// left out keeps PlantConfig's default.
#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "foundation/sim/ThermalPlant.h"

namespace kelvo::sim {

struct MachineDescription {
    std::string name;
    PlantConfig plant;

    bool operator==(const MachineDescription&) const = default;
};

// One PlantConfig member as a machine file names it.
struct PlantField {
    std::string_view key;
    std::variant<double PlantConfig::*, int PlantConfig::*, std::vector<FanConfig> PlantConfig::*>
        member;
};

// Every member, in the order files are written.
std::span<const PlantField> plantFields();

inline constexpr std::size_t kMaxMachineFileBytes = 1 << 20;
inline constexpr int kMaxLogicalCpus = 256;
// A fan's coupling to a die's sink: 1 is a fan that blows all its air through that sink.
inline constexpr double kMaxCouplingWeight = 10;
// No sensor Kelvo reads reports in coarser steps than whole degrees; a few is room to spare.
inline constexpr int kMostTemperatureStepC = 5;

// On failure: nullopt, and *error holds one line naming the file and what is wrong with it.
std::optional<MachineDescription> readMachineFile(const std::filesystem::path& path,
                                                  std::string* error);
// Writes every member, doubles so that they read back exactly. Refuses a machine that would not
// read back (a non-finite value, no fans, ...), with the same kind of error line.
bool writeMachineFile(const std::filesystem::path& path, const MachineDescription& machine,
                      std::string* error);

}  // namespace kelvo::sim
