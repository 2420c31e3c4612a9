#include "dashboard/SystemColors.h"

namespace kelvo::SystemColor {

QColor withAlpha(QColor color, double alpha) {
    color.setAlphaF(static_cast<float>(alpha));
    return color;
}

}  // namespace kelvo::SystemColor
