#include "SvgChart.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>

#include "foundation/core/XmlText.h"

namespace kelvo::quality {

namespace {

constexpr double kWidth = 1000;
constexpr double kLeft = 70;
constexpr double kLegendRight = 985;  // the legend wraps before the chart's right edge
constexpr double kRight = 20;
constexpr std::size_t kMaxPoints = 600;
const char* const kColours[] = {"#ff7f0e", "#1f77b4", "#2ca02c", "#d62728", "#9467bd",
                                "#8c564b", "#e377c2", "#7f7f7f", "#bcbd22", "#000000",
                                "#17becf", "#393b79", "#e7ba52", "#3b8f3b"};

double hottest(const SeriesPoint& p) {
    return std::max(p.cpuC, p.gpuC);
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

}  // namespace

double SvgChart::seconds() const {
    std::size_t longest = 1;
    for (const auto& line : lines_) longest = std::max(longest, line.series.size());
    return static_cast<double>(longest);
}

std::string SvgChart::polyline(const std::vector<SeriesPoint>& series, const Panel& panel,
                               const Value& value, const std::string& colour,
                               const std::string& dash) const {
    const double plotWidth = kWidth - kLeft - kRight;
    const std::size_t stride = std::max<std::size_t>(1, series.size() / kMaxPoints);
    std::string points;
    for (std::size_t i = 0; i < series.size(); i += stride) {
        const double x = kLeft + plotWidth * static_cast<double>(i) / seconds();
        const double y =
            panel.top + panel.height * (1 - (value(series[i]) - panel.lo) / (panel.hi - panel.lo));
        points +=
            number(x) + "," + number(std::clamp(y, panel.top, panel.top + panel.height)) + " ";
    }
    const std::string dashes = dash.empty() ? "" : " stroke-dasharray=\"" + dash + "\"";
    return "<polyline fill=\"none\" stroke=\"" + colour + "\" stroke-width=\"1.2\"" + dashes +
           " points=\"" + points + "\"/>\n";
}

std::string SvgChart::axes(const Panel& panel, const std::string& label, double step) const {
    std::string out = "<rect x=\"" + number(kLeft) + "\" y=\"" + number(panel.top) + "\" width=\"" +
                      number(kWidth - kLeft - kRight) + "\" height=\"" + number(panel.height) +
                      "\" fill=\"none\" stroke=\"#999\"/>\n";
    for (double v = std::ceil(panel.lo / step) * step; v <= panel.hi; v += step) {
        const double y = panel.top + panel.height * (1 - (v - panel.lo) / (panel.hi - panel.lo));
        out += "<line x1=\"" + number(kLeft) + "\" x2=\"" + number(kWidth - kRight) + "\" y1=\"" +
               number(y) + "\" y2=\"" + number(y) + "\" stroke=\"#eee\"/>\n";
        out += "<text x=\"" + number(kLeft - 6) + "\" y=\"" + number(y + 4) +
               "\" text-anchor=\"end\">" + std::to_string(static_cast<int>(v)) + "</text>\n";
    }
    out += "<text x=\"14\" y=\"" + number(panel.top + panel.height / 2) +
           "\" transform=\"rotate(-90 14 " + number(panel.top + panel.height / 2) +
           ")\" text-anchor=\"middle\">" + label + "</text>\n";
    return out;
}

std::string SvgChart::legend() const {
    std::string out;
    double x = kLeft;
    double y = 44;  // the text's baseline; a second row below the first where it runs out
    for (std::size_t i = 0; i < lines_.size(); ++i) {
        const std::string colour = kColours[i % std::size(kColours)];
        const double width = 30 + 7.0 * static_cast<double>(lines_[i].controller.size());
        if (x + width > kLegendRight && x > kLeft) {
            x = kLeft;
            y += 13;
        }
        out += "<rect x=\"" + number(x) + "\" y=\"" + number(y - 6) +
               "\" width=\"14\" height=\"4\" fill=\"" + colour + "\"/><text x=\"" + number(x + 18) +
               "\" y=\"" + number(y) + "\">" + lines_[i].controller + "</text>\n";
        x += width;
    }
    return out;
}

// Each fan's speed as a share of its range (a stopped fan at 0), for the quiet mode from a fresh
// profile, on the one it built and with the coupling known, and foresight, in their own colours,
// one dash pattern per fan.
std::string SvgChart::fanPanel(const Panel& panel) const {
    static const char* const kDashes[] = {"", "6 3", "2 3", "8 3 2 3"};
    std::string out = axes(panel, "each fan, % of its range", 25);
    double x = kLeft;
    for (std::size_t fan = 0; fan < fans_.size(); ++fan) {
        const std::string dash = kDashes[fan % std::size(kDashes)];
        out += "<line x1=\"" + number(x) + "\" x2=\"" + number(x + 24) + "\" y1=\"" +
               number(panel.top - 8) + "\" y2=\"" + number(panel.top - 8) +
               "\" stroke=\"#333\" stroke-width=\"1.2\"" +
               (dash.empty() ? std::string() : " stroke-dasharray=\"" + dash + "\"") +
               "/><text x=\"" + number(x + 28) + "\" y=\"" + number(panel.top - 4) + "\">" +
               xmlText(fans_[fan].name) + "</text>\n";
        x += 40 + 7.0 * static_cast<double>(fans_[fan].name.size());
        const double lo = fans_[fan].minRPM;
        const double span = std::max(1.0, fans_[fan].maxRPM - lo);
        const Value share = [fan, lo, span](const SeriesPoint& p) {
            if (fan >= p.fanRPM.size() || !(p.fanRPM[fan] > 0)) return 0.0;
            return std::clamp((p.fanRPM[fan] - lo) / span, 0.0, 1.0) * 100;
        };
        for (std::size_t i = 0; i < lines_.size(); ++i) {
            const std::string& name = lines_[i].controller;
            if (name != "quiet" && name != "quiet-learned" && name != "quiet-known" &&
                name != "foresight")
                continue;
            out +=
                polyline(lines_[i].series, panel, share, kColours[i % std::size(kColours)], dash);
        }
    }
    return out;
}

std::string SvgChart::render() const {
    double tLo = 1e9, tHi = -1e9, dLo = 1e9, dHi = 0;
    for (const auto& line : lines_)
        for (const auto& p : line.series) {
            tLo = std::min(tLo, hottest(p));
            tHi = std::max(tHi, hottest(p));
            dLo = std::min(dLo, p.db);
            dHi = std::max(dHi, p.db);
        }
    Panel temps{60, 300, std::floor(std::min(tLo, 40.0) / 10) * 10,
                std::ceil(std::max(tHi, std::max(cpuLimitC_, gpuLimitC_) + 2) / 10) * 10};
    Panel sound{400, 260, std::floor(std::min(dLo, dHi - 10) / 5) * 5,
                std::ceil((dHi + 1) / 5) * 5};
    const bool perFan = fans_.size() > 1;
    const double height = perFan ? 980 : 720;
    std::string svg =
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"1000\" height=\"" + number(height) +
        "\" "
        "font-family=\"sans-serif\" font-size=\"12\">\n<rect width=\"100%\" height=\"100%\" "
        "fill=\"white\"/>\n<text x=\"" +
        number(kLeft) + "\" y=\"22\" font-size=\"16\">" + title_ + "</text>\n";
    svg += legend();
    svg += axes(temps, "hotter die, C", 10);
    svg += axes(sound, "fans' sound level, dB(A)", sound.hi - sound.lo > 30 ? 10 : 5);
    // The quiet limits, each with its own dash, so "over the limit" can be read off the chart.
    auto limitLine = [&](double limit, const char* dash, const std::string& label, double dy) {
        const double y =
            temps.top + temps.height * (1 - (limit - temps.lo) / (temps.hi - temps.lo));
        return "<line x1=\"" + number(kLeft) + "\" x2=\"" + number(kWidth - kRight) + "\" y1=\"" +
               number(y) + "\" y2=\"" + number(y) + "\" stroke=\"#d62728\" stroke-dasharray=\"" +
               dash + "\"/>\n<text x=\"" + number(kWidth - kRight - 4) + "\" y=\"" +
               number(y + dy) + "\" text-anchor=\"end\" fill=\"#d62728\">" + label + "</text>\n";
    };
    svg += limitLine(cpuLimitC_, "6 3", "CPU limit " + number(cpuLimitC_), -3);
    if (gpuLimitC_ != cpuLimitC_)
        svg += limitLine(gpuLimitC_, "2 3", "GPU limit " + number(gpuLimitC_), 12);
    for (std::size_t i = 0; i < lines_.size(); ++i) {
        const std::string colour = kColours[i % std::size(kColours)];
        svg += polyline(lines_[i].series, temps, hottest, colour);
        svg += polyline(
            lines_[i].series, sound, [](const SeriesPoint& p) { return p.db; }, colour);
    }
    if (perFan) svg += fanPanel(Panel{720, 220, 0, 100});
    svg += "<text x=\"" + number(kLeft) + "\" y=\"" + number(height - (perFan ? 12 : 30)) +
           "\">time: " + std::to_string(static_cast<int>(seconds())) +
           " s (simulated)</text>\n</svg>\n";
    return svg;
}

bool SvgChart::write(const std::string& path) const {
    std::ofstream file(path);
    file << render();
    return static_cast<bool>(file);
}

}  // namespace kelvo::quality
