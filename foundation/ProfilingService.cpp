#include "foundation/ProfilingService.h"

#include <algorithm>

namespace kelvo {

ProfilingService::ProfilingService(std::shared_ptr<EventRing> ring, std::string dbPath)
    : ring_(std::move(ring)), store_(std::move(dbPath)) {
    if (!ring_) return;
    // The loop's store opened the same file first and already reported what went wrong with it;
    // only a problem that this connection alone met is worth a second event.
    const auto reported = ring_->recent(ring_->capacity());
    for (auto& event : store_.takeStartupEvents()) {
        const bool duplicate = std::any_of(reported.begin(), reported.end(), [&](const auto& e) {
            return e.message == event.message;
        });
        if (!duplicate) ring_->append(std::move(event));
    }
}

ProfilingService::AdaptiveRestoreResult ProfilingService::restoreAdaptiveModel() {
    AdaptiveRestoreResult result;
    std::string error;
    result.model = store_.activeAdaptiveLeadModel(&error);
    if (!error.empty()) result.error = error;
    return result;
}

std::optional<LearnedModel> ProfilingService::activeLearnedModel() {
    return store_.activeLearnedModel();
}

}  // namespace kelvo
