#include "LoadTrace.h"

#include <algorithm>

namespace kelvo::quality {

void LoadTrace::hold(int seconds, LoadLevel level) {
    level.cpu = std::clamp(level.cpu, 0.0, 1.0);
    level.gpu = std::clamp(level.gpu, 0.0, 1.0);
    for (int i = 0; i < seconds; ++i) levels_.push_back(level);
}

void LoadTrace::truncate(int seconds) {
    if (seconds >= 0 && seconds < this->seconds())
        levels_.resize(static_cast<std::size_t>(seconds));
}

}  // namespace kelvo::quality
