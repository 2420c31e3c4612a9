// Which die each fan cools, and how much, as Kelvo has measured it on this machine: the evidence
// its probes gathered (kept per fan identity in the store) and what it adds up to for the fans
// that are there now.
#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvo {

// Answers to probes: a weighted mean of how much a die cooled per rpm the fan gained, relative to
// how far the die was over the coolest it had been (so probes under a light and a heavy load
// measure the same thing), with its spread.
struct DieResponse {
    double sum = 0;      // Σ w·x
    double weight = 0;   // Σ w
    double squares = 0;  // Σ w·x²
    int count = 0;

    void add(double x, double w);
    std::optional<double> mean() const;
    // The mean's standard error; none with fewer than two answers.
    std::optional<double> standardError() const;
    bool operator==(const DieResponse&) const = default;
};

// The heatsink lags each probe is read with (a laptop's fin stack answers in tens of seconds, a
// tower cooler in minutes): every probe is read at each, and each die's answers are taken at the
// lag that has explained its probes best. One lag for all of a die's fans keeps them comparable.
inline constexpr std::array<double, 11> kCouplingLagsS{15,  21,  30,  42,  60, 85,
                                                       120, 170, 240, 340, 480};

// One die's answers to one fan's probes, at every lag, and how much of each probe each lag left
// unexplained (summed).
struct DieEvidence {
    std::array<DieResponse, kCouplingLagsS.size()> byLag{};
    std::array<double, kCouplingLagsS.size()> misfit{};
    int probes() const;
    bool operator==(const DieEvidence&) const = default;
};

struct FanCouplingEvidence {
    DieEvidence cpu;
    DieEvidence gpu;
    bool operator==(const FanCouplingEvidence&) const = default;
};

// As the store keeps it: one line of numbers. Decoding refuses anything that is not exactly such
// a line of finite numbers (negative weights, squares or counts included).
std::string encodeCouplingEvidence(const FanCouplingEvidence& evidence);
std::optional<FanCouplingEvidence> decodeCouplingEvidence(std::string_view text);

// The least a fan's probes must number before what they show is believed.
inline constexpr int kCouplingProbesForConfidence = 6;

// One fan among the machine's fans.
struct FanCoupling {
    std::string identity;
    // This fan's share of the cooling all the fans give each die (0-1, the shares of one die
    // add up to 1); none until every fan has answered for that die.
    std::optional<double> cpuShare;
    std::optional<double> gpuShare;
    // This fan's cooling per rpm for each die, on a scale shared by all fans of that die (the
    // weights an allocation of speeds works with); none where the share is none.
    std::optional<double> cpuPerRPM;
    std::optional<double> gpuPerRPM;
    double confidence = 0;  // 0-1: how sure the shares are, from the probes' count and spread
    int probes = 0;
    bool operator==(const FanCoupling&) const = default;
};

// The fans in `fans` order with their shares; a fan with no evidence has none.
std::vector<FanCoupling> fanCouplings(const std::map<std::string, FanCouplingEvidence>& evidence,
                                      const std::vector<std::string>& fans);
// "CPU", "GPU" or "CPU and GPU" (neither share twice the other); empty while unknown.
std::string coolsMostly(const FanCoupling& coupling);
// The same as the user is told it: nothing while the fan's confidence is 0, its shares' error a
// quarter of all the fans' cooling or more (what the probes show there is noise, and on sensors
// that read whole degrees it is often the wrong die).
std::string coolsMostlyKnown(const FanCoupling& coupling);
// Every fan's confidence at least `confidence`, and more than one fan.
bool couplingKnown(const std::vector<FanCoupling>& couplings, double confidence = 0.8);

}  // namespace kelvo
