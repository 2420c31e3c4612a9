// Where a scrolling x-axis label is drawn while the chart slides left.
//
// Rule: the label stays centred on its anchored position moved left by the current shift. It
// starts fading when its tick (the raw position, moved by the shift) passes the plot's left
// edge; testing the tick rather than the label's frame keeps a label that was clamped inside
// the plot steady until its time really leaves the chart. It is not drawn when its frame lies
// wholly outside the viewport or past the plot's right edge, when it would come closer than
// 6 points to the live (rightmost) label, when it says the same as the live label (on the
// 5-minute window both read the current minute: "18:24 … 18:24"), or once its fade has
// finished; while it fades its opacity is 1 − the fade progress.
#pragma once

#include <optional>

namespace kelvo {

struct HorizontalExtent {
    double minX = 0;
    double maxX = 0;
};

struct ScrollingLabelPlacement {
    double x = 0;  // centre, view points
    float opacity = 1;
    bool operator==(const ScrollingLabelPlacement&) const = default;
};

struct ScrollingLabelPlacementInput {
    double anchoredX = 0;  // the label's centre when the shift is zero
    double rawX = 0;       // its tick's own position when the shift is zero
    double width = 0;
    double shiftPixels = 0;
    HorizontalExtent plotFrame;
    double viewportWidth = 0;
    std::optional<HorizontalExtent> liveLabel;
    bool sameTextAsLiveLabel = false;
    // Absent while the label is inside the plot; 0 to 1 while it fades out on the left.
    std::optional<double> retirementFadeProgress;
};

namespace FixedViewportXAxisLabelLayout {

inline constexpr double kLiveLabelGapPoints = 6.0;

// The label's centre after the shift (before any placement rule).
double shiftedCentre(const ScrollingLabelPlacementInput& input);
// Whether the label's tick has passed the plot's left edge: the moment its fade starts.
bool reachesPastLeftEdge(const ScrollingLabelPlacementInput& input);
// Its placement, or nothing when it is not shown.
std::optional<ScrollingLabelPlacement> scrollingLabelPlacement(
    const ScrollingLabelPlacementInput& input);

}  // namespace FixedViewportXAxisLabelLayout
}  // namespace kelvo
