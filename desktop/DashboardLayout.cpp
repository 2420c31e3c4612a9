#include "desktop/DashboardLayout.h"

namespace kelvo::dashboard_layout {

QVariantMap dashboardLayoutMap() {
    return {
        {QStringLiteral("trendChartYDomainMax"), trendChartYDomainMax},
        {QStringLiteral("trendControlButtonHeight"), trendControlButtonHeight},
        {QStringLiteral("trendControlGridSpacing"), trendControlGridSpacing},
        {QStringLiteral("trendControlRowSpacing"), trendControlRowSpacing},
        {QStringLiteral("trendControlCardSpacing"), trendControlCardSpacing},
        {QStringLiteral("trendPerformanceFontScale"), trendPerformanceFontScale},
        {QStringLiteral("trendPerformanceLabelFontSize"), trendPerformanceLabelFontSize},
        {QStringLiteral("trendPerformanceValueFontSize"), trendPerformanceValueFontSize},
        {QStringLiteral("trendControlDotSize"), trendControlDotSize},
        {QStringLiteral("trendControlContentSpacing"), trendControlContentSpacing},
        {QStringLiteral("trendControlChainLeadSpacing"), trendControlChainLeadSpacing},
        {QStringLiteral("trendControlLinkSlotWidth"), trendControlLinkSlotWidth},
        {QStringLiteral("trendControlOuterPaddingAllowance"), trendControlOuterPaddingAllowance},
        {QStringLiteral("fixedViewportBaseOffscreenWriteSeconds"),
         fixedViewportBaseOffscreenWriteSeconds},
        {QStringLiteral("cardCornerRadius"), cardCornerRadius},
        {QStringLiteral("windowGutter"), windowGutter},
        {QStringLiteral("surfaceStackSpacing"), surfaceStackSpacing},
        {QStringLiteral("sectionCardContentPadding"), sectionCardContentPadding},
        {QStringLiteral("liveMetricsCardSpacing"), liveMetricsCardSpacing},
        {QStringLiteral("utilityModeSliderWidth"), utilityModeSliderWidth},
        {QStringLiteral("utilitySurfacePickerWidth"), utilitySurfacePickerWidth},
        {QStringLiteral("utilityTopBarMinimumSlack"), utilityTopBarMinimumSlack},
        {QStringLiteral("utilityTopBarSpacing"), utilityTopBarSpacing},
        {QStringLiteral("utilityAuxiliarySpacing"), utilityAuxiliarySpacing},
        {QStringLiteral("minimumContentWidth"), minimumContentWidth},
    };
}

}  // namespace kelvo::dashboard_layout
