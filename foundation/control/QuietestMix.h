// The quietest fan speeds that give each die's sink at least a given airflow: what the quiet
// modes ask of each fan once Kelvo knows which fan cools what, and what the control table's
// floor plans with. Sound power goes with the fifth power of
// a fan's speed and airflow with its first, so the cost is convex and the constraints linear; the
// optimum follows from two prices, one per die (Lagrange multipliers), found by bisection. Fans
// that can stop are tried standing still, every subset of them, and the quietest feasible mix is
// kept.
#pragma once

#include <cstddef>
#include <map>
#include <utility>
#include <vector>

namespace kelvo {

class QuietestMix {
public:
    struct Fan {
        double lo = 0;  // its turning range, rpm
        double hi = 0;
        double weight[2] = {0, 0};  // cooling per rpm for the CPU's and the GPU's sink
        double cost = 0;            // sound power per rpm^5
        bool canStop = false;
    };

    explicit QuietestMix(std::vector<Fan> fans);

    // Each fan's speed (kFanStopRPM for one that stands still) for the two dies' levels. Level 0
    // asks a die's sink for the airflow of every fan at its minimum, 1 for that of every fan at
    // its maximum, linearly between; under 0 (down to -1, nothing) fans that can stop may stand
    // still. Levels are clamped to -1..1 (to 0..1 where no fan can stop).
    const std::vector<double>& speeds(double cpuLevel, double gpuLevel);

    // Each fan's duty for a speed from speeds(): 0..1 between its minimum and maximum, -1 for a
    // fan standing still.
    std::vector<double> duties(const std::vector<double>& speeds) const;

    // The level a die's sink gets from the fans at these duties (as duties() gives them): the
    // inverse of what speeds() asks of them, so one duty for every fan is that duty's level.
    double levelAt(int die, const std::vector<double>& duties) const;

    double lowestLevel() const { return anyCanStop_ ? -1.0 : 0.0; }

private:
    double airflow(int die, const std::vector<double>& rpm) const;
    void atPrices(double cpuPrice, double gpuPrice, unsigned stopped,
                  std::vector<double>& rpm) const;
    double leastPrice(int die, double otherPrice, unsigned stopped, double need) const;
    bool solve(const double need[2], unsigned stopped, std::vector<double>& rpm) const;
    double cost(const std::vector<double>& rpm) const;

    std::vector<Fan> fans_;
    double atMin_[2] = {0, 0};
    double atMax_[2] = {0, 0};
    bool anyCanStop_ = false;
    std::map<std::pair<double, double>, std::vector<double>> cache_;
};

}  // namespace kelvo
