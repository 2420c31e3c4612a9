#include "foundation/control/QuietestMix.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "foundation/core/FanController.h"

namespace kelvo {

namespace {
constexpr int kCpu = 0;
constexpr int kGpu = 1;
// Prices are searched on a log scale between these; 48 halvings of that range find a price to
// about 1e-12 of itself.
constexpr double kLowestPrice = 1e-24;
constexpr double kHighestPrice = 1e24;
constexpr int kPriceBisections = 48;
// A fan whose minimum is 0 rpm is kept just above it: a command of 0 hands it to the firmware.
constexpr double kTurningRPM = 1e-6;
// Levels planned again and again (a plan's plateaus) are looked up, up to this many.
constexpr std::size_t kMaxCached = 200000;
}  // namespace

QuietestMix::QuietestMix(std::vector<Fan> fans) : fans_(std::move(fans)) {
    std::vector<double> low;
    std::vector<double> high;
    for (Fan& fan : fans_) {
        fan.lo = std::max(fan.lo, kTurningRPM);
        fan.hi = std::max(fan.hi, fan.lo);
        for (double& w : fan.weight) w = std::isfinite(w) ? std::max(0.0, w) : 0.0;
        if (!std::isfinite(fan.cost) || fan.cost < 0) fan.cost = 0;
        anyCanStop_ = anyCanStop_ || fan.canStop;
        low.push_back(fan.lo);
        high.push_back(fan.hi);
    }
    for (int die : {kCpu, kGpu}) {
        atMin_[die] = airflow(die, low);
        atMax_[die] = airflow(die, high);
    }
}

double QuietestMix::airflow(int die, const std::vector<double>& rpm) const {
    double sum = 0;
    for (std::size_t i = 0; i < fans_.size(); ++i)
        sum += fans_[i].weight[die] * std::max(0.0, rpm[i]);
    return sum;
}

double QuietestMix::cost(const std::vector<double>& rpm) const {
    double sum = 0;
    for (std::size_t i = 0; i < fans_.size(); ++i) {
        const double r = std::max(0.0, rpm[i]);
        sum += fans_[i].cost * r * r * r * r * r;
    }
    return sum;
}

// Each fan at the speed where its marginal sound power equals the price of the air it moves:
// 5·cost·r^4 = Σ price·weight, clamped to its range; fans in `stopped` stand still.
void QuietestMix::atPrices(double cpuPrice, double gpuPrice, unsigned stopped,
                           std::vector<double>& rpm) const {
    rpm.resize(fans_.size());
    for (std::size_t i = 0; i < fans_.size(); ++i) {
        const Fan& fan = fans_[i];
        if (stopped & (1u << i)) {
            rpm[i] = 0;
            continue;
        }
        const double worth = cpuPrice * fan.weight[kCpu] + gpuPrice * fan.weight[kGpu];
        const double r = fan.cost > 0 ? std::sqrt(std::sqrt(worth / (5 * fan.cost))) : fan.hi;
        rpm[i] = std::clamp(r, fan.lo, fan.hi);
    }
}

// The least price of `die`'s air, the other die's price fixed, at which its sink gets `need`;
// 0 when it does at no price.
double QuietestMix::leastPrice(int die, double otherPrice, unsigned stopped, double need) const {
    std::vector<double> rpm;
    auto meets = [&](double price) {
        die == kCpu ? atPrices(price, otherPrice, stopped, rpm)
                    : atPrices(otherPrice, price, stopped, rpm);
        return airflow(die, rpm) >= need;
    };
    if (meets(0)) return 0;
    double low = std::log(kLowestPrice);
    double high = std::log(kHighestPrice);
    for (int i = 0; i < kPriceBisections; ++i) {
        const double mid = (low + high) / 2;
        (meets(std::exp(mid)) ? high : low) = mid;
    }
    return std::exp(high);
}

// The quietest speeds with the fans in `stopped` standing still that give each sink its need;
// false when even the others at full speed do not.
bool QuietestMix::solve(const double need[2], unsigned stopped, std::vector<double>& rpm) const {
    atPrices(kHighestPrice, kHighestPrice, stopped, rpm);
    if (airflow(kCpu, rpm) < need[kCpu] || airflow(kGpu, rpm) < need[kGpu]) return false;
    // One die's need alone, then the other's: where meeting one meets both, that is the optimum.
    for (int die : {kCpu, kGpu}) {
        const double price = leastPrice(die, 0, stopped, need[die]);
        die == kCpu ? atPrices(price, 0, stopped, rpm) : atPrices(0, price, stopped, rpm);
        if (airflow(kCpu, rpm) >= need[kCpu] && airflow(kGpu, rpm) >= need[kGpu]) return true;
    }
    // Both needs bind: the least GPU price at which, with the CPU's price set to meet its own
    // need, the GPU's sink gets its need too.
    auto meetsBoth = [&](double gpuPrice) {
        const double cpuPrice = leastPrice(kCpu, gpuPrice, stopped, need[kCpu]);
        atPrices(cpuPrice, gpuPrice, stopped, rpm);
        return airflow(kGpu, rpm) >= need[kGpu];
    };
    double low = std::log(kLowestPrice);
    double high = std::log(kHighestPrice);
    for (int i = 0; i < kPriceBisections; ++i) {
        const double mid = (low + high) / 2;
        (meetsBoth(std::exp(mid)) ? high : low) = mid;
    }
    meetsBoth(std::exp(high));
    return true;
}

const std::vector<double>& QuietestMix::speeds(double cpuLevel, double gpuLevel) {
    const double lowest = lowestLevel();
    // A level that is not a number asks for nothing (and would break the cache's ordering).
    auto level = [lowest](double value) {
        return std::isnan(value) ? lowest : std::clamp(value, lowest, 1.0);
    };
    const double levels[2] = {level(cpuLevel), level(gpuLevel)};
    const auto key = std::make_pair(levels[kCpu], levels[kGpu]);
    if (auto found = cache_.find(key); found != cache_.end()) return found->second;
    if (cache_.size() >= kMaxCached) cache_.clear();

    double need[2];
    for (int die : {kCpu, kGpu})
        need[die] = levels[die] >= 0 ? atMin_[die] + levels[die] * (atMax_[die] - atMin_[die])
                                     : atMin_[die] * (1 + levels[die]);
    std::vector<double> best;
    double bestCost = HUGE_VAL;
    std::vector<double> rpm;
    unsigned stoppable = 0;
    for (std::size_t i = 0; i < fans_.size() && i < 32; ++i)
        if (fans_[i].canStop) stoppable |= 1u << i;
    // Every subset of the fans that can stop, standing still.
    for (unsigned stopped = stoppable;; stopped = (stopped - 1) & stoppable) {
        if (solve(need, stopped, rpm)) {
            const double c = cost(rpm);
            if (c < bestCost) {
                bestCost = c;
                best = rpm;
                for (std::size_t i = 0; i < fans_.size(); ++i)
                    if (stopped & (1u << i)) best[i] = kFanStopRPM;
            }
        }
        if (stopped == 0) break;
    }
    if (best.empty()) {  // level 1 is always met by every fan at full speed
        for (const Fan& fan : fans_) best.push_back(fan.hi);
    }
    return cache_.emplace(key, std::move(best)).first->second;
}

std::vector<double> QuietestMix::duties(const std::vector<double>& speeds) const {
    std::vector<double> duty;
    for (std::size_t i = 0; i < fans_.size() && i < speeds.size(); ++i) {
        const Fan& fan = fans_[i];
        if (speeds[i] < 0) {
            duty.push_back(-1);
            continue;
        }
        duty.push_back(
            fan.hi > fan.lo ? std::clamp((speeds[i] - fan.lo) / (fan.hi - fan.lo), 0.0, 1.0) : 0.0);
    }
    return duty;
}

double QuietestMix::levelAt(int die, const std::vector<double>& duties) const {
    if (die != kCpu && die != kGpu) return 0;
    std::vector<double> rpm;
    for (std::size_t i = 0; i < fans_.size(); ++i) {
        const double d = i < duties.size() ? duties[i] : 0.0;
        rpm.push_back(d < 0 ? 0.0 : fans_[i].lo + std::min(d, 1.0) * (fans_[i].hi - fans_[i].lo));
    }
    const double air = airflow(die, rpm);
    if (air >= atMin_[die]) {
        const double span = atMax_[die] - atMin_[die];
        return span > 0 ? std::min(1.0, (air - atMin_[die]) / span) : 0.0;
    }
    return atMin_[die] > 0 ? std::max(lowestLevel(), air / atMin_[die] - 1) : 0.0;
}

}  // namespace kelvo
