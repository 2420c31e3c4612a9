#include "foundation/fans/HybridFanController.h"

namespace kelvo {

HybridFanController::HybridFanController(std::shared_ptr<HelperFanController> helper,
                                         std::shared_ptr<LocalFanController> local,
                                         bool allowLocalWriteFallback)
    : helper_(helper ? std::move(helper) : std::make_shared<HelperFanController>()),
      local_(std::move(local)),
      allowLocalWriteFallback_(allowLocalWriteFallback) {}

FanReadResult HybridFanController::readFans() {
    FanReadResult viaHelper = helper_->readFans();
    if (viaHelper.ok || !local_) return viaHelper;
    return local_->readFans();
}

FanResult HybridFanController::setTargets(const std::vector<double>& targetRPM) {
    FanResult viaHelper = helper_->setTargets(targetRPM);
    if (viaHelper.ok || !allowLocalWriteFallback_ || !local_) return viaHelper;
    FanResult viaLocal = local_->setTargets(targetRPM);
    if (viaLocal.ok) return viaLocal;
    return FanResult::failure(viaHelper.error + "; local fallback: " + viaLocal.error);
}

FanResult HybridFanController::releaseToAutomatic() {
    // Both, always: a fallback write may have happened while the helper was away.
    const FanResult viaHelper = helper_->releaseToAutomatic();
    const FanResult viaLocal = local_ ? local_->releaseToAutomatic() : FanResult::success();
    if (!viaHelper.ok) return viaHelper;
    return viaLocal;
}

std::vector<std::string> HybridFanController::takeFansLostBehindOurBack() {
    return helper_->takeFansLostBehindOurBack();
}

std::vector<std::string> HybridFanController::takeFansReclaimedFromUs() {
    std::vector<std::string> fans = helper_->takeFansReclaimedFromUs();
    if (local_) {
        for (auto& fan : local_->takeFansReclaimedFromUs()) fans.push_back(std::move(fan));
    }
    return fans;
}

std::vector<FanRefusal> HybridFanController::takeFanRefusals() {
    // A fan the helper refuses is not written directly instead: the refusal is the helper's
    // configuration or the fan's own state, which a direct write would not change.
    std::vector<FanRefusal> refusals = helper_->takeFanRefusals();
    if (local_) {
        for (auto& refusal : local_->takeFanRefusals()) refusals.push_back(std::move(refusal));
    }
    return refusals;
}

bool HybridFanController::holdsControl() const {
    return helper_->holdsControl() || (local_ && local_->holdsControl());
}

void HybridFanController::attachCurveStore(FanCurveStore store) {
    // Both share one store, so a curve learned through one is not swept again by the other.
    helper_->attachCurveStore(store);
    if (local_) local_->attachCurveStore(std::move(store));
}

std::optional<FanCurve> HybridFanController::learnedCurve(const std::string& identity) {
    if (auto curve = helper_->learnedCurve(identity)) return curve;
    return local_ ? local_->learnedCurve(identity) : std::nullopt;
}

bool HybridFanController::requestCalibration(const std::string& identity, std::string* why) {
    std::string viaHelper;
    if (helper_->requestCalibration(identity, &viaHelper)) return true;
    // The local back-end holds fans only while it writes them in the helper's place.
    if (local_ && local_->holdsControl()) {
        std::string viaLocal;
        if (local_->requestCalibration(identity, &viaLocal)) return true;
        if (why) *why = viaLocal;
        return false;
    }
    if (why) *why = viaHelper;
    return false;
}

std::optional<FanCalibrationStatus> HybridFanController::calibrationStatus(
    const std::string& identity) {
    auto viaHelper = helper_->calibrationStatus(identity);
    auto viaLocal = local_ ? local_->calibrationStatus(identity) : std::nullopt;
    if (viaHelper && viaHelper->running) return viaHelper;
    if (viaLocal && viaLocal->running) return viaLocal;
    return viaHelper ? viaHelper : viaLocal;
}

std::optional<std::string> HybridFanController::helperVersion() {
    return helper_->helperVersion();
}

}  // namespace kelvo
