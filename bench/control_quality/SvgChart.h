// One chart per machine and trace: the hotter die's temperature and the fans' sound level of every
// controller over the trace and, on a machine with more than one fan, each fan's speed under
// Kelvo's quiet mode and under foresight (how each shares the work among the fans), as a
// standalone SVG file.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "QualityRun.h"

namespace kelvo::quality {

struct ChartLine {
    std::string controller;
    std::vector<SeriesPoint> series;
};

class SvgChart {
public:
    SvgChart(std::string title, double cpuLimitC, double gpuLimitC)
        : title_(std::move(title)), cpuLimitC_(cpuLimitC), gpuLimitC_(gpuLimitC) {}
    void add(ChartLine line) { lines_.push_back(std::move(line)); }
    // The machine's fans, for the per-fan panel (left out with one fan or none).
    void setFans(std::vector<sim::FanConfig> fans) { fans_ = std::move(fans); }
    std::string render() const;
    bool write(const std::string& path) const;

private:
    struct Panel {
        double top;
        double height;
        double lo;
        double hi;
    };
    using Value = std::function<double(const SeriesPoint&)>;
    std::string polyline(const std::vector<SeriesPoint>& series, const Panel& panel,
                         const Value& value, const std::string& colour,
                         const std::string& dash = {}) const;
    std::string fanPanel(const Panel& panel) const;
    std::string axes(const Panel& panel, const std::string& label, double step) const;
    std::string legend() const;
    double seconds() const;

    std::string title_;
    double cpuLimitC_;
    double gpuLimitC_;
    std::vector<ChartLine> lines_;
    std::vector<sim::FanConfig> fans_;
};

}  // namespace kelvo::quality
