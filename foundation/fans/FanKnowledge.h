// What Kelvo has learned about one fan at each duty cycle, and how that is kept in the store.
//
// The store keeps a FanCurve of (duty, rpm) pairs, read as:
//   (duty, rpm > 0)           the fan settled at that speed at that duty;
//   (duty, 0)                 a turning fan came to rest at that duty (the highest such duty);
//   (duty, kStartMarkerRPM)   the lowest duty seen to start it from rest.
// Curves stored before fans were learned in operation have only the first two kinds (the old
// start-up sweep ended at the first step where the fan stood still) and read the same way.
#pragma once

#include <map>
#include <optional>

#include "foundation/core/FanController.h"

namespace kelvo {

inline constexpr double kStartMarkerRPM = -1;

// The lowest duty cycle whose speed on the curve reaches `targetRPM`, interpolated between the
// points where the fan turns; full duty above the curve's top speed, the lowest duty that still
// turns the fan at or below its bottom speed. None when the curve has fewer than two points
// where the fan turns, or its speeds hardly differ (a tach that does not follow the duty cycle).
std::optional<int> dutyForRPMOnCurve(const FanCurve& curve, double targetRPM);

struct FanKnowledge {
    std::map<int, double> turning;  // duty -> settled speed
    std::optional<int> stopsAt;     // highest duty a turning fan came to rest at
    std::optional<int> startsAt;    // lowest duty seen to start it from rest

    static FanKnowledge fromCurve(const FanCurve& curve);
    FanCurve toCurve() const;
    // The turning points only, as dutyForRPMOnCurve reads them.
    FanCurve turningCurve() const;

    bool empty() const { return turning.empty() && !stopsAt && !startsAt; }
    // Two or more turning points whose speeds follow the duty: targets can be mapped through it.
    bool usable() const;
    std::optional<int> lowestTurningDuty() const;
    // The speed at the lowest turning duty.
    std::optional<double> lowestTurningRPM() const;
    // The speed at (or within a few steps of) full duty, when it has been seen.
    std::optional<double> topRPM() const;

    // A settled observation; a newer one wins over an older one that contradicts it.
    void noteTurning(int duty, double rpm);
    void noteStopped(int duty);
    void noteStarted(int duty);

    bool operator==(const FanKnowledge&) const = default;
};

}  // namespace kelvo
