#include "dashboard/TrendReferenceLabels.h"

#include <QFontDatabase>
#include <QFontMetricsF>
#include <algorithm>

namespace kelvo {

namespace {
constexpr int kSmallControlPixelSize = 11;
constexpr double kLabelGapPoints = 6.0;
}  // namespace

QFont trendReferenceLabelFont() {
    QFont font = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    font.setPixelSize(kSmallControlPixelSize);
    font.setWeight(QFont::Normal);
    return font;
}

std::vector<FixedViewportTrendReferenceLabel> fixedViewportTrendReferenceXAxisLabels(
    std::span<const FixedViewportTrendTickSnapshot> ticks, const QRectF& plotFrame,
    const QFont& font) {
    const QFontMetricsF metrics(font);
    std::vector<FixedViewportTrendReferenceLabel> labels;
    labels.reserve(ticks.size());
    double limit = plotFrame.right();
    // Newest first, so the label at the live edge is never the one dropped.
    for (auto tick = ticks.rbegin(); tick != ticks.rend(); ++tick) {
        const double rawX = plotFrame.left() + tick->xFraction * plotFrame.width();
        if (rawX > plotFrame.right()) continue;
        const double half = metrics.horizontalAdvance(QString::fromStdString(tick->text)) / 2;
        const double x =
            std::min(std::max(rawX, plotFrame.left() + half), plotFrame.right() - half);
        if (x + half > limit) continue;
        labels.push_back({tick->date, tick->text, x, rawX});
        limit = x - half - kLabelGapPoints;
    }
    std::reverse(labels.begin(), labels.end());
    return labels;
}

}  // namespace kelvo
