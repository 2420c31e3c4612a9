#include "foundation/control/CouplingLearner.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace kelvo {

namespace {
constexpr std::size_t kLags = kCouplingLagsS.size();
// How fast a die follows its own load, on top of its heatsink.
constexpr double kDieLagS = 3;
// A tick further than this from the last one is a gap: what came before no longer lines up.
constexpr double kGapS = 3.5;
// Columns that barely move say nothing and only spoil the fit.
constexpr double kStillLoadPct = 0.2;
constexpr double kStillRPM = 1;
constexpr double kStillTemperatureC = 0.05;
constexpr double kRidge = 1e-6;
// A recheck's answer counts as weak only this many of its standard errors under the line.
constexpr double kWeakBy = 2;
// A recheck judges a fan only where what it showed before is this many of the recheck's standard
// errors: a sound fan then reads over the line by more than kWeakBy of them.
constexpr double kRecheckPower = 4;
// A fit's residuals are never taken as more alike from one second to the next than this.
constexpr double kMostCarried = 0.99;
// The inputs each tick keeps: the two loads, the two dies' temperatures, then each fan's speed.
constexpr std::size_t kCpuTemperature = 2;
constexpr std::size_t kGpuTemperature = 3;
constexpr std::size_t kFirstFan = 4;

// A recheck's answers, once judged sound, counted with what was known.
void addTo(FanCouplingEvidence& to, const FanCouplingEvidence& from) {
    for (auto [into, add] : {std::pair{&to.cpu, &from.cpu}, std::pair{&to.gpu, &from.gpu}})
        for (std::size_t l = 0; l < kLags; ++l) {
            into->byLag[l].sum += add->byLag[l].sum;
            into->byLag[l].weight += add->byLag[l].weight;
            into->byLag[l].squares += add->byLag[l].squares;
            into->byLag[l].count += add->byLag[l].count;
            into->misfit[l] += add->misfit[l];
        }
}

double follow(double state, double input, double dt, double lag) {
    return state + (1 - std::exp(-dt / lag)) * (input - state);
}

// Least squares on centred, scaled columns; returns the coefficient of column `of` with its
// variance and the fit's residual sum of squares, or none when the column does not move.
struct Fit {
    double coefficient = 0;
    double variance = 0;
    double residual = 0;
    double total = 0;  // the centred output's sum of squares
};

std::optional<Fit> fitColumn(std::vector<std::vector<double>> columns, std::vector<double> y,
                             std::size_t of, std::vector<double> stillBelow) {
    const std::size_t n = y.size();
    auto centre = [n](std::vector<double>& v) {
        const double mean = std::accumulate(v.begin(), v.end(), 0.0) / n;
        double squares = 0;
        for (double& x : v) {
            x -= mean;
            squares += x * x;
        }
        return std::sqrt(squares / n);
    };
    centre(y);
    std::vector<std::vector<double>> kept;
    std::vector<double> scales;
    std::optional<std::size_t> target;
    for (std::size_t c = 0; c < columns.size(); ++c) {
        const double spread = centre(columns[c]);
        if (!(spread > stillBelow[c])) continue;
        for (double& x : columns[c]) x /= spread;
        if (c == of) target = kept.size();
        kept.push_back(std::move(columns[c]));
        scales.push_back(spread);
    }
    const std::size_t p = kept.size();
    if (!target || n <= p + 2) return std::nullopt;
    // Normal equations, solved with the inverse (p is a handful).
    std::vector<std::vector<double>> a(p, std::vector<double>(2 * p + 1, 0));
    for (std::size_t i = 0; i < p; ++i) {
        for (std::size_t j = 0; j < p; ++j)
            a[i][j] = std::inner_product(kept[i].begin(), kept[i].end(), kept[j].begin(), 0.0);
        a[i][i] += kRidge * n;
        a[i][p + i] = 1;
        a[i][2 * p] = std::inner_product(kept[i].begin(), kept[i].end(), y.begin(), 0.0);
    }
    for (std::size_t c = 0; c < p; ++c) {
        std::size_t pivot = c;
        for (std::size_t r = c + 1; r < p; ++r)
            if (std::abs(a[r][c]) > std::abs(a[pivot][c])) pivot = r;
        std::swap(a[c], a[pivot]);
        if (!(std::abs(a[c][c]) > 1e-12)) return std::nullopt;
        const double d = a[c][c];
        for (double& x : a[c]) x /= d;
        for (std::size_t r = 0; r < p; ++r) {
            if (r == c || a[r][c] == 0) continue;
            const double f = a[r][c];
            for (std::size_t k = 0; k < 2 * p + 1; ++k) a[r][k] -= f * a[c][k];
        }
    }
    Fit fit;
    for (double v : y) fit.total += v * v;
    fit.residual = 0;
    double following = 0;  // Σ of each residual times the one before it
    double previous = 0;
    for (std::size_t s = 0; s < n; ++s) {
        double predicted = 0;
        for (std::size_t c = 0; c < p; ++c) predicted += a[c][2 * p] * kept[c][s];
        const double r = y[s] - predicted;
        fit.residual += r * r;
        if (s > 0) following += r * previous;
        previous = r;
    }
    // What the fit leaves over under a load that swings (a game, a compile's pauses) is no
    // second-to-second noise but slow error that carries on for a while: taken as independent
    // each second, such a probe would count as surely as a steady render's and pull the mean
    // off. The residuals' correlation from one second to the next says how few independent
    // seconds the probe really had.
    const double carried =
        fit.residual > 0 ? std::clamp(following / fit.residual, 0.0, kMostCarried) : 0.0;
    const double sigma2 = fit.residual / double(n - p - 1) * (1 + carried) / (1 - carried);
    fit.coefficient = a[*target][2 * p] / scales[*target];
    fit.variance = sigma2 * a[*target][p + *target] / (scales[*target] * scales[*target]);
    return fit;
}
}  // namespace

