#include "ForesightPlanner.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <optional>
#include <tuple>

#include "PlantMix.h"
#include "SoundLevel.h"
#include "foundation/control/ControlPolicy.h"
#include "foundation/core/FanController.h"

namespace kelvo::quality {

namespace {

// How far back from the first second it fixes a raise may start: fan noise grows with the fifth
// power of speed, so a long gentle raise can beat a short hard one, up to about the heatsink's
// time constant.
constexpr int kWindowsS[] = {0, 3, 8, 20, 45, 90, 180, 360};
// Seconds over in a row (a sustained load) are fixed up to this many at a time.
constexpr int kMaxRunS = 8;
// A level is searched to this fraction of the fan range, or until the die sits this close under
// its limit, in at most so many plant replays.
constexpr double kLevelTolerance = 1e-4;
constexpr double kExcessToleranceC = 0.005;
constexpr int kMaxLevelEvaluations = 12;
constexpr int kLoweringBisections = 6;
// Margin for deciding, after a lowered stretch, that the rest of the run cannot go over.
constexpr double kSettledMarginC = 0.001;
constexpr double kSettledRPM = 0.01;
// The whole search steps the plant at most this many seconds per second of trace.
constexpr long kStepBudgetPerSecond = 2000;

// Sound energy of one or more seconds: what the listener hears (floored at the threshold of
// hearing, as the metric counts it), then the fans' own power to break ties under that floor.
struct Energy {
    double heard = 0;
    double raw = 0;

    Energy& operator+=(const Energy& other) {
        heard += other.heard;
        raw += other.raw;
        return *this;
    }
    Energy operator-(const Energy& other) const { return {heard - other.heard, raw - other.raw}; }
    bool operator<(const Energy& other) const {
        return std::tie(heard, raw) < std::tie(other.heard, other.raw);
    }
};

// A second's plan: how much air each die's sink gets, as QuietestMix's levels (0 every fan at
// its minimum, 1 every fan at full speed). The fans' speeds are the quietest mix that gives both.
struct Levels {
    double cpu = 0;
    double gpu = 0;

    double& operator[](sim::Die die) { return die == sim::Die::cpu ? cpu : gpu; }
    double operator[](sim::Die die) const { return die == sim::Die::cpu ? cpu : gpu; }
    bool operator==(const Levels&) const = default;
};

// Every fan at full speed.
constexpr Levels kFull{1.0, 1.0};

// Which levels a raise lifts: one die's, or both where one alone cannot hold it.
enum class Lift { cpu, gpu, both };

Lift liftFor(sim::Die die) {
    return die == sim::Die::cpu ? Lift::cpu : Lift::gpu;
}

// The levels with those a raise lifts brought up to at least `level`.
Levels lifted(Levels levels, Lift lift, double level) {
    if (lift != Lift::gpu) levels.cpu = std::max(levels.cpu, level);
    if (lift != Lift::cpu) levels.gpu = std::max(levels.gpu, level);
    return levels;
}

double lowestOf(const Levels& levels, Lift lift) {
    return lift == Lift::cpu   ? levels.cpu
           : lift == Lift::gpu ? levels.gpu
                               : std::min(levels.cpu, levels.gpu);
}

// What the lowering pass compares a changed run against, second by second.
struct Reference {
    double cpuC = 0;
    double gpuC = 0;
    double sinkC = 0;
    double gpuSinkC = 0;
    double cpuScale = 1;
    double gpuScale = 1;
    std::vector<double> rpm;
};

bool sameSpeeds(const std::vector<double>& a, const std::vector<double>& b, double tolerance) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::abs(a[i] - b[i]) > tolerance) return false;
    return true;
}

// Steps a copy of the machine's plant exactly as runController steps the real one.
class Replay {
public:
    Replay(const MachineProfile& machine, const LoadTrace& trace, std::uint64_t seed,
           const MetricLimits& limits)
        : plant_(machine.plant),
          start_(machine.plant, seed),
          limits_(limits),
          mix_(quietestMixFor(machine.plant)) {
        for (int k = 0; k < trace.seconds(); ++k) loads_.push_back(trace.at(k));
    }

    int seconds() const { return static_cast<int>(loads_.size()); }
    const sim::ThermalPlant& start() const { return start_; }

