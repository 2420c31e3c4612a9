// Intel GPU (i915 or xe) frequencies from the DRM card's attributes.
#pragma once

#include <optional>
#include <string>

#include "foundation/telemetry/GpuReading.h"

namespace kelvo {

class IntelGpuSampler {
public:
    explicit IntelGpuSampler(std::string sysRoot = "/");

    // The first card (lowest cardN) with i915 gt_*_freq_mhz files or xe
    // device/tile0/gt0/freq0/ files: the actual frequency (else the requested one) and the
    // maximum. The driver reports no busy percentage, so utilisation stays absent. Absent when
    // there is no such card.
    std::optional<GpuReading> sample() const;

private:
    std::string sysRoot_;
};

}  // namespace kelvo
