// Helper first; direct hwmon writes only when the user allowed that fallback (they need root and
// bypass the helper's restore-on-disconnect guarantee).
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "foundation/core/FanController.h"
#include "foundation/fans/HelperFanController.h"
#include "foundation/fans/LocalFanController.h"

namespace kelvo {

class HybridFanController : public FanController,
                            public HelperVersionSource,
                            public FanCurveLearning {
public:
    // A null `local` means no local back-end: no read fallback and no write fallback.
    HybridFanController(std::shared_ptr<HelperFanController> helper,
                        std::shared_ptr<LocalFanController> local, bool allowLocalWriteFallback);

    bool allowLocalWriteFallback() const { return allowLocalWriteFallback_; }

    std::string typeName() const override { return "HybridFanController"; }
    FanBackendKind backendKind() const override { return FanBackendKind::hybrid; }
    FanCurveLearning* curveLearning() override { return this; }
    HelperVersionSource* helperVersionSource() override { return this; }
    // Reads need no privilege, so the local view is used whenever the helper cannot answer.
    FanReadResult readFans() override;
    FanResult setTargets(const std::vector<double>& targetRPM) override;
    FanResult releaseToAutomatic() override;
    bool holdsControl() const override;
    std::vector<std::string> takeFansLostBehindOurBack() override;
    std::vector<std::string> takeFansReclaimedFromUs() override;
    std::vector<FanRefusal> takeFanRefusals() override;

    std::optional<std::string> helperVersion() override;
    void attachCurveStore(FanCurveStore store) override;
    std::optional<FanCurve> learnedCurve(const std::string& identity) override;
    // On whichever back-end holds the fan.
    bool requestCalibration(const std::string& identity, std::string* why) override;
    std::optional<FanCalibrationStatus> calibrationStatus(const std::string& identity) override;

private:
    std::shared_ptr<HelperFanController> helper_;
    std::shared_ptr<LocalFanController> local_;
    bool allowLocalWriteFallback_;
};

}  // namespace kelvo
