// The dashboard's named colours, in one place so the chart, its legend and the Peak Performance
// tint always agree.
#pragma once

#include <QColor>

namespace kelvo::SystemColor {

inline constexpr QColor red{232, 72, 77};
inline constexpr QColor green{48, 178, 96};
inline constexpr QColor purple{152, 96, 214};
inline constexpr QColor blue{36, 132, 240};
inline constexpr QColor cyan{44, 186, 214};
inline constexpr QColor orange{244, 134, 40};
inline constexpr QColor yellow{236, 190, 42};
// Neutral, for values that are not there yet.
inline constexpr QColor secondary{140, 142, 150};

// The same colour at another opacity (0–1).
QColor withAlpha(QColor color, double alpha);

}  // namespace kelvo::SystemColor
