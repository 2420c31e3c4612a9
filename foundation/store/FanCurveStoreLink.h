// Learned fan curves are kept in the store: the fan back-end loads a fan's curve from it and
// saves what it learns there. The application and the control-quality bench link them alike.
#pragma once

#include <memory>

#include "foundation/core/FanController.h"

namespace kelvo {

class SQLiteStore;

// Nothing happens for a back-end that learns no curves. The store is held weakly: a back-end
// that outlives it loads and saves nothing.
void attachFanCurveStore(FanController& fans, const std::shared_ptr<SQLiteStore>& store);

}  // namespace kelvo