    // Second k: the levels set after second k-1 (second 0 runs on the firmware curve), the load,
    // then one second of the plant.
    void play(sim::ThermalPlant& plant, int k, const Levels& levels) {
        if (k > 0) plant.setFanCommand(mix_.speeds(levels.cpu, levels.gpu));
        const LoadLevel load = loads_[static_cast<std::size_t>(k)];
        plant.setLoad(load.cpu, load.gpu);
        plant.step(1.0);
    }

    // The metric's test, so the plan and the run agree on every second.
    bool over(const sim::PlantState& s) const {
        return s.cpuTemperatureC > limits_.cpuLimitC || s.gpuTemperatureC > limits_.gpuLimitC;
    }
    // How far over its limit the hotter die is (negative: under).
    double excess(const sim::PlantState& s) const {
        return std::max(excess(s, sim::Die::cpu), excess(s, sim::Die::gpu));
    }
    double excess(const sim::PlantState& s, sim::Die die) const {
        return die == sim::Die::cpu ? s.cpuTemperatureC - limits_.cpuLimitC
                                    : s.gpuTemperatureC - limits_.gpuLimitC;
    }
    // The die furthest over its limit.
    sim::Die hotter(const sim::PlantState& s) const {
        return excess(s, sim::Die::cpu) >= excess(s, sim::Die::gpu) ? sim::Die::cpu : sim::Die::gpu;
    }
    Energy energy(const sim::PlantState& s) const {
        return {soundPower(plant_, s.fanCurrentRPM), fanSoundPower(plant_, s.fanCurrentRPM)};
    }
    // Seconds the fans take to settle after a change of command: the cost of a raise includes
    // its spin-down.
    int settleS() const {
        double slewS = 0;
        for (const auto& fan : plant_.fans)
            if (plant_.fanSlewRPMPerS > 0)
                slewS = std::max(slewS, (fan.maxRPM - fan.minRPM) / plant_.fanSlewRPMPerS);
        return static_cast<int>(std::ceil(slewS + 6 * std::max(0.0, plant_.fanTimeConstantS))) + 1;
    }
    // The quietest level: every fan at its minimum, or standing still where it can stop.
    double floorLevel() const { return mix_.lowestLevel(); }
    // Each fan's duty for the levels, as the run plays it.
    std::vector<double> duties(const Levels& levels) {
        return mix_.duties(mix_.speeds(levels.cpu, levels.gpu));
    }
    // Whether the plant can start throttling under the quiet limits: then cooling less can cool
    // later, and a lowered stretch is checked to the end of the run.
    bool throttlesUnderLimits() const {
        return plant_.cpuLimitC <= limits_.cpuLimitC || plant_.gpuLimitC <= limits_.gpuLimitC;
    }

private:
    sim::PlantConfig plant_;
    sim::ThermalPlant start_;
    MetricLimits limits_;
    QuietestMix mix_;
    std::vector<LoadLevel> loads_;
};

struct Raise {
    int from = 1;
    double level = 1;
    Energy cost;
};

// A stretch of seconds over which one die's level stays the same.
struct Plateau {
    sim::Die die = sim::Die::cpu;
    int first = 0;
    int last = 0;
    double heard = 0;
};

class Planner {
public:
    explicit Planner(Replay& replay)
        : replay_(replay),
          n_(replay.seconds()),
          floor_(replay.floorLevel()),
          levels_(at(n_), Levels{floor_, floor_}),
          unavoidable_(at(n_), false),
          after_(at(n_), replay.start()),
          energy_(at(n_)),
          excess_(at(n_), 0.0),
          reference_(at(n_)),
          settleS_(replay.settleS()),
          budget_(kStepBudgetPerSecond * n_) {}

    ForesightOutcome run();

private:
    static std::size_t at(int k) { return static_cast<std::size_t>(k); }
    const sim::ThermalPlant& before(int k) const {
        return k == 0 ? replay_.start() : after_[at(k - 1)];
    }
    bool avoidableOver(int k) const { return !unavoidable_[at(k)] && excess_[at(k)] > 0; }
    bool outOfBudget() const { return steps_ > budget_; }

    void markUnavoidable();
    int replayFrom(int first);
    void repair(int first);
    std::optional<int> fix(int first, int target);
    std::optional<Raise> cheapestRaise(int first, int target, Lift lift, sim::Die die,
                                       const std::vector<Energy>& tail);
    void raiseBlindly(int first, int target);
    double excessWith(int from, int target, Lift lift, sim::Die die, double level);
    std::optional<double> lowestLevel(int from, int target, Lift lift, sim::Die die,
                                      double ceiling);
    std::vector<Energy> currentTail(int target);
    Energy addedEnergy(int from, int target, Lift lift, double level,
                       const std::vector<Energy>& tail);

