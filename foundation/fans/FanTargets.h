// What the fan back-ends share when they apply one target per fan: the checks on the target
// vector, and the round over the fans that keeps going past a failure and reports the first.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "foundation/core/FanController.h"

namespace kelvo {

// Refuses targets that cannot be applied: no controllable fan at all (no fans included), or a
// vector whose length is not the number of fans. Success otherwise.
FanResult checkFanTargets(std::size_t fanCount, std::size_t controllableCount,
                          std::size_t targetCount);

// Keeps the first of a round's per-fan errors; the later ones usually repeat its cause.
class FirstFanError {
public:
    void note(const std::string& error) {
        if (first_.empty()) first_ = error;
    }
    const std::string& first() const { return first_; }
    // Failure with the first error, or success when none was noted.
    FanResult result() const;

private:
    std::string first_;
};

// How one fan's turn in a round ended.
class FanStep {
public:
    // Applied, or nothing to do for this fan.
    static FanStep done() { return FanStep(Kind::done, {}); }
    // This fan failed; the round goes on with the next one.
    static FanStep failed(std::string error) {
        return FanStep(Kind::failed, FanResult::failure(std::move(error)));
    }
    // The round cannot go on (the path to every fan broke): `result` is the round's result.
    static FanStep endRound(FanResult result) { return FanStep(Kind::endRound, std::move(result)); }

    bool isFailure() const { return kind_ == Kind::failed; }
    bool endsRound() const { return kind_ == Kind::endRound; }
    const FanResult& result() const { return result_; }

private:
    enum class Kind { done, failed, endRound };
    FanStep(Kind kind, FanResult result) : kind_(kind), result_(std::move(result)) {}
    Kind kind_;
    FanResult result_;
};

// Why a calibration cannot start on a fan as a back-end sees it; empty when it can.
std::string calibrationObstacle(bool controllable, bool heldByKelvo, bool speedReadable);

// Runs `step` for fans 0 to fanCount - 1. A failed fan does not stop the others, so one stuck
// fan does not leave the rest at stale speeds; the first error is the round's result.
FanResult runFanRound(std::size_t fanCount, const std::function<FanStep(std::size_t)>& step);

}  // namespace kelvo