CouplingLearner::CouplingLearner(CouplingLearnerConfig config) : config_(config) {}

void CouplingLearner::setEvidence(std::map<std::string, FanCouplingEvidence> evidence) {
    evidence_ = std::move(evidence);
    done_ = false;
    // Rechecks are of what was known before: a recheck under way would put it back, and one due
    // would look for fans that may no longer be known and never end. This is what is stored now.
    recheck_.reset();
    rechecking_ = false;
    recheckDue_.reset();
    silentRechecks_ = 0;
    confirmFan_.reset();
    weakInARow_.clear();
    updated_.clear();
}

std::optional<std::string> CouplingLearner::probedFan() const {
    if (!turn_) return std::nullopt;
    return fans_[turn_->fan];
}

std::vector<std::string> CouplingLearner::takeUpdated() {
    std::vector<std::string> out;
    out.swap(updated_);
    return out;
}

std::vector<std::pair<std::string, std::string>> CouplingLearner::takeFaded() {
    std::vector<std::pair<std::string, std::string>> out;
    out.swap(faded_);
    return out;
}

void CouplingLearner::restart(const std::vector<ProbeFan>& fans) {
    fans_.clear();
    for (const auto& fan : fans) fans_.push_back(fan.identity);
    ticks_.clear();
    lagState_.clear();
    fastState_.clear();
    turn_.reset();
    fade_.reset();
    nextStart_.reset();
    drivingSince_.reset();
    // A recheck's probes must follow one another on the same fans: it starts over.
    recheck_.reset();
}

void CouplingLearner::record(Timestamp now, const TelemetrySample& sample,
                             const std::vector<ProbeFan>& fans) {
    // A die that gives no reading keeps its last one: the other die's fit sees it as still.
    const Tick* last = ticks_.empty() ? nullptr : &ticks_.back();
    auto held = [&](const std::optional<double>& value, std::size_t input) {
        return value ? *value : last ? last->inputs[input] : 0.0;
    };
    std::vector<double> inputs{sample.cpuUtilizationPct.value_or(0),
                               sample.gpuUtilizationPct.value_or(0),
                               held(sample.cpuTemperatureC, kCpuTemperature),
                               held(sample.gpuTemperatureC, kGpuTemperature)};
    for (const auto& fan : fans) inputs.push_back(fan.speedRPM);
    const double dt = ticks_.empty() ? 0 : now - ticks_.back().at;
    if (lagState_.empty()) {
        lagState_.assign(kLags, inputs);
        fastState_ = {inputs[0], inputs[1]};
    }
    for (std::size_t l = 0; l < kLags; ++l)
        for (std::size_t i = 0; i < inputs.size(); ++i)
            lagState_[l][i] = follow(lagState_[l][i], inputs[i], dt, kCouplingLagsS[l]);
    for (std::size_t i = 0; i < 2; ++i)
        fastState_[i] = follow(fastState_[i], inputs[i], dt, kDieLagS);
    ticks_.push_back(
        {now, sample.cpuTemperatureC, sample.gpuTemperatureC, inputs, lagState_, fastState_});
    // The rest before a probe, the probe and the rest after it, and a little more.
    while (!ticks_.empty() && now - ticks_.front().at > 3 * config_.halfSeconds + 10)
        ticks_.pop_front();
}