    void lowerPlateaus();
    std::vector<Plateau> plateaus() const;
    void lowerPlateau(const Plateau& plateau);
    bool holdsLowered(const Plateau& plateau, double level);
    bool settledUnder(int k, const sim::PlantState& state) const;
    void computeSlack();

    ForesightOutcome outcome() const;

    Replay& replay_;
    int n_;
    double floor_;
    std::vector<Levels>
        levels_;  // levels_[k]: what second k runs under; levels_[0] is the firmware's
    std::vector<bool> unavoidable_;
    std::vector<sim::ThermalPlant> after_;  // the plant after each second under levels_
    std::vector<Energy> energy_;
    std::vector<double> excess_;
    std::vector<Reference> reference_;
    std::vector<double> slackAfter_;  // the least room under the limits after each second
    int settleS_;
    int runS_ = 1;
    int runEnd_ = 0;
    long steps_ = 0;
    long budget_;
};

// Full fans from the first second on give every second its lowest possible temperature: the
// seconds still over then are over under any plan, and run on full fans.
void Planner::markUnavoidable() {
    sim::ThermalPlant plant = replay_.start();
    for (int k = 0; k < n_; ++k) {
        replay_.play(plant, k, kFull);
        unavoidable_[at(k)] = replay_.over(plant.state());
        if (unavoidable_[at(k)]) levels_[at(k)] = kFull;
    }
    steps_ += n_;
}

// Plays the current levels from `first` on, keeping each second's plant, up to the first second
// over a limit that some plan avoids and on through up to runS_ seconds of the run of such
// seconds it starts (its last in runEnd_); returns that first second, or n_ if none.
int Planner::replayFrom(int first) {
    sim::ThermalPlant plant = before(first);
    int violation = n_;
    for (int k = first; k < n_; ++k) {
        replay_.play(plant, k, levels_[at(k)]);
        ++steps_;
        const sim::PlantState state = plant.state();
        after_[at(k)] = plant;
        energy_[at(k)] = replay_.energy(state);
        excess_[at(k)] = replay_.excess(state);
        reference_[at(k)] = {state.cpuTemperatureC,  state.gpuTemperatureC,
                             state.sinkTemperatureC, state.gpuSinkTemperatureC,
                             state.cpuClockScale,    state.gpuClockScale,
                             state.fanCurrentRPM};
        if (violation == n_) {
            if (!avoidableOver(k)) continue;
            violation = k;
        } else if (!avoidableOver(k)) {
            break;
        }
        runEnd_ = k;
        if (k - violation + 1 >= runS_) break;
    }
    return violation;
}

// Raises levels until no avoidable second from `first` on is over, earliest second first.
void Planner::repair(int first) {
    int second = replayFrom(first);
    int previousEnd = -2;
    while (second < n_) {
        runS_ = second <= previousEnd + 1 ? std::min(2 * runS_, kMaxRunS) : 1;
        previousEnd = runEnd_;
        if (outOfBudget()) {
            raiseBlindly(second, runEnd_);
            second = replayFrom(second);
        } else if (const auto from = fix(second, runEnd_)) {
            second = replayFrom(*from);
        } else {
            // Not even full fans from the start hold it (the plant throttles, and cooling less
            // earlier then runs cooler here): it stays over, on full fans.
            unavoidable_[at(runEnd_)] = true;
            levels_[at(runEnd_)] = kFull;
            second = replayFrom(second);
        }
    }
}

// Out of budget: full fans over the longest window, no search; what that does not hold is left
// over.
void Planner::raiseBlindly(int first, int target) {
    const int from = std::max(1, first - *std::rbegin(kWindowsS));
    const bool full = std::all_of(levels_.begin() + from, levels_.begin() + target + 1,
                                  [](const Levels& l) { return l.cpu >= 1.0 && l.gpu >= 1.0; });
    if (full) unavoidable_[at(first)] = true;
    std::fill(levels_.begin() + from, levels_.begin() + target + 1, kFull);
}

