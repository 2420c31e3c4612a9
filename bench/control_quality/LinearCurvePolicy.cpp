#include "LinearCurvePolicy.h"

#include <algorithm>
#include <cstdio>

namespace kelvo::quality {

std::string LinearCurvePolicy::parameters() const {
    char text[160];
    std::snprintf(text, sizeof text,
                  "hotter of CPU/GPU; minimum speed up to %.0f C, maximum from %.0f C, linear "
                  "between",
                  minTempC_, maxTempC_);
    return text;
}

double LinearCurvePolicy::duty(const TelemetrySample& sample, double) {
    auto temp = hottestTemperature(sample);
    if (!temp) return 1.0;  // blind: the safe side
    return std::clamp((*temp - minTempC_) / (maxTempC_ - minTempC_), 0.0, 1.0);
}

}  // namespace kelvo::quality
