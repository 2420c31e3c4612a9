// The simulated machine shared by the simulated fan back-end and telemetry: one thermal plant on
// a timeline, safe to drive from the control loop, the fan writer and tests at once. It also
// carries the faults tests and demos inject into the fan path.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "foundation/core/Types.h"
#include "foundation/sim/HostLoadReader.h"
#include "foundation/sim/ThermalPlant.h"

namespace kelvo::sim {

class SimulatedMachine {
public:
    explicit SimulatedMachine(PlantConfig config = {}, std::uint64_t seed = 1,
                              HostLoadReader hostLoad = HostLoadReader{});

    // Integrates the plant from the previous call up to `now`. The first call only sets the
    // clock; a clock that goes backwards is taken as the new origin; gaps longer than
    // kMaxAdvanceSeconds are integrated as that long (a suspended laptop does not cook).
    void advanceTo(Timestamp now);
    std::optional<Timestamp> lastAdvance() const;

    void setLoad(double cpu01, double gpu01);
    // When on, each advanceTo takes the host's CPU utilisation as CPU load and half of it as GPU
    // load (keeping the previous load when the host reading is unavailable).
    void setFollowHostLoad(bool follow);
    bool followsHostLoad() const;

    PlantState state() const;
    PlantConfig config() const;

    void setFanCommand(std::vector<double> targetRPM);
    void setFirmwareControl(bool released);
    bool holdsControl() const;

    // Fault injection: a set reason makes every fan write (or read) fail with it.
    void setFanWriteFailure(std::optional<std::string> reason);
    void setFanReadFailure(std::optional<std::string> reason);
    std::optional<std::string> fanWriteFailure() const;
    std::optional<std::string> fanReadFailure() const;
    // How long each fan write blocks before it lands, to stand in for a slow back-end.
    void setFanWriteDelay(double seconds);
    double fanWriteDelay() const;

    static constexpr double kMaxAdvanceSeconds = 10;

private:
    mutable std::mutex mutex_;
    ThermalPlant plant_;
    HostLoadReader hostLoad_;
    bool followHostLoad_ = false;
    std::optional<Timestamp> last_;
    std::optional<std::string> writeFailure_;
    std::optional<std::string> readFailure_;
    double writeDelay_ = 0;
};

}  // namespace kelvo::sim
