// Running counters of what the controller achieved over a sliding window (24 hours on the card).
#pragma once

#include <deque>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "foundation/core/Types.h"

namespace kelvo {

struct RuntimeBenefitSummary {
    std::string windowDisplayName = "24 Hours";
    double windowSeconds = 86400;
    double kelvoAuthoritySeconds = 0;          // time the fans were under Kelvo's control
    int interventionCount = 0;                 // episodes of Kelvo authority separated by the gap
    double throttleWarningAvoidedSeconds = 0;  // Kelvo-authority time with no throttle warning
    int throttleWarningEventCount = 0;         // throttle/boundary events seen in the window
    int fallbackEventCount = 0;                // "monitor+alert fallback" events seen in the window
    bool operator==(const RuntimeBenefitSummary&) const = default;
};

class RuntimeBenefitRegisters {
public:
    RuntimeBenefitRegisters(double windowSeconds, double interventionEpisodeGapSeconds,
                            std::string windowDisplayName);

    // One call per ingested snapshot. Time between two calls is credited to the earlier
    // call's authority (gaps longer than the episode gap are not credited).
    void recordSample(Timestamp timestamp, ControlAuthorityState authority,
                      bool throttleWarning = false);
    // Events are de-duplicated by id; only the ones inside the window count.
    void recordEvents(const std::vector<RuntimeEvent>& events, Timestamp now);
    RuntimeBenefitSummary summary(Timestamp now) const;

private:
    struct Interval {
        Timestamp start;
        Timestamp end;
        bool warning;
    };
    struct CountedEvent {
        Timestamp timestamp;
        bool fallback;
    };
    void prune(Timestamp now);
    void creditKelvo(Timestamp start, Timestamp end, bool warning);

    double windowSeconds_;
    double gapSeconds_;
    std::string displayName_;
    std::deque<Interval> authorityIntervals_;  // Kelvo-authority stretches, oldest first
    std::deque<CountedEvent> events_;
    std::unordered_set<std::string> seenEventIds_;
    std::deque<std::pair<Timestamp, std::string>> seenEventOrder_;  // ids by time, for pruning
    std::optional<Timestamp> lastTimestamp_;
    ControlAuthorityState lastAuthority_ = ControlAuthorityState::system;
    bool lastWarning_ = false;
};

}  // namespace kelvo
