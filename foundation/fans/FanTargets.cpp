#include "foundation/fans/FanTargets.h"

namespace kelvo {

FanResult checkFanTargets(std::size_t fanCount, std::size_t controllableCount,
                          std::size_t targetCount) {
    if (controllableCount == 0) return FanResult::failure("no controllable fans found");
    if (targetCount != fanCount) {
        return FanResult::failure("expected " + std::to_string(fanCount) + " fan targets, got " +
                                  std::to_string(targetCount));
    }
    return FanResult::success();
}

FanResult FirstFanError::result() const {
    if (!first_.empty()) return FanResult::failure(first_);
    return FanResult::success();
}

std::string calibrationObstacle(bool controllable, bool heldByKelvo, bool speedReadable) {
    if (!controllable) return "this fan's speed cannot be set";
    if (!heldByKelvo)
        return "Kelvo does not control this fan now (the firmware does); a calibration needs the "
               "fan under Kelvo's control";
    if (!speedReadable) return "this fan's speed cannot be read";
    return {};
}

FanResult runFanRound(std::size_t fanCount, const std::function<FanStep(std::size_t)>& step) {
    FirstFanError errors;
    for (std::size_t i = 0; i < fanCount; ++i) {
        FanStep outcome = step(i);
        if (outcome.endsRound()) return outcome.result();
        if (outcome.isFailure()) errors.note(outcome.result().error);
    }
    return errors.result();
}

}  // namespace kelvo
