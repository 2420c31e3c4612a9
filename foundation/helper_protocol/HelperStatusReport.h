// The text `kelvoctl helper status` prints: the helper's version and every fan and sensor it
// sees, with each fan's speed, duty cycle, mode and whether Kelvo holds it.
#pragma once

#include <optional>
#include <string>

#include "foundation/helper_protocol/HelperClient.h"

namespace kelvo {

// "manual", "full speed", "automatic" (firmware), ... for a pwmN_enable value.
std::string pwmModeText(std::optional<int> pwmEnable);

std::string formatHelperStatus(const HelperStatus& status, const std::string& socketPath);

}  // namespace kelvo
