#include "dashboard/TrendXAxisTicks.h"

#include <string>

namespace kelvo {

std::vector<Timestamp> fixedViewportTrendXAxisTickDates(ClosedTimeRange timeDomain,
                                                        TrendWindowMode mode) {
    const auto windowShape = trendWindowShape(mode);
    auto dates =
        FixedViewportTrendAxisLabels::referenceTickDates(timeDomain, windowShape.tickStrideSeconds);
    if (!dates.empty() && dates.back() == timeDomain.upper) dates.pop_back();
    std::vector<Timestamp> kept;
    kept.reserve(dates.size());
    std::string lastKeptText;
    for (std::size_t i = 0; i < dates.size(); ++i) {
        std::string text = FixedViewportTrendAxisLabels::text(dates[i], windowShape.windowSeconds);
        const bool edge = i == 0 || i + 1 == dates.size();
        if (edge || text != lastKeptText) {
            kept.push_back(dates[i]);
            lastKeptText = std::move(text);
        }
    }
    return kept;
}

}  // namespace kelvo
