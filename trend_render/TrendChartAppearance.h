// The chart's colours and label font under the current light or dark palette.
#pragma once

#include <QColor>
#include <QFont>
#include <QPalette>
#include <QString>

#include "dashboard/FixedViewportTrendSnapshot.h"

namespace kelvo {

struct TrendChartAppearance {
    QString name;       // "light" or "dark"
    QColor labelColor;  // secondary label colour, opaque-composited text tone
    QColor separatorColor;

    static TrendChartAppearance fromPalette(const QPalette& palette);
    // The application's palette now.
    static TrendChartAppearance current();

    TrendColor horizontalGridColor() const;  // separator
    TrendColor verticalGridColor() const;    // secondary label at alpha 0.35
    TrendColor axisTickColor() const;        // secondary label
    static QFont labelFont();

    bool operator==(const TrendChartAppearance&) const = default;
};

}  // namespace kelvo
