// Load traces as JSON files: a name and a list of segments, each some whole seconds at one CPU
// and GPU load, so a workload can be recorded or written by hand and replayed on the bench.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kelvo::sim {

struct TraceSegment {
    int seconds = 0;
    double cpu = 0;  // 0..1
    double gpu = 0;  // 0..1

    bool operator==(const TraceSegment&) const = default;
};

struct TraceDescription {
    std::string name;
    std::vector<TraceSegment> segments;

    bool operator==(const TraceDescription&) const = default;
};

inline constexpr std::size_t kMaxTraceFileBytes = 16 << 20;
inline constexpr int kMaxTraceSeconds = 7 * 24 * 3600;

// On failure: nullopt, and *error holds one line naming the file and what is wrong with it.
std::optional<TraceDescription> readTraceFile(const std::filesystem::path& path,
                                              std::string* error);
// Writes one segment per line, loads so that they read back exactly, with neighbouring segments
// at the same load merged into one.
bool writeTraceFile(const std::filesystem::path& path, const TraceDescription& trace,
                    std::string* error);

}  // namespace kelvo::sim
