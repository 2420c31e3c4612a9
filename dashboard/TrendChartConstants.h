// Fixed geometry of the dashboard's trend chart, shared by the snapshot builder and its users.
#pragma once

namespace kelvo {

// The chart's y range: degrees Celsius for temperatures, per cent of the scale for the rest.
// The extra 5 leaves headroom so a line at 100 % is not drawn on the frame.
inline constexpr double kTrendChartYDomainMax = 105.0;
// Newest data is written this far off-screen and revealed over the same time, so the line
// grows smoothly instead of jumping at every store update.
inline constexpr double kFixedViewportBaseOffscreenWriteSeconds = 1.0;

}  // namespace kelvo
