#include "foundation/control/RuntimeBenefitRegisters.h"

#include <algorithm>

namespace kelvo {

namespace {
constexpr std::string_view kFallbackMarker = "monitor+alert fallback";
constexpr std::string_view kBoundaryPressureMarker = "Repeated boundary pressure while in ";
}  // namespace

RuntimeBenefitRegisters::RuntimeBenefitRegisters(double windowSeconds,
                                                 double interventionEpisodeGapSeconds,
                                                 std::string windowDisplayName)
    : windowSeconds_(windowSeconds),
      gapSeconds_(interventionEpisodeGapSeconds),
      displayName_(std::move(windowDisplayName)) {}

void RuntimeBenefitRegisters::creditKelvo(Timestamp start, Timestamp end, bool warning) {
    // Intervals stay sorted and disjoint even if the clock stepped back between samples.
    if (!authorityIntervals_.empty()) start = std::max(start, authorityIntervals_.back().end);
    if (end < start) return;
    if (!authorityIntervals_.empty()) {
        Interval& last = authorityIntervals_.back();
        // Contiguous stretches with the same warning state collapse into one, which keeps the
        // deque at one entry per change of state rather than one per sample.
        if (last.end == start && last.warning == warning) {
            last.end = end;
            return;
        }
        if (last.end == start && start == end) return;  // a point inside an existing stretch
    }
    authorityIntervals_.push_back({start, end, warning});
}

void RuntimeBenefitRegisters::recordSample(Timestamp timestamp, ControlAuthorityState authority,
                                           bool throttleWarning) {
    if (lastTimestamp_ && lastAuthority_ == ControlAuthorityState::kelvo) {
        const double elapsed = timestamp - *lastTimestamp_;
        if (elapsed > 0 && elapsed <= gapSeconds_)
            creditKelvo(*lastTimestamp_, timestamp, lastWarning_);
    }
    // A Kelvo sample opens (or continues) an episode even before any time has been credited, so
    // the card counts an intervention from its first snapshot.
    if (authority == ControlAuthorityState::kelvo)
        creditKelvo(timestamp, timestamp, throttleWarning);
    lastTimestamp_ = timestamp;
    lastAuthority_ = authority;
    lastWarning_ = throttleWarning;
    prune(timestamp);
}

void RuntimeBenefitRegisters::recordEvents(const std::vector<RuntimeEvent>& events, Timestamp now) {
    const Timestamp cutoff = now - windowSeconds_;
    for (const auto& event : events) {
        if (event.timestamp < cutoff) continue;
        const bool fallback = event.message.find(kFallbackMarker) != std::string::npos;
        const bool boundary = event.message.find(kBoundaryPressureMarker) != std::string::npos;
        if (!fallback && !boundary) continue;
        std::string id = event.id.toString();
        if (!seenEventIds_.insert(id).second) continue;
        seenEventOrder_.emplace_back(event.timestamp, std::move(id));
        if (fallback) events_.push_back({event.timestamp, true});
        if (boundary) events_.push_back({event.timestamp, false});
    }
    prune(now);
}

void RuntimeBenefitRegisters::prune(Timestamp now) {
    const Timestamp cutoff = now - windowSeconds_;
    while (!authorityIntervals_.empty() && authorityIntervals_.front().end < cutoff)
        authorityIntervals_.pop_front();
    if (!authorityIntervals_.empty() && authorityIntervals_.front().start < cutoff)
        authorityIntervals_.front().start = cutoff;
    // Events may arrive out of timestamp order, so filter rather than pop from the front. An id
    // is forgotten only once its event is outside the window, where it could not count again.
    std::erase_if(events_, [cutoff](const CountedEvent& e) { return e.timestamp < cutoff; });
    std::erase_if(seenEventOrder_, [&](const auto& entry) {
        if (entry.first >= cutoff) return false;
        seenEventIds_.erase(entry.second);
        return true;
    });
}

RuntimeBenefitSummary RuntimeBenefitRegisters::summary(Timestamp now) const {
    const Timestamp cutoff = now - windowSeconds_;
    RuntimeBenefitSummary result;
    result.windowDisplayName = displayName_;
    result.windowSeconds = windowSeconds_;

    std::optional<Timestamp> episodeEnd;
    for (const auto& interval : authorityIntervals_) {
        if (interval.end < cutoff) continue;
        const Timestamp start = std::max(interval.start, cutoff);
        const Timestamp end = std::min(interval.end, now);
        const double seconds = std::max(0.0, end - start);
        result.kelvoAuthoritySeconds += seconds;
        if (!interval.warning) result.throttleWarningAvoidedSeconds += seconds;
        if (!episodeEnd || interval.start - *episodeEnd >= gapSeconds_) ++result.interventionCount;
        episodeEnd = interval.end;
    }

    for (const auto& event : events_) {
        if (event.timestamp < cutoff) continue;
        if (event.fallback)
            ++result.fallbackEventCount;
        else
            ++result.throttleWarningEventCount;
    }
    return result;
}

}  // namespace kelvo
