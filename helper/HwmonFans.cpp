#include "helper/HwmonFans.h"

#include <cerrno>

#include "foundation/core/SysfsMounts.h"
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
        if (!written.ok && vanished(errorNumber)) return writeWherever(pwm);
        written.changedFromOutside = !written.ok && errorNumber == EBUSY;
        return written;
    }

    bool restore(const JournalEntry& original, std::string* error) override {
        int errorNumber = 0;
        if (restoreAt(fan_, original, error, &errorNumber)) return true;
        if (!vanished(errorNumber)) return false;
        // Rebound under another hwmonN since the last write: give it back there.
        for (const HwmonFan& fan : service_->discover()) {
            if (fan.identity != fan_.identity || !fan.controllable) continue;
            fan_ = fan;
            return restoreAt(fan_, original, error, &errorNumber);
        }
        return false;
    }

    std::string describe(const JournalEntry& original) const override {
        return "pwm_enable=" + (original.enable ? std::to_string(*original.enable) : "unknown") +
               ", pwm=" + (original.pwm ? std::to_string(*original.pwm) : "unknown");
    }

private:
    static bool restoreAt(const HwmonFan& fan, const JournalEntry& original, std::string* error,
                          int* errorNumber) {
        // Unknown means the firmware had it: hwmon's usual automatic mode.
        const int enable = original.enable.value_or(kFirmwareAutomatic);
        // A channel that was already manual gets its old duty cycle back too.
        if (enable == 1 && original.pwm &&
            !writeInteger(fan.pwmPath(), *original.pwm, error, errorNumber)) {
            return false;
        }
        return writeInteger(fan.pwmEnablePath(), enable, error, errorNumber);
    }

    // The attribute is not there any more: the hwmon directory went with its driver.
    bool vanished(int errorNumber) const {
        return (errorNumber == ENOENT || errorNumber == ENODEV || errorNumber == ENXIO) &&
               !sysfs::pathExists(fan_.pwmEnablePath());
    }

    // A driver unbound and bound again gives the same device another hwmonN: the fan is found
    // again by its identity, which does not name the hwmonN, and taken afresh there (the
    // rebound driver has reset its mode). The journaled original is still the one to restore.
    Write writeWherever(int pwm) {
        Write written;
        for (const HwmonFan& fan : service_->discover()) {
            if (fan.identity != fan_.identity) continue;
            if (!fan.controllable) {
                // Still there, but without its control attributes for now: held, and retried.
                written.ok = false;
                written.error = "cannot write " + fan_.identity + ": its pwm attributes are gone";
                return written;
            }
            service_->forget(fan_);
            fan_ = fan;
            int errorNumber = 0;
            written.ok = service_->writePWM(fan_, pwm, &written.error, &errorNumber);
            if (written.ok) {
                written.note = fan_.identity + " moved to " + fan_.hwmonDir.filename().string() +
                               " (its driver was bound again); writing there";
            }
            return written;
        }
        written.ok = false;
        written.gone = true;
        written.error = fan_.identity + " is gone: its hwmon device went away (" +
                        fan_.hwmonDir.filename().string() + " vanished and did not come back)";
        return written;
    }

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
