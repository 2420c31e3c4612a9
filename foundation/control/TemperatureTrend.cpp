#include "foundation/control/TemperatureTrend.h"

#include <algorithm>
#include <cmath>

namespace kelvo {

namespace {
constexpr double kMaxJumpC = 60;
constexpr double kJumpWeight = 0.3;  // each new step moves the estimate this far towards itself
}  // namespace

void TemperatureTrend::add(const TelemetrySample& sample) {
    const Timestamp now = sample.timestamp;
    if (!points_.empty() && now <= points_.back().t) clear();  // the clock went back: start over
    // Per device: a game's loading screen swaps GPU load for CPU load without changing the peak.
    watch(cpu_, sample.cpuUtilizationPct, sample.cpuTemperatureC, now);
    watch(gpu_, sample.gpuUtilizationPct, sample.gpuTemperatureC, now);
    points_.push_back({now, sample.cpuTemperatureC, sample.gpuTemperatureC});
    while (!points_.empty() && now - points_.front().t > settings_.windowSeconds + 1e-9)
        points_.pop_front();
    // Readings from before a step (and the step itself) are about another load.
    if (lastStep_)
        while (!points_.empty() && points_.front().t < *lastStep_ + settings_.settleSeconds - 1e-9)
            points_.pop_front();
}

// A die answers a step in its own load within a second or two (its heat capacity is small);
// the settle time later, the change per unit of load is the jump a full burst would bring.
void TemperatureTrend::watch(StepWatch& device, const std::optional<double>& util,
                             const std::optional<double>& temp, Timestamp now) {
    auto learn = [&](const std::optional<double>& reached) {
        if (reached && device.stepPct > 0) {
            const double perFull = (*reached - device.temperatureBefore) / device.stepPct * 100.0;
            const double clamped = std::clamp(perFull, 0.0, kMaxJumpC);
            device.jumpC =
                device.jumpC ? *device.jumpC + kJumpWeight * (clamped - *device.jumpC) : clamped;
        }
        device.stepAt.reset();
    };
    const bool stepped = util && device.lastUtilization &&
                         std::abs(*util - *device.lastUtilization) >= settings_.loadStepPct;
    // A burst that ends before the settle time is measured where it ended: read after it, the
    // die has already fallen back and the jump would look a fraction of what it was. One that
    // ends before the die had time to answer says nothing.
    if (device.stepAt && stepped) {
        if (now - *device.stepAt >= settings_.answerSeconds - 1e-9)
            learn(device.lastTemperature);
        else
            device.stepAt.reset();
    }
    if (device.stepAt && now - *device.stepAt >= settings_.settleSeconds - 1e-9) learn(temp);
    if (stepped) {
        lastStep_ = now;
        // Only rises teach the jump: after a fall the die sinks towards a warm heatsink.
        if (*util > *device.lastUtilization && device.lastTemperature) {
            device.stepAt = now;
            device.stepPct = *util - *device.lastUtilization;
            device.temperatureBefore = *device.lastTemperature;
        } else {
            device.stepAt.reset();
        }
    }
    if (util) {
        device.lastUtilization = util;
        device.utilizations.emplace_back(now, *util);
    }
    while (!device.utilizations.empty() &&
           now - device.utilizations.front().first > settings_.peakSeconds + 1e-9)
        device.utilizations.pop_front();
    device.lastTemperature = temp;
}

std::optional<double> TemperatureTrend::recentPeak(const StepWatch& device) {
    std::optional<double> peak;
    for (const auto& [t, util] : device.utilizations) peak = std::max(peak.value_or(util), util);
    return peak;
}

// For each reading, the lowest utilisation over the heldSeconds that start there, for windows
// the readings cover; the highest of those lows is the level held. A minute at one a second is
// sixty short scans.
std::optional<double> TemperatureTrend::baseLoad(const StepWatch& device) const {
    if (!device.lastUtilization) return std::nullopt;
    double base = *device.lastUtilization;
    const auto& u = device.utilizations;
    for (std::size_t i = 0; i < u.size(); ++i) {
        const Timestamp end = u[i].first + settings_.heldSeconds - 1e-9;
        if (u.back().first < end) break;  // this window and later ones are not over yet
        double low = u[i].second;
        for (std::size_t j = i + 1; j < u.size() && u[j].first < end; ++j)
            low = std::min(low, u[j].second);
        base = std::max(base, low);
    }
    return base;
}

void TemperatureTrend::clear() {
    points_.clear();
    cpu_ = {};
    gpu_ = {};
    lastStep_.reset();
}

// Least squares over the window's readings of one die.
std::optional<double> TemperatureTrend::slope(std::optional<double> Point::*die) const {
    double n = 0, st = 0, sy = 0, stt = 0, sty = 0;
    for (const auto& p : points_) {
        if (!(p.*die)) continue;
        const double t = p.t - points_.back().t;
        n += 1;
        st += t;
        sy += *(p.*die);
        stt += t * t;
        sty += t * *(p.*die);
    }
    if (n < static_cast<double>(settings_.minReadings)) return std::nullopt;
    const double denominator = n * stt - st * st;
    if (denominator <= 1e-12) return std::nullopt;
    return (n * sty - st * sy) / denominator;
}

}  // namespace kelvo