// Brings `target` under the limits by the cheapest raise found: the level of the die furthest
// over, lifted to one level over a window ending at `target`, as low as holds, the window reaching
// back from `first` by one of a few lengths. Where that die's level alone cannot hold it (the
// other sink's heat reaches it), both levels are lifted. Returns where the raise starts, or
// nothing when none holds `target`.
std::optional<int> Planner::fix(int first, int target) {
    const sim::Die die = replay_.hotter(after_[at(target)].state());
    const std::vector<Energy> tail = currentTail(target);
    std::optional<Raise> best = cheapestRaise(first, target, liftFor(die), die, tail);
    Lift lift = liftFor(die);
    if (!best) {
        best = cheapestRaise(first, target, Lift::both, die, tail);
        lift = Lift::both;
    }
    if (!best) return std::nullopt;
    for (int k = best->from; k <= target; ++k)
        levels_[at(k)] = lifted(levels_[at(k)], lift, best->level);
    return best->from;
}

// The raise of the lifted levels that holds `target` for the least added sound energy, the
// current plan's energy after it being `tail`.
std::optional<Raise> Planner::cheapestRaise(int first, int target, Lift lift, sim::Die die,
                                            const std::vector<Energy>& tail) {
    std::optional<Raise> best;
    int lastFrom = -1;
    // A longer window at the same level cools at least as much: each level found caps the next.
    double ceiling = 1.0;
    for (int window : kWindowsS) {
        const int from = std::max(1, first - window);
        if (from == lastFrom) continue;
        lastFrom = from;
        const auto level = lowestLevel(from, target, lift, die, ceiling);
        if (!level) continue;
        ceiling = *level;
        const Energy cost = addedEnergy(from, target, lift, *level, tail);
        if (!best || cost < best->cost) best = Raise{from, *level, cost};
    }
    if (!best) {
        // Only cooling from further back helps; full fans from the first second do.
        const auto level = lowestLevel(1, target, lift, die, 1.0);
        if (!level) return std::nullopt;
        best = Raise{1, *level, {}};
    }
    return best;
}

// The die's excess at `target` with the lifted levels in [from, target] raised to at least
// `level`.
double Planner::excessWith(int from, int target, Lift lift, sim::Die die, double level) {
    sim::ThermalPlant plant = before(from);
    for (int k = from; k <= target; ++k)
        replay_.play(plant, k, lifted(levels_[at(k)], lift, level));
    steps_ += target - from + 1;
    return replay_.excess(plant.state(), die);
}

// The lowest level up to `ceiling` that brings the die at `target` under its limit: regula falsi
// (Illinois) between the current levels and the ceiling, aiming just under the limit and always
// keeping the side that holds. More air only cools, so the window's earlier seconds stay under.
std::optional<double> Planner::lowestLevel(int from, int target, Lift lift, sim::Die die,
                                           double ceiling) {
    const double aim = -kExcessToleranceC / 2;
    double high = ceiling;
    double highExcess = excessWith(from, target, lift, die, high);
    if (highExcess > 0) return std::nullopt;
    double low = HUGE_VAL;
    for (int k = from; k <= target; ++k) low = std::min(low, lowestOf(levels_[at(k)], lift));
    double lowWeight = replay_.excess(after_[at(target)].state(), die) - aim;
    double highWeight = highExcess - aim;
    int kept = 0;  // the side the last step kept: 1 high, -1 low
    for (int i = 0; i < kMaxLevelEvaluations && highExcess < -kExcessToleranceC &&
                    high - low > kLevelTolerance;
         ++i) {
        double level = high - highWeight * (high - low) / (highWeight - lowWeight);
        if (!(level > low && level < high)) level = (low + high) / 2;
        const double excess = excessWith(from, target, lift, die, level);
        if (excess > 0) {
            low = level;
            lowWeight = excess - aim;
            if (kept == 1) highWeight /= 2;
            kept = 1;
        } else {
            high = level;
            highExcess = excess;
            highWeight = excess - aim;
            if (kept == -1) lowWeight /= 2;
            kept = -1;
        }
    }
    return high;
}

// The current plan's energy for the seconds after `target` that a raise's spin-down reaches.
std::vector<Energy> Planner::currentTail(int target) {
    std::vector<Energy> tail;
    sim::ThermalPlant plant = after_[at(target)];
    for (int k = target + 1; k < std::min(n_, target + 1 + settleS_); ++k) {
        replay_.play(plant, k, levels_[at(k)]);
        tail.push_back(replay_.energy(plant.state()));
    }
    steps_ += static_cast<long>(tail.size());
    return tail;
}

