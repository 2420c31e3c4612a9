#include "dashboard/TrendReferenceLabels.h"

#include <QFontDatabase>
#include <QFontMetricsF>
#include <algorithm>

namespace kelvo {

namespace {
constexpr double kSmallControlPixelSize = 11.0;
constexpr double kLabelGapPoints = 6.0;
}  // namespace

QFont trendReferenceLabelFont() {
    QFont font = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    font.setPixelSize(static_cast<int>(kSmallControlPixelSize));
    font.setWeight(QFont::Normal);
    return font;
}

std::vector<FixedViewportTrendReferenceLabel> fixedViewportTrendReferenceXAxisLabels(
    const std::vector<FixedViewportTrendTickSnapshot>& ticks, const QRectF& plotFrame,
    const QFont& font) {
    const QFontMetricsF metrics(font);
    std::vector<FixedViewportTrendReferenceLabel> labels;
    double limit = plotFrame.right();
    for (auto tick = ticks.rbegin(); tick != ticks.rend(); ++tick) {
        const QString text = QString::fromStdString(tick->text);
        const double width = metrics.horizontalAdvance(text);
        const double rawX = plotFrame.left() + tick->xFraction * plotFrame.width();
        if (rawX > plotFrame.right()) continue;
        const double half = width / 2;
        double x = std::max(rawX, plotFrame.left() + half);
        x = std::min(x, plotFrame.right() - half);
        if (x + half > limit) continue;
        labels.push_back({tick->date, tick->text, x, rawX});
        limit = x - half - kLabelGapPoints;
    }
    std::reverse(labels.begin(), labels.end());
    return labels;
}

TrendColor trendRenderColor(const QColor& color) {
    const QColor rgb = color.toRgb();
    const QColor& use = rgb.isValid() ? rgb : color;
    return {static_cast<float>(use.redF()), static_cast<float>(use.greenF()),
            static_cast<float>(use.blueF()), static_cast<float>(use.alphaF())};
}

}  // namespace kelvo
