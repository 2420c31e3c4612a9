// Bounded in-memory log of runtime events, shared by the loop, the profiling service and the app.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "foundation/core/Types.h"

namespace kelvo {

class EventRing {
public:
    using NowProvider = std::function<Timestamp()>;

    // Keeps at most `capacity` events, none older than `retentionSeconds` (by `nowProvider`).
    EventRing(std::size_t capacity, double retentionSeconds,
              NowProvider nowProvider = wallClockNow);

    void append(RuntimeEvent event);
    // Called with every event appended from now on, on the appending thread, after the event
    // is stored and with no lock held (so it may read the ring).
    using AppendObserver = std::function<void(const RuntimeEvent&)>;
    void setAppendObserver(AppendObserver observer);
    std::optional<RuntimeEvent> latest() const;
    // The newest `limit` events that are still retained, oldest first.
    std::vector<RuntimeEvent> recent(std::size_t limit) const;

    std::size_t capacity() const { return capacity_; }
    double retentionSeconds() const { return retentionSeconds_; }

private:
    void pruneLocked(Timestamp now) const;

    const std::size_t capacity_;
    const double retentionSeconds_;
    const NowProvider now_;
    mutable std::mutex mutex_;
    mutable std::deque<RuntimeEvent> events_;
    std::shared_ptr<const AppendObserver> observer_;
};

}  // namespace kelvo
