// The temperature inputs of every hwmon device, for the helper's listing (kelvoctl shows them
// next to the fans). Named like fans: driver@device#tempN, stable across hwmonN renumbering.
#pragma once

#include <string>
#include <vector>

#include "foundation/helper_protocol/HelperProtocol.h"

namespace kelvo::helperd {

class HwmonSensors {
public:
    explicit HwmonSensors(std::string sysRoot);

    // Ordered by identity; an unreadable tree gives an empty list.
    std::vector<helper_protocol::SensorInfo> discover() const;

private:
    std::string sysRoot_;
};

}  // namespace kelvo::helperd
