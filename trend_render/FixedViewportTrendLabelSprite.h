// One x-axis label as the renderer draws it.
#pragma once

#include <QRectF>
#include <string>

namespace kelvo {

struct FixedViewportTrendLabelSprite {
    std::string text;
    QRectF frame;  // view points
    float opacity = 1;
    bool operator==(const FixedViewportTrendLabelSprite&) const = default;
};

}  // namespace kelvo
