// One x-axis label on the axis, from the moment its tick appears until it has faded out.
#pragma once

#include <QSizeF>
#include <optional>
#include <string>

#include "foundation/core/Types.h"

namespace kelvo {

struct ScrollingXAxisLabelState {
    Timestamp date = 0;
    std::string text;
    QSizeF size;
    double x = 0;     // anchored centre, view points, at shift 0
    double rawX = 0;  // the tick's unclamped position at shift 0
    bool isDesired = true;
    // Media time at which its fade-out on the left began.
    std::optional<double> leftFadeStartTime;
};

}  // namespace kelvo
