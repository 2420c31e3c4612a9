#include "foundation/core/FanCoupling.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace kelvo {

namespace {
// A fan's answers for a die are believed as far as they pin down its share: a share is a
// fraction of all the fans' cooling of that die, so its standard error is the answers' standard
// error over that total. An error of a quarter of the total counts as knowing nothing. (Against
// the strongest fan's answer alone, three fans that each do a third, known to a twentieth,
// looked barely sure.)
constexpr double kUselessShareError = 0.25;

using DieOf = const DieEvidence& (*)(const FanCouplingEvidence&);
const DieEvidence& cpuOf(const FanCouplingEvidence& e) {
    return e.cpu;
}
const DieEvidence& gpuOf(const FanCouplingEvidence& e) {
    return e.gpu;
}

struct DieShares {
    std::vector<std::optional<double>> share;
    std::vector<std::optional<double>> perRPM;
    std::vector<std::optional<double>> confidence;
};

// The lag every fan has answered at that has left the least of their probes unexplained.
std::optional<std::size_t> bestLag(const std::vector<const DieEvidence*>& dies) {
    std::optional<std::size_t> best;
    double bestMisfit = 0;
    for (std::size_t l = 0; l < kCouplingLagsS.size(); ++l) {
        double misfit = 0;
        bool answered = true;
        for (const DieEvidence* die : dies) {
            answered = answered && die->byLag[l].mean().has_value();
            misfit += die->misfit[l];
        }
        if (answered && (!best || misfit < bestMisfit)) {
            best = l;
            bestMisfit = misfit;
        }
    }
    return best;
}

DieShares sharesOf(const std::map<std::string, FanCouplingEvidence>& evidence,
                   const std::vector<std::string>& fans, DieOf die) {
    DieShares out;
    out.share.resize(fans.size());
    out.perRPM.resize(fans.size());
    out.confidence.resize(fans.size());
    std::vector<const DieEvidence*> dies;
    for (const auto& fan : fans) {
        const auto it = evidence.find(fan);
        if (it == evidence.end()) return out;
        dies.push_back(&die(it->second));
    }
    const auto lag = bestLag(dies);
    if (!lag) return out;
    std::vector<double> cooling;
    // Noise can make a fan that does nothing for a die look as if it warmed it.
    for (const DieEvidence* d : dies) cooling.push_back(std::max(0.0, *d->byLag[*lag].mean()));
    double total = 0;
    double strongest = 0;
    for (double c : cooling) {
        total += c;
        strongest = std::max(strongest, c);
    }
    if (!(total > 0)) return out;
    for (std::size_t i = 0; i < fans.size(); ++i) {
        const DieResponse& r = dies[i]->byLag[*lag];
        out.share[i] = cooling[i] / total;
        out.perRPM[i] = cooling[i] / strongest;
        const double counted = std::min(1.0, double(r.count) / kCouplingProbesForConfidence);
        const auto se = r.standardError();
        const double spread = se ? std::clamp(1 - *se / total / kUselessShareError, 0.0, 1.0) : 0.0;
        out.confidence[i] = counted * spread;
    }
    return out;
}
}  // namespace

int DieEvidence::probes() const {
    int most = 0;
    for (const auto& r : byLag) most = std::max(most, r.count);
    return most;
}

std::string encodeCouplingEvidence(const FanCouplingEvidence& evidence) {
    std::string out;
    char number[32];
    for (const DieEvidence* die : {&evidence.cpu, &evidence.gpu}) {
        for (std::size_t l = 0; l < kCouplingLagsS.size(); ++l) {
            const DieResponse& r = die->byLag[l];
            for (double v : {r.sum, r.weight, r.squares, double(r.count), die->misfit[l]}) {
                std::snprintf(number, sizeof number, "%.17g", v);
                if (!out.empty()) out += ' ';
                out += number;
            }
        }
    }
    return out;
}