bool CouplingLearner::enough(const std::vector<ProbeFan>& fans) const {
    std::vector<std::string> probeable;
    for (const auto& fan : fans)
        if (fan.probeable) probeable.push_back(fan.identity);
    if (probeable.size() < 2) return false;
    const auto couplings = fanCouplings(evidence_, probeable);
    return std::all_of(couplings.begin(), couplings.end(), [&](const FanCoupling& c) {
        return c.confidence >= config_.enoughConfidence || c.probes >= config_.maxProbesPerFan;
    });
}

// A probe is only worth its noise where a load has warmed a die well over its coolest: near idle
// the die answers too faintly to be read.
bool CouplingLearner::warm(const Tick& tick) const {
    return (tick.cpuC && coolestCpu_ && *tick.cpuC - *coolestCpu_ >= config_.minExcessC) ||
           (tick.gpuC && coolestGpu_ && *tick.gpuC - *coolestGpu_ >= config_.minExcessC);
}

// The rest before a probe is read as the die's course without it. A load that began within it
// is a step the fit must tell from the probe's own, the two rising together: a probe begun
// seconds into a compile read the CPU cooler as warming the CPU. So a probe starts once a die
// has been warm for the whole of that rest.
bool CouplingLearner::warmThroughRest(Timestamp now) const {
    for (auto tick = ticks_.rbegin(); tick != ticks_.rend(); ++tick) {
        if (tick->at < now - config_.halfSeconds) return true;
        if (!warm(*tick)) return false;
    }
    return true;
}

std::optional<CouplingLearner::Turn> CouplingLearner::nextTurn(Timestamp now,
                                                               const std::vector<ProbeFan>& fans) {
    const double half = config_.halfSeconds;
    if (ticks_.empty() || now - ticks_.front().at < half) return std::nullopt;
    if (!drivingSince_ || now - *drivingSince_ < config_.firstProbeAfterSeconds)
        return std::nullopt;
    if (nextStart_ && now < *nextStart_) return std::nullopt;
    const auto probeable =
        std::count_if(fans.begin(), fans.end(), [](const ProbeFan& f) { return f.probeable; });
    if (probeable < 2 || !warmThroughRest(now)) return std::nullopt;
    const double factor = std::pow(10.0, config_.probeDb / 50.0);
    auto top = [factor](const ProbeFan& fan) {
        return std::min(fan.maxRPM > 0 ? fan.maxRPM : 1e9, fan.targetRPM * factor);
    };
    // A recheck under way, or a weak answer to confirm, is of one fan only.
    const std::optional<std::string> only = recheck_ ? std::optional(recheck_->fan) : confirmFan_;
    // Learning, the fan with the fewest probes goes first: turns in strict rotation can keep
    // landing one fan's where a load ends, and it would never be measured. Rechecks go round.
    std::optional<std::size_t> chosen;
    int fewest = 0;
    for (std::size_t k = 0; k < fans.size(); ++k) {
        const std::size_t i = (nextFan_ + k) % fans.size();
        const ProbeFan& fan = fans[i];
        if (!fan.probeable || !(fan.targetRPM > 0)) continue;
        const auto it = evidence_.find(fan.identity);
        const int probes =
            it == evidence_.end() ? 0 : std::max(it->second.cpu.probes(), it->second.gpu.probes());
        // A recheck is of a fan already known; learning, of one not yet known well enough.
        if (rechecking_ && only && fan.identity != *only) continue;
        if (rechecking_ ? it == evidence_.end() : probes >= config_.maxProbesPerFan) continue;
        // A fan near its top has no room to be probed now: the next one goes first.
        if (top(fan) - fan.targetRPM < 0.5 * fan.targetRPM * (factor - 1)) continue;
        if (chosen && (rechecking_ || probes >= fewest)) continue;
        chosen = i;
        fewest = probes;
    }
    if (!chosen) return std::nullopt;
    const ProbeFan& fan = fans[*chosen];
    nextFan_ = *chosen + 1;
    Turn turn;
    turn.fan = *chosen;
    turn.start = now;
    turn.half = half;
    turn.factor = top(fan) / fan.targetRPM;
    turn.cpuLoad = ticks_.back().inputs[0];
    turn.gpuLoad = ticks_.back().inputs[1];
    return turn;
}

