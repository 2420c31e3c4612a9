// One chart per machine and trace: the hotter die's temperature and the fans' sound level of every
// controller over the trace, as a standalone SVG file.
#pragma once

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
    std::string render() const;
    bool write(const std::string& path) const;

private:
    struct Panel {
        double top;
        double height;
        double lo;
        double hi;
    };
    std::string polyline(const std::vector<SeriesPoint>& series, const Panel& panel, bool sound,
                         const std::string& colour) const;
    std::string axes(const Panel& panel, const std::string& label, double step) const;
    std::string legend() const;
    double seconds() const;

    std::string title_;
    double cpuLimitC_;
    double gpuLimitC_;
    std::vector<ChartLine> lines_;
};

}  // namespace kelvo::quality
