// The temperatures the user lets Kelvo aim for: the quiet limits per die and the performance
// target, with the range a value must fall in before it is applied.
#pragma once

#include <optional>
#include <string>

#include "foundation/control/ControlPolicy.h"
#include "foundation/core/Types.h"

namespace kelvo {

enum class UserLimitKind { cpuQuiet, gpuQuiet, performanceTarget };

struct UserLimits {
    double cpuQuietC = ControlLimits{}.quietCpuLimitC;
    double gpuQuietC = ControlLimits{}.quietGpuLimitC;
    double performanceTargetC = ControlLimits{}.performanceTargetC;
    bool operator==(const UserLimits&) const = default;
};

// Used where the die does not tell its critical trip point.
inline constexpr double kUserLimitCapC = 105;

const char* userLimitName(UserLimitKind kind);
// The highest value accepted for the limit: the die's critical trip point (the lower of the
// two for the performance target, which applies to both), else kUserLimitCapC.
double highestUserLimitC(UserLimitKind kind, const DieCriticalTemperatures& critical);
// Empty when the value is accepted, else the reason it is refused.
std::string userLimitRefusal(UserLimitKind kind, double valueC,
                             const DieCriticalTemperatures& critical);
double userLimit(const UserLimits& limits, UserLimitKind kind);
void setUserLimit(UserLimits& limits, UserLimitKind kind, double valueC);

}  // namespace kelvo