// Even in dB, so the swell rises and falls by the same tenth of a dB every second of it.
double CouplingLearner::factorAt(Timestamp now) const {
    const double t = now - turn_->start;
    const double risen = t < turn_->half
                             ? std::min(1.0, t / config_.rampSeconds)
                             : std::max(0.0, 1 - (t - turn_->half) / config_.rampSeconds);
    return std::pow(turn_->factor, risen);
}

void CouplingLearner::step(Timestamp now, const TelemetrySample& sample,
                           const std::vector<ProbeFan>& fans, std::vector<double>& targets) {
    bool sameFans = fans.size() == fans_.size();
    for (std::size_t i = 0; sameFans && i < fans.size(); ++i)
        sameFans = fans[i].identity == fans_[i];
    // A fan that came (or went) may be one with nothing known of it yet.
    if (!sameFans) done_ = false;
    if (!sameFans || (lastStep_ && now - *lastStep_ > kGapS)) restart(fans);
    lastStep_ = now;
    if (!drivingSince_) drivingSince_ = now;
    // Kept while nothing is probed too: a recheck hours later needs to know how cool the dies
    // have been.
    if (sample.cpuTemperatureC)
        coolestCpu_ = std::min(coolestCpu_.value_or(1e9), *sample.cpuTemperatureC);
    if (sample.gpuTemperatureC)
        coolestGpu_ = std::min(coolestGpu_.value_or(1e9), *sample.gpuTemperatureC);

    if (!turn_ && !done_) {
        if (!rechecking_ && enough(fans)) {
            done_ = true;
            recheckDue_ = now + (confirmFan_ ? config_.confirmSeconds : config_.recheckSeconds);
        } else {
            turn_ = nextTurn(now, fans);
            if (turn_ && rechecking_) {
                turn_->recheck = true;
                if (!recheck_) recheck_ = Recheck{fans_[turn_->fan], 0, {}};
            }
        }
    }
    // Every fan known: nothing to probe or keep until the fans change or a recheck is due.
    if (done_ && recheckDue_ && now >= *recheckDue_) {
        done_ = false;
        rechecking_ = true;
        recheckDue_.reset();
    }
    if (done_) return;
    if (turn_) {
        const ProbeFan& fan = fans[turn_->fan];
        // A fan handed to the firmware, stopped or taken by the user mid-probe: the probe is void.
        // So is one whose load has fallen away for good (not a loading screen): the fans it
        // holds up would be louder than the machine needs.
        const bool low =
            sample.cpuUtilizationPct.value_or(0) < turn_->cpuLoad - config_.loadFallPct ||
            sample.gpuUtilizationPct.value_or(0) < turn_->gpuLoad - config_.loadFallPct;
        if (!low)
            turn_->lowSince.reset();
        else if (!turn_->lowSince)
            turn_->lowSince = now;
        const bool fell = turn_->lowSince && now - *turn_->lowSince >= config_.loadGoneSeconds;
        if (!fan.probeable || turn_->fan >= targets.size() || !(targets[turn_->fan] > 0) || fell) {
            // Dropped at once, the raise would fall by up to the whole probe in a second, on top
            // of whatever the fans do then (a load that ended): heard. Still Kelvo's and turning,
            // the fan eases back instead.
            if (fan.driven) fade_ = Fade{turn_->fan, factorAt(now), now};
            turn_.reset();
            nextStart_ = now + config_.halfSeconds;
        } else {
            const double raised = targets[turn_->fan] * factorAt(now);
            targets[turn_->fan] = fan.maxRPM > 0 ? std::min(fan.maxRPM, raised) : raised;
        }
    }
    applyFade(now, fans, targets);
    record(now, sample, fans);
    if (turn_ && now - turn_->start >= 2 * turn_->half) {
        evaluate(*turn_);
        turn_.reset();
        nextStart_ = now;
    }
}

