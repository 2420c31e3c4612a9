// A load trace: the offered CPU and GPU load of a workload, one level per simulated second.
#pragma once

#include <string>
#include <vector>

#include "foundation/sim/TraceFile.h"

namespace kelvo::quality {

struct LoadLevel {
    double cpu = 0;  // 0..1
    double gpu = 0;  // 0..1
};

class LoadTrace {
public:
    explicit LoadTrace(std::string name) : name_(std::move(name)) {}
    // A trace read from a file: each segment held for its seconds.
    static LoadTrace fromDescription(const sim::TraceDescription& description);

    // Appends `seconds` seconds at one level.
    void hold(int seconds, LoadLevel level);
    // Keeps only the first `seconds` seconds (short runs for smoke tests).
    void truncate(int seconds);

    const std::string& name() const { return name_; }
    int seconds() const { return static_cast<int>(levels_.size()); }
    LoadLevel at(int second) const { return levels_.at(static_cast<std::size_t>(second)); }
    // One segment per run of seconds at the same level, as a trace file holds it.
    sim::TraceDescription description() const;

private:
    std::string name_;
    std::vector<LoadLevel> levels_;
};

}  // namespace kelvo::quality
