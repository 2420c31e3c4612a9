#include "foundation/core/EventRing.h"

#include <algorithm>
#include <iterator>

namespace kelvo {

EventRing::EventRing(std::size_t capacity, double retentionSeconds, NowProvider nowProvider)
    : capacity_(capacity),
      retentionSeconds_(retentionSeconds),
      now_(nowProvider ? std::move(nowProvider) : NowProvider(wallClockNow)) {}

void EventRing::pruneLocked(Timestamp now) const {
    const Timestamp cutoff = now - retentionSeconds_;
    // Events are appended in arrival order, which is not always timestamp order (a store replay
    // can land behind a live event), so the whole deque is filtered, not just its front.
    std::erase_if(events_, [cutoff](const RuntimeEvent& e) { return e.timestamp < cutoff; });
    while (events_.size() > capacity_) events_.pop_front();
}

void EventRing::append(RuntimeEvent event) {
    const Timestamp now = now_();
    std::shared_ptr<const AppendObserver> observer;
    {
        std::lock_guard lock(mutex_);
        observer = observer_;
        if (observer) {
            events_.push_back(event);
        } else {
            events_.push_back(std::move(event));
        }
        pruneLocked(now);
    }
    if (observer) (*observer)(event);
}

void EventRing::setAppendObserver(AppendObserver observer) {
    std::lock_guard lock(mutex_);
    observer_ = observer ? std::make_shared<const AppendObserver>(std::move(observer)) : nullptr;
}

std::optional<RuntimeEvent> EventRing::latest() const {
    const Timestamp now = now_();
    std::lock_guard lock(mutex_);
    pruneLocked(now);
    if (events_.empty()) return std::nullopt;
    return events_.back();
}

std::vector<RuntimeEvent> EventRing::recent(std::size_t limit) const {
    const Timestamp now = now_();
    std::lock_guard lock(mutex_);
    pruneLocked(now);
    const std::size_t count = std::min(limit, events_.size());
    return std::vector<RuntimeEvent>(events_.end() - static_cast<std::ptrdiff_t>(count),
                                     events_.end());
}

}  // namespace kelvo