void CouplingLearner::applyFade(Timestamp now, const std::vector<ProbeFan>& fans,
                                std::vector<double>& targets) {
    if (!fade_) return;
    const std::size_t i = fade_->fan;
    // Twice the ramp: the fans may be falling at the quiet modes' own ramp meanwhile, and the two
    // together stay under a change a listener hears.
    const double left = 1 - (now - fade_->from) / (2 * config_.rampSeconds);
    // Taken away, stopped, or eased out: nothing more to do.
    if (left <= 0 || i >= fans.size() || i >= targets.size() || !fans[i].driven ||
        !(targets[i] > 0)) {
        fade_.reset();
        return;
    }
    const double raised = targets[i] * (1 + (fade_->factor - 1) * left);
    targets[i] = fans[i].maxRPM > 0 ? std::min(fans[i].maxRPM, raised) : raised;
}

void CouplingLearner::evaluate(const Turn& turn) {
    // The whole probe must be on record, the rest before it included.
    if (ticks_.empty() || ticks_.front().at > turn.start - turn.half + kGapS) return;
    if (coolestCpu_) learnDie(turn, false, *coolestCpu_);
    if (coolestGpu_) learnDie(turn, true, *coolestGpu_);
    if (turn.recheck) judgeRecheck();
}

void CouplingLearner::judgeRecheck() {
    if (!recheck_ || ++recheck_->probes < config_.recheckProbes) return;
    const Recheck recheck = std::move(*recheck_);
    recheck_.reset();
    std::optional<bool> weak;
    std::string weakDie;
    for (bool gpu : {false, true}) {
        const auto answer = weakAnswer(recheck, gpu);
        if (!answer) continue;
        if (*answer && !weak.value_or(false)) weakDie = gpu ? "GPU" : "CPU";
        weak = weak.value_or(false) || *answer;
    }
    // A recheck that said something is over; one that could not (its dies were cool, or its
    // probes too faint) is tried again with the next fan, until every fan has had its turn.
    if (!weak) {
        if (++silentRechecks_ >= fans_.size()) {
            rechecking_ = false;
            silentRechecks_ = 0;
        }
        return;
    }
    silentRechecks_ = 0;
    rechecking_ = false;
    confirmFan_.reset();
    const std::string& fan = recheck.fan;
    if (!*weak) {
        weakInARow_.erase(fan);
        addTo(evidence_[fan], recheck.shown);
        if (std::find(updated_.begin(), updated_.end(), fan) == updated_.end())
            updated_.push_back(fan);
        return;
    }
    // A weak answer is not averaged in, and until it is confirmed what is known stands: odd
    // probes must not unsettle it.
    if (++weakInARow_[fan] < config_.weakRechecks) {
        confirmFan_ = fan;
        return;
    }
    weakInARow_.erase(fan);
    evidence_.erase(fan);
    updated_.erase(std::remove(updated_.begin(), updated_.end(), fan), updated_.end());
    faded_.emplace_back(fan, weakDie);
}

