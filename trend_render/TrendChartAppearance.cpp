#include "trend_render/TrendChartAppearance.h"

#include <QGuiApplication>

#include "dashboard/TrendReferenceLabels.h"
#include "dashboard/TrendRenderColor.h"

namespace kelvo {

namespace {
// The time labels read like the window's other secondary text (at least 4.5:1 on both palettes).
constexpr double kSecondaryLabelAlpha = 0.6;
constexpr double kSeparatorAlpha = 0.15;
// Of the label colour: the dashed minute lines stay quieter than the labels under them.
constexpr double kVerticalGridAlpha = 0.32;

QColor withAlpha(QColor color, double alpha) {
    color.setAlphaF(static_cast<float>(alpha));
    return color;
}
}  // namespace

TrendChartAppearance TrendChartAppearance::fromPalette(const QPalette& palette) {
    const QColor window = palette.color(QPalette::Window);
    const QColor text = palette.color(QPalette::WindowText);
    TrendChartAppearance appearance;
    appearance.name = window.lightnessF() < 0.5 ? QStringLiteral("dark") : QStringLiteral("light");
    appearance.labelColor = withAlpha(text, kSecondaryLabelAlpha);
    appearance.separatorColor = withAlpha(text, kSeparatorAlpha);
    return appearance;
}

TrendChartAppearance TrendChartAppearance::current() {
    return fromPalette(QGuiApplication::palette());
}

TrendColor TrendChartAppearance::horizontalGridColor() const {
    return trendRenderColor(separatorColor);
}

TrendColor TrendChartAppearance::verticalGridColor() const {
    return trendRenderColor(withAlpha(labelColor, kVerticalGridAlpha));
}

TrendColor TrendChartAppearance::axisTickColor() const {
    return trendRenderColor(labelColor);
}

QFont TrendChartAppearance::labelFont() {
    return trendReferenceLabelFont();
}

}  // namespace kelvo
