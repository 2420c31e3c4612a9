#include "foundation/fans/FanCurveLearner.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace kelvo {

namespace {

constexpr double kMaxDuty = 255;
constexpr double kMinimumSpeedSpan = 1.15;

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

}  // namespace

std::optional<int> dutyForRPMOnCurve(const FanCurve& raw, double targetRPM) {
    FanCurve turning;
    for (const auto& point : monotone(raw))
        if (point.second > 0) turning.push_back(point);
    if (turning.size() < 2 || !std::isfinite(targetRPM)) return std::nullopt;
    // A tach that barely moves over the whole sweep belongs to something the duty cycle does
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

int FanCurveLearner::linearDuty(double targetRPM, double minRPM, double maxRPM) {
    const double max = maxRPM > 0 ? maxRPM : kAssumedMaxRPM;
    const double min = minRPM > 0 && minRPM < max ? minRPM : 0;
    if (!std::isfinite(targetRPM)) return targetRPM > 0 ? 255 : 0;
    const double duty = std::round(kMaxDuty * (targetRPM - min) / (max - min));
    return static_cast<int>(std::clamp(duty, 0.0, kMaxDuty));
}

void FanCurveLearner::setStore(FanCurveStore store) {
    store_ = std::move(store);
    // Curves already in the database win over a sweep that has not finished yet.
    for (auto& [identity, fan] : fans_)
        if (!fan.curve) fan.loaded = false;
}

FanCurveLearner::FanLearning& FanCurveLearner::learning(const std::string& identity) {
    FanLearning& fan = fans_[identity];
    if (!fan.loaded && store_.load) {
        fan.loaded = true;
        auto stored = store_.load(identity);
        if (stored && dutyForRPMOnCurve(*stored, 1)) {
            fan.curve = std::move(stored);
            fan.sweep.reset();
        }
    }
    return fan;
}

bool FanCurveLearner::shouldStartSweep(const FanLearning& fan, double targetRPM, double maxRPM,
                                       Clock::time_point now) const {
    // Without somewhere to keep the result, a sweep would have to run again at every launch.
    if (!store_.save) return false;
    if (fan.curve || fan.sweep || fan.unlearnable) return false;
    if (fan.retryAt && now < *fan.retryAt) return false;
    const double top = maxRPM > 0 ? maxRPM : kAssumedMaxRPM;
    return targetRPM <= kCalmShareOfMax * top;
}

int FanCurveLearner::dutyFor(const std::string& identity, double targetRPM,
                             std::optional<double> measuredRPM, double minRPM, double maxRPM) {
    const Clock::time_point now = now_();
    FanLearning& fan = learning(identity);
    if (shouldStartSweep(fan, targetRPM, maxRPM, now)) {
        fan.sweep = Sweep{0, now, std::nullopt, targetRPM, {}};
        return kSweepDuties[0];
    }
    if (fan.sweep && advance(identity, fan, targetRPM, measuredRPM, now))
        return kSweepDuties[fan.sweep->step];
    if (fan.curve) {
        if (auto duty = dutyForRPMOnCurve(*fan.curve, targetRPM)) return *duty;
    }
    return linearDuty(targetRPM, minRPM, maxRPM);
}

bool FanCurveLearner::advance(const std::string& identity, FanLearning& fan, double targetRPM,
                              std::optional<double> measuredRPM, Clock::time_point now) {
    Sweep& sweep = *fan.sweep;
    if (targetRPM > sweep.startTarget * kRiseShare + kRiseRPM) {
        // The loop wants more air than the sweep gives: the fan is the loop's again at once.
        fan.sweep.reset();
        fan.retryAt = now + kRetryAfterAbandon;
        return false;
    }
    if (!measuredRPM) {
        fan.sweep.reset();
        fan.unlearnable = true;
        return false;
    }
    const auto held = now - sweep.stepStart;
    if (held < kMinimumSettle) {
        sweep.previousReading = measuredRPM;
        return true;
    }
    const bool settled = sweep.previousReading &&
                         std::abs(*measuredRPM - *sweep.previousReading) <=
                             std::max(kSettledRPM, kSettledFraction * std::max(*measuredRPM, 1.0));
    if (!settled && held < kLongestSettle) {
        sweep.previousReading = measuredRPM;
        return true;
    }
    sweep.points.emplace_back(kSweepDuties[sweep.step], std::max(0.0, *measuredRPM));
    const bool stopped = *measuredRPM <= 0;
    if (stopped || sweep.step + 1 >= std::size(kSweepDuties)) {
        finish(identity, fan);
        return false;
    }
    ++sweep.step;
    sweep.stepStart = now;
    sweep.previousReading.reset();
    return true;
}

void FanCurveLearner::finish(const std::string& identity, FanLearning& fan) {
    FanCurve curve = monotone(std::move(fan.sweep->points));
    fan.sweep.reset();
    if (!dutyForRPMOnCurve(curve, 1)) {
        // Fewer than two turning steps: the tach does not follow the duty cycle.
        fan.unlearnable = true;
        return;
    }
    if (store_.save) store_.save(identity, curve);
    fan.curve = std::move(curve);
}

void FanCurveLearner::released(const std::string& identity) {
    const auto it = fans_.find(identity);
    if (it != fans_.end()) it->second.sweep.reset();
}

std::optional<FanCurve> FanCurveLearner::curve(const std::string& identity) {
    return learning(identity).curve;
}

bool FanCurveLearner::sweeping(const std::string& identity) const {
    const auto it = fans_.find(identity);
    return it != fans_.end() && it->second.sweep.has_value();
}

}  // namespace kelvo
