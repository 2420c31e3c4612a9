#include "desktop/DashboardWindowPlacement.h"

#include <algorithm>
#include <optional>

namespace kelvo {

namespace {
std::optional<QRectF> chooseScreen(const QRectF& proposed, const QPointF& topLeft,
                                   const QList<QRectF>& screens, const QRectF& primary) {
    const double t = kPlacementScreenTolerance;
    for (const QRectF& screen : screens)
        if (screen.adjusted(-t, -t, t, t).contains(topLeft)) return screen;
    for (const QRectF& screen : screens)
        if (screen.intersects(proposed)) return screen;
    if (!primary.isNull()) return primary;
    if (!screens.isEmpty()) return screens.first();
    return std::nullopt;
}
}  // namespace

QRectF constrainedDashboardFrame(const QSizeF& frameSize, const QPointF& topLeft,
                                 const QList<QRectF>& availableGeometries, const QRectF& primary) {
    const QRectF proposed(topLeft, frameSize);
    const auto screen = chooseScreen(proposed, topLeft, availableGeometries, primary);
    if (!screen) return proposed;
    const double width = std::min(frameSize.width(), screen->width());
    const double height = std::min(frameSize.height(), screen->height());
    // Qt's rectangles end one pixel early (right() = x + width - 1): use x + width directly.
    const double maxX = screen->x() + screen->width() - width;
    const double maxY = screen->y() + screen->height() - height;
    const double x = std::min(std::max(screen->x(), proposed.x()), maxX);
    const double y = std::min(std::max(screen->y(), proposed.y()), maxY);
    return QRectF(x, y, width, height);
}

}  // namespace kelvo
