#include "foundation/chart/FixedViewportXAxisLabelLayout.h"

#include <algorithm>

namespace kelvo::FixedViewportXAxisLabelLayout {

double shiftedCentre(const ScrollingLabelPlacementInput& input) {
    return input.anchoredX - input.shiftPixels;
}

bool reachesPastLeftEdge(const ScrollingLabelPlacementInput& input) {
    return input.rawX - input.shiftPixels < input.plotFrame.minX;
}

std::optional<ScrollingLabelPlacement> scrollingLabelPlacement(
    const ScrollingLabelPlacementInput& input) {
    const double x = shiftedCentre(input);
    const double half = input.width / 2;
    if (x + half <= 0 || x - half >= input.viewportWidth) return std::nullopt;
    // Labels newer than the plot's right edge have not scrolled in yet.
    if (x + half > input.plotFrame.maxX) return std::nullopt;
    if (input.liveLabel && x + half + kLiveLabelGapPoints > input.liveLabel->minX)
        return std::nullopt;
    if (input.sameTextAsLiveLabel) return std::nullopt;
    const double fade = std::clamp(input.retirementFadeProgress.value_or(0.0), 0.0, 1.0);
    if (fade >= 1.0) return std::nullopt;
    return ScrollingLabelPlacement{x, static_cast<float>(1.0 - fade)};
}

}  // namespace kelvo::FixedViewportXAxisLabelLayout
