// A full calibration of one fan that the user asked for: the fan is run from full duty down, one
// held step at a time, to the step where it stands still (or to duty 0 when it never does), and
// then up from there in small steps until it starts again. Loud on purpose, so only on request.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "foundation/core/FanController.h"
#include "foundation/fans/FanKnowledge.h"

namespace kelvo {

class FanCalibration {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr int kSweepDuties[] = {255, 204, 166, 128, 102, 77, 64, 51, 38, 26, 13, 0};
    // The start search climbs from the duty the fan stopped at in these steps, up to the cap.
    static constexpr int kStartStep = 6;
    static constexpr int kStartSearchCap = 128;
    // A step's speed is read once it changes by less than this between two calls...
    static constexpr double kSettledFraction = 0.03;
    static constexpr double kSettledRPM = 30;
    // ...but no sooner than this after the write, and no later than the longest wait.
    static constexpr std::chrono::milliseconds kMinimumSettle{2000};
    static constexpr std::chrono::milliseconds kLongestSettle{8000};
    // A start-search step is given this long to show the fan turning.
    static constexpr std::chrono::milliseconds kStartWait{4000};
    // A target this much above the one the calibration started with abandons it.
    static constexpr double kRiseShare = 1.25;
    static constexpr double kRiseRPM = 100;

    FanCalibration(double startTarget, Clock::time_point now);

    // The duty to write this round, or none once it has ended (finished or abandoned).
    std::optional<int> advance(double targetRPM, std::optional<double> measuredRPM,
                               Clock::time_point now);
    void abandon(const std::string& why);

    bool running() const { return !status_.succeeded.has_value(); }
    FanCalibrationStatus status(Clock::time_point now) const;
    // What the calibration measured; complete once it has succeeded.
    const FanKnowledge& result() const { return result_; }

private:
    enum class Phase { sweep, startSearch };
    std::size_t totalSteps() const;
    void finish();
    int currentDuty() const;

    Phase phase_ = Phase::sweep;
    std::size_t sweepStep_ = 0;
    int stopDuty_ = 0;
    int startDuty_ = 0;
    Clock::time_point stepStart_;
    std::optional<double> previousReading_;
    double startTarget_ = 0;
    FanKnowledge result_;
    FanCalibrationStatus status_;
};

}  // namespace kelvo
