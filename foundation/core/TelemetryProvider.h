// Source of one telemetry sample per control-loop tick.
#pragma once

#include "foundation/core/Types.h"

namespace kelvo {

class TelemetryProvider {
public:
    virtual ~TelemetryProvider() = default;
    // Reads every sensor once. Fan lists may be left empty: the loop fills them from the fan
    // back-end. A sensor that cannot be read stays absent.
    virtual TelemetrySample sample(Timestamp now) = 0;
    // The machine's own high-load power level, when known (else the loop uses 45 W).
    virtual std::optional<double> highLoadPowerW() const { return std::nullopt; }
};

}  // namespace kelvo
