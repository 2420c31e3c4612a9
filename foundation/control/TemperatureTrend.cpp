#include "foundation/control/TemperatureTrend.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

namespace kelvo {

namespace {
constexpr double kMaxJumpC = 60;
constexpr double kJumpWeight = 0.3;  // each new step moves the estimate this far towards itself
constexpr std::size_t kBendReadings = 5;

double det3(const std::array<std::array<double, 3>, 3>& a) {
    return a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
           a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
           a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
}

// Twice the t^2 coefficient of the least-squares quadratic through (t, y), by Cramer's rule on
// its normal equations; nothing with too few readings to tell a bend from noise.
std::optional<double> secondDerivative(const std::vector<std::pair<double, double>>& readings) {
    if (readings.size() < kBendReadings) return std::nullopt;
    std::array<double, 5> sumT{};  // sums of t^0 .. t^4
    std::array<double, 3> sumTY{};
    for (const auto& [t, y] : readings) {
        double tk = 1;
        for (std::size_t k = 0; k < sumT.size(); ++k, tk *= t) {
            sumT[k] += tk;
            if (k < sumTY.size()) sumTY[k] += tk * y;
        }
    }
    std::array<std::array<double, 3>, 3> m{};
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j) m[i][j] = sumT[i + j];
    const double d = det3(m);
    if (std::abs(d) <= 1e-12) return std::nullopt;
    for (std::size_t i = 0; i < 3; ++i) m[i][2] = sumTY[i];
    return 2 * det3(m) / d;
}
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
    while (!device.utilizations.empty() && now - device.utilizations.front().first >
                                               settings_.peakSeconds + settings_.fadeSeconds + 1e-9)
        device.utilizations.pop_front();
    device.lastTemperature = temp;
    device.baseLoad = baseLoad(device);
}

std::optional<double> TemperatureTrend::recentPeak(const StepWatch& device) const {
    std::optional<double> peak;
    if (device.utilizations.empty()) return peak;
    const Timestamp now = device.utilizations.back().first;
    for (const auto& [t, util] : device.utilizations)
        if (now - t <= settings_.peakSeconds + 1e-9) peak = std::max(peak.value_or(util), util);
    return peak;
}

// How much a level held from `age` seconds ago still counts: all of it for peakSeconds, then less
// and less over fadeSeconds.
double TemperatureTrend::heldWeight(double age) const {
    const double past = age - settings_.peakSeconds;
    if (settings_.fadeSeconds <= 0) return past <= 1e-9 ? 1.0 : 0.0;
    return std::clamp(1 - past / settings_.fadeSeconds, 0.0, 1.0);
}

// For each reading, the lowest utilisation over the heldSeconds that start there, for windows
// the readings cover; the highest of those lows, each brought towards the load now as it ages,
// is the level held. Three minutes at one a second are 180 short scans.
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
        const double now = *device.lastUtilization;
        base = std::max(base, now + heldWeight(u.back().first - u[i].first) * (low - now));
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

// A quadratic through the window's readings gives the slope's own change; a die levelling off
// towards where its heatsink will settle has at most slope^2 / -bend left to rise.
std::optional<double> TemperatureTrend::riseAhead(std::optional<double> Point::*die,
                                                  double seconds) const {
    const std::optional<double> linear = slope(die);
    if (!linear) return std::nullopt;
    const double straight = *linear * seconds;
    if (*linear <= 0) return straight;
    std::vector<std::pair<double, double>> readings;
    for (const auto& p : points_)
        if (p.*die) readings.emplace_back(p.t - points_.back().t, *(p.*die));
    const std::optional<double> bend = secondDerivative(readings);
    if (!bend || *bend >= 0) return straight;
    return std::min(straight, *linear * *linear / -*bend);
}

}  // namespace kelvo
