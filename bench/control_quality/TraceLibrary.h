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

    // idle-spikes, compile, game, render, mixed-day, video-call, bursty-desktop.
    std::vector<LoadTrace> all() const;

    LoadTrace idleWithSpikes(int seconds = 600) const;
    LoadTrace compileJob() const;
    LoadTrace gameWithLoadingScreens(int seconds = 900) const;
    LoadTrace sustainedRender() const;
    LoadTrace mixedDay() const;
    // Twenty minutes at a quarter of the CPU with a five-second burst to 80 % each minute.
    LoadTrace videoCall() const;
    // Thirty minutes of light desktop work with one-to-three-second spikes at irregular intervals.
    LoadTrace burstyDesktop() const;

private:
    std::uint64_t seed_;
};

}  // namespace kelvo::quality