std::optional<FanCouplingEvidence> decodeCouplingEvidence(std::string_view text) {
    constexpr std::size_t kNumbers = 2 * kCouplingLagsS.size() * 5;
    std::vector<double> numbers;
    // Exactly one space between numbers, none before or after.
    for (std::size_t at = 0; at <= text.size();) {
        const std::size_t end = std::min(text.find(' ', at), text.size());
        const std::string field(text.substr(at, end - at));
        if (field.empty() || numbers.size() == kNumbers) return std::nullopt;
        char* stop = nullptr;
        const double v = std::strtod(field.c_str(), &stop);
        if (stop != field.c_str() + field.size() || !std::isfinite(v)) return std::nullopt;
        numbers.push_back(v);
        at = end + 1;
    }
    if (numbers.size() != kNumbers) return std::nullopt;
    FanCouplingEvidence out;
    std::size_t n = 0;
    for (DieEvidence* die : {&out.cpu, &out.gpu}) {
        for (std::size_t l = 0; l < kCouplingLagsS.size(); ++l) {
            DieResponse& r = die->byLag[l];
            r.sum = numbers[n++];
            r.weight = numbers[n++];
            r.squares = numbers[n++];
            const double count = numbers[n++];
            die->misfit[l] = numbers[n++];
            if (r.weight < 0 || r.squares < 0 || die->misfit[l] < 0 || count < 0 || count > 1e9 ||
                count != std::floor(count))
                return std::nullopt;
            r.count = static_cast<int>(count);
        }
    }
    return out;
}

void DieResponse::add(double x, double w) {
    if (!std::isfinite(x) || !std::isfinite(w) || !(w > 0)) return;
    sum += w * x;
    weight += w;
    squares += w * x * x;
    ++count;
}

std::optional<double> DieResponse::mean() const {
    if (count < 1 || !(weight > 0)) return std::nullopt;
    return sum / weight;
}

std::optional<double> DieResponse::standardError() const {
    if (count < 2 || !(weight > 0)) return std::nullopt;
    const double m = sum / weight;
    const double variance = std::max(0.0, squares / weight - m * m);
    return std::sqrt(variance / (count - 1));
}

std::vector<FanCoupling> fanCouplings(const std::map<std::string, FanCouplingEvidence>& evidence,
                                      const std::vector<std::string>& fans) {
    const DieShares cpu = sharesOf(evidence, fans, cpuOf);
    const DieShares gpu = sharesOf(evidence, fans, gpuOf);
    std::vector<FanCoupling> out;
    for (std::size_t i = 0; i < fans.size(); ++i) {
        FanCoupling c;
        c.identity = fans[i];
        c.cpuShare = cpu.share[i];
        c.gpuShare = gpu.share[i];
        c.cpuPerRPM = cpu.perRPM[i];
        c.gpuPerRPM = gpu.perRPM[i];
        const auto it = evidence.find(fans[i]);
        if (it != evidence.end())
            c.probes = std::max(it->second.cpu.probes(), it->second.gpu.probes());
        // As sure as the die it is least sure about, among the dies it has answered for.
        std::optional<double> sure;
        for (const auto& die : {cpu.confidence[i], gpu.confidence[i]})
            if (die) sure = sure ? std::min(*sure, *die) : *die;
        c.confidence = sure.value_or(0);
        out.push_back(std::move(c));
    }
    return out;
}

std::string coolsMostly(const FanCoupling& coupling) {
    const auto& cpu = coupling.cpuShare;
    const auto& gpu = coupling.gpuShare;
    if (cpu && !gpu) return "CPU";
    if (gpu && !cpu) return "GPU";
    if (!cpu || !gpu) return {};
    if (*cpu >= 2 * *gpu) return "CPU";
    if (*gpu >= 2 * *cpu) return "GPU";
    return "CPU and GPU";
}

std::string coolsMostlyKnown(const FanCoupling& coupling) {
    return coupling.confidence > 0 ? coolsMostly(coupling) : std::string();
}

bool couplingKnown(const std::vector<FanCoupling>& couplings, double confidence) {
    if (couplings.size() < 2) return false;
    return std::all_of(couplings.begin(), couplings.end(),
                       [&](const FanCoupling& c) { return c.confidence >= confidence; });
}

}  // namespace kelvo
