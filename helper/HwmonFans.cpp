#include "helper/HwmonFans.h"

#include <cerrno>

#include "foundation/fans/SysfsText.h"
#include "foundation/helper_protocol/HelperProtocol.h"

namespace kelvo::helperd {

namespace codes = helper_protocol::codes;
using sysfs::writeInteger;

namespace {

constexpr int kFirmwareAutomatic = 2;

class HwmonFanDevice : public FanDevice {
public:
    HwmonFanDevice(std::shared_ptr<HwmonFanService> service, HwmonFan fan)
        : service_(std::move(service)), fan_(std::move(fan)) {}

    const HwmonFan& fan() const { return fan_; }

    const std::string& identity() const override { return fan_.identity; }

    JournalEntry originalMode() const override { return {fan_.identity, fan_.pwmEnable, fan_.pwm}; }

    Write write(int pwm) override {
        Write written;
        int errorNumber = 0;
        written.ok = service_->writePWM(fan_, pwm, &written.error, &errorNumber);
        written.changedFromOutside = !written.ok && errorNumber == EBUSY;
        return written;
    }

    bool restore(const JournalEntry& original, std::string* error) override {
        // Unknown means the firmware had it: hwmon's usual automatic mode.
        const int enable = original.enable.value_or(kFirmwareAutomatic);
        // A channel that was already manual gets its old duty cycle back too.
        if (enable == 1 && original.pwm && !writeInteger(fan_.pwmPath(), *original.pwm, error)) {
            return false;
        }
        return writeInteger(fan_.pwmEnablePath(), enable, error);
    }

    std::string describe(const JournalEntry& original) const override {
        return "pwm_enable=" + (original.enable ? std::to_string(*original.enable) : "unknown") +
               ", pwm=" + (original.pwm ? std::to_string(*original.pwm) : "unknown");
    }

private:
    std::shared_ptr<HwmonFanService> service_;
    HwmonFan fan_;
};

}  // namespace

HwmonFans::HwmonFans(std::shared_ptr<HwmonFanService> service, FanOwner& owner)
    : FanKind(owner), service_(std::move(service)) {}

std::unique_ptr<FanDevice> HwmonFans::find(const std::string& identity) const {
    for (HwmonFan& fan : service_->discover()) {
        if (fan.identity == identity) return std::make_unique<HwmonFanDevice>(service_, fan);
    }
    return nullptr;
}

const HwmonFan* HwmonFans::heldFan(ClientId client, const std::string& identity) const {
    const auto* held = dynamic_cast<const HwmonFanDevice*>(owner_.heldDevice(client, identity));
    return held ? &held->fan() : nullptr;
}

ArbiterOutcome HwmonFans::take(ClientId client, const HwmonFan& fan, int pwm) {
    return owner_.take(*this, client, fan.identity, pwm, [&]() -> FanOwner::Opened {
        if (!fan.controllable) {
            return {nullptr, ArbiterOutcome::failure(codes::notControllable,
                                                     fan.identity + " has no PWM control")};
        }
        // The journal is what the helper restores from; the service's own record of the mode
        // starts again with this take.
        service_->forget(fan);
        return {std::make_unique<HwmonFanDevice>(service_, fan), {}};
    });
}

}  // namespace kelvo::helperd
