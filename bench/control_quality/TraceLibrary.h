// The workloads every controller is run through. Each trace is generated from a seed, so the same
// seed gives every controller exactly the same load, second by second.
#pragma once

#include <cstdint>
#include <vector>

#include "LoadTrace.h"

namespace kelvo::quality {

class TraceLibrary {
public:
    explicit TraceLibrary(std::uint64_t seed) : seed_(seed) {}

    // idle-spikes, compile, game, render, mixed-day.
    std::vector<LoadTrace> all() const;

    LoadTrace idleWithSpikes(int seconds = 600) const;
    LoadTrace compileJob() const;
    LoadTrace gameWithLoadingScreens(int seconds = 900) const;
    LoadTrace sustainedRender() const;
    LoadTrace mixedDay() const;

private:
    std::uint64_t seed_;
};

}  // namespace kelvo::quality
