#include "dashboard/PeakPerformanceFormat.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "dashboard/PeakPerformanceAnalysis.h"

namespace kelvo {

namespace {
std::string printed(const char* pattern, double value) {
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}
}  // namespace

std::string formatPerformanceLevel(double level) {
    const double rounded = std::round(level);
    // As an integer, so a level just below zero reads "0", not "-0".
    if (std::fabs(rounded - level) < 0.05) return std::to_string(static_cast<long long>(rounded));
    return printed("%.1f", level);
}

std::string formatRetentionFraction(double retention) {
    return printed("%.1f%%", std::max(0.0, retention) * 100);
}

std::string formatRetentionPercent(const std::optional<double>& deficit) {
    if (!deficit) return kPeakPerformanceNoValue;
    return formatRetentionFraction(peakPerformanceRetention(*deficit));
}

}  // namespace kelvo
