// Profiling runs and the models derived from them. It keeps its own connection to the loop's
// database file, so long reads and exports never wait on the control loop's writes.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "foundation/EventRing.h"
#include "foundation/SQLiteStore.h"
#include "foundation/Types.h"

namespace kelvo {

class ProfilingService {
public:
    struct AdaptiveRestoreResult {
        std::optional<AdaptiveLeadModel> model;
        std::optional<std::string> error;  // set only when the database could not be read
    };

    ProfilingService(std::shared_ptr<EventRing> ring, std::string dbPath);

    AdaptiveRestoreResult restoreAdaptiveModel();
    std::optional<LearnedModel> activeLearnedModel();
    SQLiteStore& store() { return store_; }

private:
    std::shared_ptr<EventRing> ring_;
    SQLiteStore store_;
};

}  // namespace kelvo
