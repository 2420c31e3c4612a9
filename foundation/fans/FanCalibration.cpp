#include "foundation/fans/FanCalibration.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace kelvo {

namespace {

constexpr std::size_t kSweepCount = std::size(FanCalibration::kSweepDuties);
// A typical step's length, for the estimate of the time left.
constexpr double kTypicalStepS = 3;

std::string rpmText(double rpm) {
    return std::to_string(std::lround(rpm)) + " rpm";
}

}  // namespace

FanCalibration::FanCalibration(double startTarget, Clock::time_point now)
    : stepStart_(now), startTarget_(startTarget) {
    status_.running = true;
}

int FanCalibration::currentDuty() const {
    return phase_ == Phase::sweep ? kSweepDuties[sweepStep_] : startDuty_;
}

std::optional<int> FanCalibration::advance(double targetRPM, std::optional<double> measuredRPM,
                                           Clock::time_point now) {
    if (!running()) return std::nullopt;
    if (targetRPM > startTarget_ * kRiseShare + kRiseRPM) {
        abandon(
            "Calibration abandoned: the machine needed more air than the calibration gives. "
            "Ask again when it is idle.");
        return std::nullopt;
    }
    if (!measuredRPM) {
        abandon("Calibration abandoned: the fan's speed could not be read.");
        return std::nullopt;
    }
    const double rpm = std::max(0.0, *measuredRPM);
    const auto held = now - stepStart_;
    if (phase_ == Phase::startSearch) {
        if (rpm > 0) {
            result_.noteStarted(startDuty_);
            finish();
            return std::nullopt;
        }
        if (held < kStartWait) return startDuty_;
        startDuty_ += kStartStep;
        if (startDuty_ > kStartSearchCap) {
            // It stops, but nothing this search may try starts it: the curve stands without a
            // start duty, and a restart kicks it conservatively.
            finish();
            return std::nullopt;
        }
        stepStart_ = now;
        return startDuty_;
    }

    const bool settled =
        held >= kMinimumSettle && previousReading_ &&
        std::abs(rpm - *previousReading_) <= std::max(kSettledRPM, kSettledFraction * rpm);
    previousReading_ = rpm;
    if (!settled && held < kLongestSettle) return currentDuty();

    const int duty = kSweepDuties[sweepStep_];
    if (rpm > 0) {
        result_.noteTurning(duty, rpm);
    } else {
        result_.noteStopped(duty);
        // Stopped: find the lowest duty that starts it again, from just above this one.
        phase_ = Phase::startSearch;
        stopDuty_ = duty;
        startDuty_ = duty + kStartStep;
        stepStart_ = now;
        return startDuty_;
    }
    if (sweepStep_ + 1 >= kSweepCount) {
        finish();  // turning even at duty 0: a fan that never stops
        return std::nullopt;
    }
    ++sweepStep_;
    stepStart_ = now;
    previousReading_.reset();
    return currentDuty();
}

void FanCalibration::finish() {
    status_.running = false;
    if (!result_.usable()) {
        status_.succeeded = false;
        status_.message =
            "Calibration failed: the fan's speed did not follow its duty cycle, so Kelvo keeps "
            "the map it had.";
        return;
    }
    status_.succeeded = true;
    std::string message = "Calibrated: " + rpmText(*result_.lowestTurningRPM()) + " at duty " +
                          std::to_string(*result_.lowestTurningDuty()) + " to " +
                          rpmText(result_.turning.rbegin()->second) + " at full duty";
    if (result_.stopsAt) {
        message += "; it stops at duty " + std::to_string(*result_.stopsAt);
        message += result_.startsAt
                       ? " and starts again at duty " + std::to_string(*result_.startsAt)
                       : " and did not start again below duty " + std::to_string(kStartSearchCap);
    } else {
        message += "; it never stops";
    }
    status_.message = message + ".";
}

void FanCalibration::abandon(const std::string& why) {
    if (!running()) return;
    status_.running = false;
    status_.succeeded = false;
    status_.message = why;
}

std::size_t FanCalibration::totalSteps() const {
    // The start search is counted as two steps until it runs: most fans start within a few.
    return kSweepCount + 2;
}

FanCalibrationStatus FanCalibration::status(Clock::time_point now) const {
    FanCalibrationStatus status = status_;
    if (!running()) return status;
    const double total = static_cast<double>(totalSteps());
    double done = 0;
    if (phase_ == Phase::sweep) {
        const double inStep = std::clamp(
            std::chrono::duration<double>(now - stepStart_).count() / kTypicalStepS, 0.0, 0.9);
        done = static_cast<double>(sweepStep_) + inStep;
    } else {
        // How many steps the start search takes is unknown: each one closes half the gap.
        const double steps = static_cast<double>((startDuty_ - stopDuty_) / kStartStep);
        done = static_cast<double>(kSweepCount) + 2.0 * (1.0 - std::pow(0.5, steps));
    }
    status.progress = std::clamp(done / total, 0.0, 0.99);
    status.secondsLeft = std::max(0.0, (total - done) * kTypicalStepS);
    return status;
}

}  // namespace kelvo
