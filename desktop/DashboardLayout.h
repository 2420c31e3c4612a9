// Fixed layout values of the dashboard window, in device-independent pixels unless stated. The
// QML reads them through dashboardLayoutMap(), so C++ (window sizing) and QML agree.
#pragma once

#include <QVariantMap>

namespace kelvo::dashboard_layout {

inline constexpr double trendChartYDomainMax = 105;  // percent scale of the chart's left axis
inline constexpr double trendControlButtonHeight = 44;
inline constexpr double trendControlGridSpacing = 12;
inline constexpr double trendControlRowSpacing = 8;
inline constexpr double trendControlCardSpacing = 12;
inline constexpr double trendPerformanceFontScale = 0.9;
inline constexpr double trendPerformanceLabelFontSize = 18;
inline constexpr double trendPerformanceValueFontSize = 31;
inline constexpr double trendControlDotSize = 12;
inline constexpr double trendControlContentSpacing = 5;
inline constexpr double trendControlChainLeadSpacing = 2;
inline constexpr double trendControlLinkSlotWidth = 14;
inline constexpr double trendControlOuterPaddingAllowance = 16;
inline constexpr double fixedViewportBaseOffscreenWriteSeconds = 1;  // seconds
inline constexpr double cardCornerRadius = 12;
inline constexpr double windowGutter = 20;
inline constexpr double surfaceStackSpacing = 16;
inline constexpr double sectionCardContentPadding = 16;
inline constexpr double liveMetricsCardSpacing = 12;
inline constexpr double utilityModeSliderWidth = 286;
inline constexpr double utilitySurfacePickerWidth = 318;
inline constexpr double utilityTopBarMinimumSlack = 28;
inline constexpr double utilityTopBarSpacing = 12;
inline constexpr double utilityAuxiliarySpacing = 10;

// The narrowest window in which the top bar's slider and picker sit side by side with room to
// spare: both gutters, both controls, the spacing between them and the minimum slack.
inline constexpr double minimumContentWidth = windowGutter * 2 + utilityModeSliderWidth +
                                              utilityTopBarSpacing + utilitySurfacePickerWidth +
                                              utilityTopBarMinimumSlack;

QVariantMap dashboardLayoutMap();

}  // namespace kelvo::dashboard_layout
