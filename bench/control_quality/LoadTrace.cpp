#include "LoadTrace.h"

#include <algorithm>

namespace kelvo::quality {

void LoadTrace::hold(int seconds, LoadLevel level) {
    level.cpu = std::clamp(level.cpu, 0.0, 1.0);
    level.gpu = std::clamp(level.gpu, 0.0, 1.0);
    for (int i = 0; i < seconds; ++i) levels_.push_back(level);
}

LoadTrace LoadTrace::fromDescription(const sim::TraceDescription& description) {
    LoadTrace trace(description.name);
    for (const auto& segment : description.segments)
        trace.hold(segment.seconds, {segment.cpu, segment.gpu});
    return trace;
}

sim::TraceDescription LoadTrace::description() const {
    sim::TraceDescription description{name_, {}};
    for (const LoadLevel& level : levels_) {
        auto& segments = description.segments;
        if (!segments.empty() && segments.back().cpu == level.cpu &&
            segments.back().gpu == level.gpu)
            ++segments.back().seconds;
        else
            segments.push_back({1, level.cpu, level.gpu});
    }
    return description;
}

void LoadTrace::truncate(int seconds) {
    if (seconds >= 0 && seconds < this->seconds())
        levels_.resize(static_cast<std::size_t>(seconds));
}

}  // namespace kelvo::quality
