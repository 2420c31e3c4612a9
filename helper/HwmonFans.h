// hwmon fans as one kind behind FanOwner: found by discovery below the sysfs root, taken by
// switching pwmN_enable to manual and writing pwmN, given back by writing the journaled
// pwmN_enable (and pwmN, for a channel that was manual already).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "foundation/fans/HwmonFanService.h"
#include "helper/FanKind.h"

namespace kelvo::helperd {

class HwmonFans : public FanKind {
public:
    HwmonFans(std::shared_ptr<HwmonFanService> service, FanOwner& owner);

    std::vector<HwmonFan> discover() const { return service_->discover(); }
    std::unique_ptr<FanDevice> find(const std::string& identity) const override;

    // The fan as it was discovered when `client` took it; null when the client does not hold it.
    const HwmonFan* heldFan(ClientId client, const std::string& identity) const;

    // Puts `fan` (fresh from discover()) in manual mode at duty cycle `pwm` for `client`.
    ArbiterOutcome take(ClientId client, const HwmonFan& fan, int pwm);

private:
    std::shared_ptr<HwmonFanService> service_;
};

}  // namespace kelvo::helperd
