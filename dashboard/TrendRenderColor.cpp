#include "dashboard/TrendRenderColor.h"

namespace kelvo {

TrendColor trendRenderColor(const QColor& color) {
    const QColor rgb = color.toRgb();
    const QColor& use = rgb.isValid() ? rgb : color;
    return {static_cast<float>(use.redF()), static_cast<float>(use.greenF()),
            static_cast<float>(use.blueF()), static_cast<float>(use.alphaF())};
}

}  // namespace kelvo
