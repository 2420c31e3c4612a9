// Where the dashboard window goes when it is first shown: the persisted top-left corner, kept
// on a screen that is still attached and shrunk to fit it. Qt's screen coordinates put the
// origin at the top left, so the persisted "top_left_y" is the frame's top edge as Qt sees it.
#pragma once

#include <QList>
#include <QPointF>
#include <QRectF>
#include <QSizeF>

namespace kelvo {

inline constexpr double kPlacementScreenTolerance = 40;

// `frameSize` is the window frame for the wanted content size; `availableGeometries` are the
// screens' usable areas in the order the system lists them; `primary` is the primary screen's
// (null when there is no screen at all).
QRectF constrainedDashboardFrame(const QSizeF& frameSize, const QPointF& topLeft,
                                 const QList<QRectF>& availableGeometries, const QRectF& primary);

}  // namespace kelvo