Energy Planner::addedEnergy(int from, int target, Lift lift, double level,
                            const std::vector<Energy>& tail) {
    sim::ThermalPlant plant = before(from);
    Energy added;
    const int end = target + static_cast<int>(tail.size());
    for (int k = from; k <= end; ++k) {
        const Levels levels = k <= target ? lifted(levels_[at(k)], lift, level) : levels_[at(k)];
        replay_.play(plant, k, levels);
        const Energy base = k <= target ? energy_[at(k)] : tail[at(k - target - 1)];
        added += replay_.energy(plant.state()) - base;
    }
    steps_ += end - from + 1;
    return added;
}

// Later raises often cool what earlier ones were made for: each stretch of one die's level is
// lowered as far as the whole run stays under, loudest first.
void Planner::lowerPlateaus() {
    computeSlack();
    for (const Plateau& plateau : plateaus()) {
        if (outOfBudget()) return;
        lowerPlateau(plateau);
    }
}

std::vector<Plateau> Planner::plateaus() const {
    std::vector<Plateau> found;
    for (sim::Die die : {sim::Die::cpu, sim::Die::gpu}) {
        for (int k = 1; k < n_;) {
            int last = k;
            while (last + 1 < n_ && levels_[at(last + 1)][die] == levels_[at(k)][die] &&
                   !unavoidable_[at(last + 1)])
                ++last;
            if (levels_[at(k)][die] > floor_ && !unavoidable_[at(k)]) {
                double heard = 0;
                for (int j = k; j <= last; ++j) heard += energy_[at(j)].heard;
                found.push_back({die, k, last, heard});
            }
            k = last + 1;
        }
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const Plateau& a, const Plateau& b) { return a.heard > b.heard; });
    return found;
}

// Bisects the stretch's level down, trying its higher neighbour's level first (where a stretch
// usually turns out to be redundant).
void Planner::lowerPlateau(const Plateau& plateau) {
    const sim::Die die = plateau.die;
    const double level = levels_[at(plateau.first)][die];
    for (int k = plateau.first; k <= plateau.last; ++k)
        if (levels_[at(k)][die] != level) return;  // an earlier lowering merged it away
    double neighbour = plateau.first > 1 ? levels_[at(plateau.first - 1)][die] : floor_;
    if (plateau.last + 1 < n_) neighbour = std::max(neighbour, levels_[at(plateau.last + 1)][die]);
    double low = floor_;
    double high = level;
    if (neighbour < level) (holdsLowered(plateau, neighbour) ? high : low) = neighbour;
    for (int i = 0; i < kLoweringBisections; ++i) {
        const double mid = (low + high) / 2;
        (holdsLowered(plateau, mid) ? high : low) = mid;
    }
    if (!(high < level)) return;
    for (int k = plateau.first; k <= plateau.last; ++k) levels_[at(k)][die] = high;
    repair(plateau.first);
    computeSlack();
}

// Whether the plan with the die's level at `level` over the stretch keeps every avoidable second
// under.
bool Planner::holdsLowered(const Plateau& plateau, double level) {
    sim::ThermalPlant plant = before(plateau.first);
    for (int k = plateau.first; k < n_; ++k) {
        Levels levels = levels_[at(k)];
        if (k <= plateau.last) levels[plateau.die] = level;
        replay_.play(plant, k, levels);
        ++steps_;
        const sim::PlantState state = plant.state();
        if (!unavoidable_[at(k)] && replay_.over(state)) return false;
        if (k > plateau.last + settleS_ && settledUnder(k, state)) return true;
    }
    return true;
}

// Once the fans run as in the current plan again and no die throttles, the lowered run differs
// from the current one by extra heat that only spreads and leaks away: no temperature gap grows.
// So a gap smaller than the current plan's least room under the limits from here on is safe.
bool Planner::settledUnder(int k, const sim::PlantState& state) const {
    if (replay_.throttlesUnderLimits()) return false;
    const Reference& ref = reference_[at(k)];
    if (state.cpuClockScale != ref.cpuScale || state.gpuClockScale != ref.gpuScale) return false;
    if (!sameSpeeds(state.fanCurrentRPM, ref.rpm, kSettledRPM)) return false;
    const double gap =
        std::max({state.cpuTemperatureC - ref.cpuC, state.gpuTemperatureC - ref.gpuC,
                  state.sinkTemperatureC - ref.sinkC, state.gpuSinkTemperatureC - ref.gpuSinkC});
    return gap + kSettledMarginC < slackAfter_[at(k)];
}

