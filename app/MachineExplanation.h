// What a machine offers Kelvo, said once in a sentence when it is less than a fan-control
// program needs: no temperature and no fan (a VM, a container, a board whose sensors need a
// driver), or temperatures but no fan. Nothing to say about a machine with both.
#pragma once

#include <optional>
#include <string>

#include "foundation/control/ControlEngine.h"

namespace kelvo {

std::optional<std::string> explainMachine(const ControlSnapshot& snapshot);

}  // namespace kelvo