std::optional<bool> CouplingLearner::weakAnswer(const Recheck& recheck, bool gpu) const {
    const auto known = evidence_.find(recheck.fan);
    const auto at = std::find(fans_.begin(), fans_.end(), recheck.fan);
    if (known == evidence_.end() || at == fans_.end()) return std::nullopt;
    const DieEvidence& before = gpu ? known->second.gpu : known->second.cpu;
    const DieEvidence& shown = gpu ? recheck.shown.gpu : recheck.shown.cpu;
    // Only for a die the fan cools mostly: its small share of the other die is noise.
    const auto couplings = fanCouplings(evidence_, fans_);
    const std::string mostly = coolsMostly(couplings.at(std::size_t(at - fans_.begin())));
    if (mostly != "CPU and GPU" && mostly != (gpu ? "GPU" : "CPU")) return std::nullopt;
    // Read at the lag where these probes tell a sound fan from a weak one most surely: where
    // what the fan showed before stands furthest above their standard error. Where even that is
    // too little, a sound fan's answer could fall under the line by chance: they say nothing.
    std::optional<std::size_t> lag;
    double power = 0;
    for (std::size_t l = 0; l < kLags; ++l) {
        const auto mean = before.byLag[l].mean();
        const double weight = shown.byLag[l].weight;
        if (!mean || !(*mean > 0) || !(weight > 0)) continue;
        if (!lag || *mean * std::sqrt(weight) > power) {
            lag = l;
            power = *mean * std::sqrt(weight);
        }
    }
    if (!lag || power < kRecheckPower) return std::nullopt;
    const DieResponse& pooled = shown.byLag[*lag];
    return *pooled.mean() + kWeakBy / std::sqrt(pooled.weight) <
           config_.weakAnswerShare * *before.byLag[*lag].mean();
}

void CouplingLearner::learnDie(const Turn& turn, bool gpu, double coolest) {
    std::vector<const Tick*> window;
    for (const auto& tick : ticks_)
        if (tick.at >= turn.start - turn.half) window.push_back(&tick);
    std::vector<double> y;
    for (const Tick* tick : window) {
        const auto& temp = gpu ? tick->gpuC : tick->cpuC;
        if (!temp) return;  // a die that went unread over the probe says nothing about it
        y.push_back(*temp);
    }
    const double excess = std::accumulate(y.begin(), y.end(), 0.0) / y.size() - coolest;
    if (excess < config_.minExcessC) return;

    // A recheck's probes are kept aside until they are judged.
    const bool aside = turn.recheck && recheck_;
    auto& evidence = aside ? recheck_->shown : evidence_[fans_[turn.fan]];
    DieEvidence& die = gpu ? evidence.gpu : evidence.cpu;
    bool learned = false;
    for (std::size_t l = 0; l < kLags; ++l) {
        // Drift; the die's own quick answer to its load; through the heatsink, the load, the
        // other die (heat pipes and case air carry heat between them, so a fan on the other
        // die's sink cools this one too, through that die: counted there, not as this fan's
        // own air) and every fan's speed.
        const std::size_t other = gpu ? kCpuTemperature : kGpuTemperature;
        std::vector<std::size_t> lagged{0, 1, other};
        for (std::size_t i = kFirstFan; i < window.front()->inputs.size(); ++i) lagged.push_back(i);
        std::vector<std::vector<double>> columns(3 + lagged.size());
        std::vector<double> still{0, kStillLoadPct, kStillLoadPct};
        for (std::size_t i : lagged)
            still.push_back(i < kCpuTemperature ? kStillLoadPct
                            : i < kFirstFan     ? kStillTemperatureC
                                                : kStillRPM);
        for (const Tick* tick : window) {
            columns[0].push_back(tick->at - turn.start);
            columns[1].push_back(tick->fast[0]);
            columns[2].push_back(tick->fast[1]);
            for (std::size_t c = 0; c < lagged.size(); ++c)
                columns[3 + c].push_back(tick->lagged[l][lagged[c]]);
        }
        const auto fit = fitColumn(std::move(columns), y, 3 + 3 + turn.fan, std::move(still));
        if (!fit || !(fit->variance > 0) || !(fit->total > 0)) continue;
        // Cooling per rpm, relative to how far over its coolest the die was; weighed by how
        // surely this probe shows it (its inverse variance).
        const double answer = -fit->coefficient / excess;
        const double weight = excess * excess / fit->variance;
        die.byLag[l].add(answer, weight);
        die.misfit[l] += fit->residual / fit->total;
        learned = true;
    }
    if (learned && !aside &&
        std::find(updated_.begin(), updated_.end(), fans_[turn.fan]) == updated_.end())
        updated_.push_back(fans_[turn.fan]);
}

}  // namespace kelvo
