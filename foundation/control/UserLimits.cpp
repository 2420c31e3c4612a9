#include "foundation/control/UserLimits.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kelvo {

const char* userLimitName(UserLimitKind kind) {
    switch (kind) {
        case UserLimitKind::cpuQuiet: return "CPU quiet limit";
        case UserLimitKind::gpuQuiet: return "GPU quiet limit";
        case UserLimitKind::performanceTarget: return "performance target";
    }
    return "limit";
}

double highestUserLimitC(UserLimitKind kind, const DieCriticalTemperatures& critical) {
    double highest = kUserLimitCapC;
    bool known = false;
    auto take = [&](const std::optional<double>& value) {
        if (!value || *value <= kLowestUserLimitC) return;
        highest = known ? std::min(highest, *value) : *value;
        known = true;
    };
    if (kind != UserLimitKind::gpuQuiet) take(critical.cpuC);
    if (kind != UserLimitKind::cpuQuiet) take(critical.gpuC);
    return highest;
}

std::string userLimitRefusal(UserLimitKind kind, double valueC,
                             const DieCriticalTemperatures& critical) {
    const double highest = highestUserLimitC(kind, critical);
    if (std::isfinite(valueC) && valueC >= kLowestUserLimitC && valueC <= highest) return {};
    char text[160];
    std::snprintf(text, sizeof text, "The %s must be between %.0f °C and %.0f °C",
                  userLimitName(kind), kLowestUserLimitC, highest);
    return text;
}

double userLimit(const UserLimits& limits, UserLimitKind kind) {
    switch (kind) {
        case UserLimitKind::cpuQuiet: return limits.cpuQuietC;
        case UserLimitKind::gpuQuiet: return limits.gpuQuietC;
        case UserLimitKind::performanceTarget: return limits.performanceTargetC;
    }
    return 0;
}

void setUserLimit(UserLimits& limits, UserLimitKind kind, double valueC) {
    switch (kind) {
        case UserLimitKind::cpuQuiet: limits.cpuQuietC = valueC; break;
        case UserLimitKind::gpuQuiet: limits.gpuQuietC = valueC; break;
        case UserLimitKind::performanceTarget: limits.performanceTargetC = valueC; break;
    }
}

}  // namespace kelvo
