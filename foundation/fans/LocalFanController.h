// Fan back-end that writes hwmon PWM attributes itself. Needs write access to sysfs (root);
// unprivileged sessions go through the helper instead.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "foundation/core/FanController.h"
#include "foundation/fans/FanCurveLearner.h"
#include "foundation/fans/HwmonFanService.h"

namespace kelvo {

class LocalFanController : public FanController, public FanCurveLearning {
public:
    // `curveClock` times curve learning and calibration (tests step it by hand).
    explicit LocalFanController(std::shared_ptr<HwmonFanService> service,
                                FanCurveLearner::Now curveClock = FanCurveLearner::Clock::now);

    std::string typeName() const override { return "LocalFanController"; }
    FanBackendKind backendKind() const override { return FanBackendKind::local; }
    FanCurveLearning* curveLearning() override { return this; }

    // Every discovered fan, named by its stable identity. No fans is not an error.
    FanReadResult readFans() override;
    // Targets follow the order of readFans(). 0 gives that fan back to the firmware;
    // kFanStopRPM holds it at the duty it rests at; another target for a fan without PWM
    // control is ignored (the firmware keeps it).
    FanResult setTargets(const std::vector<double>& targetRPM) override;
    FanResult releaseToAutomatic() override;
    bool holdsControl() const override;
    std::vector<std::string> takeFansReclaimedFromUs() override;

    // Duty cycle for a target speed until a learned per-fan curve exists: linear between the
    // fan's minimum and maximum speed (unknown maximum: 5000 RPM, unknown minimum: 0).
    static int linearPWMForRPM(double targetRPM, double minRPM, double maxRPM);

    // Targets map through what is learned of each fan while it works (see FanCurveLearner),
    // and that is stored.
    void attachCurveStore(FanCurveStore store) override;
    std::optional<FanCurve> learnedCurve(const std::string& identity) override;
    // Only for a fan Kelvo holds; it runs on the following setTargets() rounds.
    bool requestCalibration(const std::string& identity, std::string* why) override;
    std::optional<FanCalibrationStatus> calibrationStatus(const std::string& identity) override;
    // Whether a calibration of the fan is under way (diagnostics).
    bool calibrating(const std::string& identity) const;

private:
    struct Held {
        HwmonFan fan;
        double targetRPM = 0;
    };

    std::shared_ptr<HwmonFanService> service_;
    mutable std::mutex mutex_;
    std::map<std::string, Held> held_;    // fans Kelvo switched to manual, by identity
    std::vector<std::string> reclaimed_;  // held fans whose mode someone else changed
    FanCurveLearner curves_;
};

}  // namespace kelvo