// Room under the limits after each second; none past a second that is over anyway (the plant may
// throttle there, and the gap argument no longer holds).
void Planner::computeSlack() {
    slackAfter_.assign(at(n_), 0.0);
    double slack = HUGE_VAL;
    for (int k = n_ - 1; k >= 0; --k) {
        slackAfter_[at(k)] = slack;
        slack = unavoidable_[at(k)] ? -HUGE_VAL : std::min(slack, -excess_[at(k)]);
    }
}

ForesightOutcome Planner::outcome() const {
    ForesightOutcome result;
    for (int k = 1; k < n_; ++k) result.plan.push_back(replay_.duties(levels_[at(k)]));
    // Set after the last second: never heard.
    result.plan.push_back(replay_.duties({floor_, floor_}));
    sim::ThermalPlant plant = replay_.start();
    for (int k = 0; k < n_; ++k) {
        replay_.play(plant, k, levels_[at(k)]);
        result.predicted.push_back(plant.state());
    }
    result.unavoidableOverS =
        static_cast<int>(std::count(unavoidable_.begin(), unavoidable_.end(), true));
    return result;
}

ForesightOutcome Planner::run() {
    if (n_ == 0) return {};
    markUnavoidable();
    repair(0);
    lowerPlateaus();
    // The lowering's early stop rests on an argument, not a replay: check it, and raise again
    // wherever it was wrong.
    repair(0);
    return outcome();
}

}  // namespace

ForesightOutcome planForesight(const MachineProfile& machine, const LoadTrace& trace,
                               const RunSettings& settings, const MetricLimits& limits) {
    Replay replay(machine, trace, settings.seed, limits);
    return Planner(replay).run();
}

DutyPlan foresightPlan(const MachineProfile& machine, const LoadTrace& trace,
                       const RunSettings& settings) {
    return planForesight(machine, trace, settings).plan;
}

DutyPlan heldUnheard(const MachineProfile& machine, const DutyPlan& plan, double dbPerSecond) {
    const std::vector<sim::FanConfig>& fans = machine.plant.fans;
    const std::size_t seconds = plan.size();
    DutyPlan held(seconds, std::vector<double>(fans.size(), 0.0));
    for (std::size_t i = 0; i < fans.size(); ++i) {
        // A second's entry is one duty per fan, or one duty for every fan.
        auto planned = [&plan, i](std::size_t t) {
            return plan[t].size() == 1 ? plan[t][0] : plan[t].at(i);
        };
        const double lo = fans[i].minRPM;
        const double span = fans[i].maxRPM - lo;
        if (!(lo > 0) || !(span > 0)) {
            for (std::size_t t = 0; t < seconds; ++t) held[t][i] = planned(t);
            continue;
        }
        // Each second's speed as a level on the fan law's scale; a stopped fan has none.
        std::vector<double> level(seconds, -1e9);
        for (std::size_t t = 0; t < seconds; ++t)
            if (planned(t) >= 0) level[t] = 50 * std::log10(lo + std::min(planned(t), 1.0) * span);
        // A rise begins early enough to arrive in time at the ramp; a fall follows at it.
        for (std::size_t t = seconds; t-- > 1;)
            level[t - 1] = std::max(level[t - 1], level[t] - dbPerSecond);
        for (std::size_t t = 1; t < seconds; ++t)
            level[t] = std::max(level[t], level[t - 1] - dbPerSecond);
        const double lowest = 50 * std::log10(lo);
        for (std::size_t t = 0; t < seconds; ++t) {
            // Under the fan's lowest speed only where the plan stops it: it stays stopped.
            const double rpm = std::pow(10.0, level[t] / 50);
            held[t][i] = level[t] < lowest - 1e-9
                             ? planned(t)
                             : std::clamp((rpm - lo) / span, std::max(planned(t), 0.0), 1.0);
        }
    }
    return held;
}

DutyPlan foresightUnheardPlan(const MachineProfile& machine, const LoadTrace& trace,
                              const RunSettings& settings) {
    return heldUnheard(machine, foresightPlan(machine, trace, settings), kQuietRampDbPerSecond);
}

}  // namespace kelvo::quality
