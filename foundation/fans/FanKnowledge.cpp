#include "foundation/fans/FanKnowledge.h"

#include <algorithm>
#include <cmath>

namespace kelvo {

namespace {

constexpr double kMaxDuty = 255;
constexpr double kMinimumSpeedSpan = 1.15;
// A point this close to full duty gives the fan's top speed.
constexpr int kTopDutyFrom = 250;

// Speeds never fall as the duty rises; a noisy reading is flattened into its neighbours.
FanCurve monotone(FanCurve curve) {
    std::sort(curve.begin(), curve.end());
    double highest = 0;
    for (auto& point : curve) {
        highest = std::max(highest, point.second);
        point.second = highest;
    }
    return curve;
}

int dutyOf(double duty) {
    return static_cast<int>(std::clamp(std::lround(duty), 0L, static_cast<long>(kMaxDuty)));
}

}  // namespace

std::optional<int> dutyForRPMOnCurve(const FanCurve& raw, double targetRPM) {
    FanCurve turning;
    for (const auto& point : raw)
        if (point.second > 0) turning.push_back(point);
    turning = monotone(std::move(turning));
    if (turning.size() < 2 || !std::isfinite(targetRPM)) return std::nullopt;
    // A tach that barely moves over the whole curve belongs to something the duty cycle does
    // not drive (or reads garbage): mapping through it would be worse than the linear map.
    if (turning.back().second < kMinimumSpeedSpan * turning.front().second) return std::nullopt;
    if (targetRPM <= turning.front().second) return static_cast<int>(turning.front().first);
    if (targetRPM >= turning.back().second) return static_cast<int>(kMaxDuty);
    for (std::size_t i = 1; i < turning.size(); ++i) {
        const auto& [lowDuty, lowRPM] = turning[i - 1];
        const auto& [highDuty, highRPM] = turning[i];
        if (targetRPM > highRPM) continue;
        if (highRPM <= lowRPM) return static_cast<int>(highDuty);
        const double share = (targetRPM - lowRPM) / (highRPM - lowRPM);
        // Rounded up: the fan should reach the target, not stop just short of it.
        return static_cast<int>(std::ceil(lowDuty + share * (highDuty - lowDuty)));
    }
    return static_cast<int>(kMaxDuty);
}

FanKnowledge FanKnowledge::fromCurve(const FanCurve& curve) {
    FanKnowledge knowledge;
    for (const auto& [duty, rpm] : curve) {
        if (!std::isfinite(duty) || !std::isfinite(rpm) || duty < 0 || duty > kMaxDuty) continue;
        if (rpm > 0) {
            knowledge.turning[dutyOf(duty)] = rpm;
        } else if (rpm == 0) {
            knowledge.stopsAt = std::max(knowledge.stopsAt.value_or(0), dutyOf(duty));
        } else if (rpm == kStartMarkerRPM) {
            knowledge.startsAt = std::min(knowledge.startsAt.value_or(255), dutyOf(duty));
        }
    }
    // A turning point at or under the stop duty contradicts it; the stop (the fan's behaviour
    // at the very bottom) is what the mapping must respect.
    if (knowledge.stopsAt)
        std::erase_if(knowledge.turning,
                      [&](const auto& point) { return point.first <= *knowledge.stopsAt; });
    return knowledge;
}

FanCurve FanKnowledge::toCurve() const {
    FanCurve curve;
    if (stopsAt) curve.emplace_back(*stopsAt, 0);
    for (const auto& [duty, rpm] : turning) curve.emplace_back(duty, rpm);
    if (startsAt) curve.emplace_back(*startsAt, kStartMarkerRPM);
    return curve;
}

FanCurve FanKnowledge::turningCurve() const {
    FanCurve curve;
    for (const auto& [duty, rpm] : turning) curve.emplace_back(duty, rpm);
    return curve;
}

bool FanKnowledge::usable() const {
    return dutyForRPMOnCurve(turningCurve(), 1).has_value();
}

std::optional<int> FanKnowledge::lowestTurningDuty() const {
    if (turning.empty()) return std::nullopt;
    return turning.begin()->first;
}

std::optional<double> FanKnowledge::lowestTurningRPM() const {
    if (turning.empty()) return std::nullopt;
    return turning.begin()->second;
}

std::optional<double> FanKnowledge::topRPM() const {
    if (turning.empty() || turning.rbegin()->first < kTopDutyFrom) return std::nullopt;
    double top = 0;
    for (const auto& [duty, rpm] : turning) top = std::max(top, rpm);
    return top;
}

void FanKnowledge::noteTurning(int duty, double rpm) {
    turning[duty] = rpm;
    if (stopsAt && duty <= *stopsAt) stopsAt.reset();
}

void FanKnowledge::noteStopped(int duty) {
    stopsAt = std::max(stopsAt.value_or(0), duty);
    std::erase_if(turning, [&](const auto& point) { return point.first <= duty; });
    if (startsAt && *startsAt <= duty) startsAt.reset();
}

void FanKnowledge::noteStarted(int duty) {
    startsAt = std::min(startsAt.value_or(255), duty);
}

}  // namespace kelvo
